// What a controller's direct-mode reply says about its request, read the way
// a host that judges replies by their status reads it: the DF1 header status
// and, when the body carries a CIP Multiple Service Packet reply, its general
// status and the general status of the embedded service's reply.
#ifndef PEER_REPLY_STATUS_H
#define PEER_REPLY_STATUS_H

#include <cstdint>
#include <vector>

namespace peer {

struct ReplyStatus {
    bool parsed = false;  // a body with at least the DF1 header
    uint8_t df1Status = 0;
    bool hasCip = false;       // the CIP reply header is present
    uint8_t cipGeneral = 0;    // the Multiple Service Packet reply's status
    bool hasEmbedded = false;  // the embedded reply's header is present
    uint8_t embeddedGeneral = 0;

    // True when any status present is not 0.
    bool failed() const {
        return parsed && (df1Status != 0 || (hasCip && cipGeneral != 0) ||
                          (hasEmbedded && embeddedGeneral != 0));
    }
};

// Reads a complete reply as received (lead-in, doubled DLEs and trailer
// included). Nothing is parsed when MessageBody finds no body.
ReplyStatus ReadReplyStatus(const std::vector<uint8_t>& reply);

}  // namespace peer

#endif
