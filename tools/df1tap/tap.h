// The tap itself: bytes read on one side are written to the other at once,
// unchanged, and recorded in the capture with the time they were read.
#ifndef DF1TAP_TAP_H
#define DF1TAP_TAP_H

#include "peer/capture.h"

#include <cstdint>
#include <string>

namespace df1tap {

// One side of the tap: an open, non-blocking descriptor, its name for
// messages, and which way the bytes read from it go.
struct Side {
    int fd = -1;
    std::string name;
    peer::capture::Direction direction = peer::capture::kHostToController;
    uint64_t bytesRead = 0;
};

class Tap {
public:
    // Side a is the host's (its bytes are requests), side b the
    // controller's. The capture must be open and outlive the tap.
    Tap(Side a, Side b, peer::LineCapture& capture);

    // Forwards until wakeFd becomes readable (true) or a side fails (false,
    // error() says which and why).
    bool run(int wakeFd);
    const std::string& error() const { return error_; }
    const Side& a() const { return a_; }
    const Side& b() const { return b_; }

private:
    // Moves what `from` has to `to`; false when either side failed.
    bool forward(Side& from, Side& to, short events);
    // How long poll may wait: until the capture's quiet deadline, or for ever.
    int waitMs() const;

    Side a_;
    Side b_;
    peer::LineCapture& capture_;
    std::string error_;
};

}  // namespace df1tap

#endif
