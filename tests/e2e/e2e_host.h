// End-to-end rig: the built plug-in, loaded with dlopen as an HMI runtime
// loads it, talks over a real pseudo-terminal to the controller simulator
// served in this process. The host's loop is the one a runtime runs:
// ComCommunication, write the frame to the line, read until a complete reply
// (or the reply timeout), DataCom.
//
// Every wait is a poll with a timeout and every loop has a turn limit, so a
// driver or simulator that hangs fails the test instead of blocking it.
#ifndef ABCL_E2E_HOST_H
#define ABCL_E2E_HOST_H

#include "ab_controllogix_compactlogix.h"
#include "../build_kind.h"
#include "../hex_text.h"

#include "peer/controller.h"
#include "peer/host_loop.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace e2e {

// One turn of the host's loop, and what its reply came to.
using Step = peer::Exchange;
using peer::LineOutcome;
using peer::LineOutcomeName;

// How the simulator is set up for a test.
struct SimConfig {
    peer::LinkMode mode = peer::LinkMode::kDirect;
    int baud = 115200;          // replies are paced at this rate
    uint32_t turnaroundMs = 1;  // request end to reply start
};

// One call of the one-shot read callback.
struct Callback {
    int context;
    int varId;
    int varSubId;
    int status;
};

// One entry of the host's cyclic list.
struct Item {
    int dataType;
    const char* address;
    int count;
};

constexpr int kHostContext = 0x0E2E;

// Sees a request before it goes out, to arm a fault for exactly that exchange.
using Hook = std::function<void(const Step&)>;

class EndToEnd : public ::testing::Test {
protected:
    // Called before anything starts; a fixture for another link mode
    // overrides it.
    virtual SimConfig Config() const { return SimConfig(); }

    void SetUp() override;
    void TearDown() override;

    // ---- the loop ----------------------------------------------------------
    // One turn of the loop.
    Step Turn(const Hook& beforeSend = nullptr);
    // Turns until `done` holds for a turn (that turn included) or `limit`
    // turns have run; the second is a test failure.
    std::vector<Step> RunUntil(const std::function<bool(const Step&)>& done, int limit,
                               const Hook& beforeSend = nullptr);
    // Turns until DataCom reports a result other than 0 (retry), within
    // `limit` turns.
    std::vector<Step> RunUntilReported(int limit, const Hook& beforeSend = nullptr);
    // Turns until ComInfo.cycleDone is 1, every one of them a good exchange.
    std::vector<Step> RunUntilCycleDone(int limit = 200);
    // Turns until ComCommunication returns nothing twice in a row: after
    // five writes (or five one-shot reads) in a row it returns nothing once
    // to let the cyclic list in, even with work still queued.
    std::vector<Step> RunUntilIdle(int limit = 40, const Hook& beforeSend = nullptr);
    // One pass over the cyclic list (two exchanges per request), every one a
    // good exchange of a cyclic read. Nothing else may be queued.
    void RunPass();

    // ---- host calls --------------------------------------------------------
    // Replaces the cyclic list; returns the number of read requests built.
    int SetCyclicList(const std::vector<Item>& items);
    int WriteWords(int dataType, const char* address, const std::vector<uint16_t>& values,
                   int varId, int station = 1);
    int WriteBit(int dataType, const char* address, bool value, int varId, int station = 1);
    // REAL values: two count units per value.
    int WriteReals(const char* address, const std::vector<uint32_t>& bitPatterns, int varId,
                   int station = 1);
    int OnceRead(int dataType, const char* address, int count, int varId, int varSubId,
                 int station = 1);

    std::vector<uint16_t> ImageWords(int dataType, const char* address, int count);
    std::vector<int> ImageBits(int dataType, const char* address, int count);
    std::vector<uint32_t> ImageReals(const char* address, int values);

    // ---- the controller's memory --------------------------------------------
    void SimWords(char letter, int file, int element, const std::vector<uint16_t>& values);
    void SimReals(int file, int element, const std::vector<uint32_t>& bitPatterns);
    std::vector<uint16_t> SimWordsAt(char letter, int file, int element, int count);
    std::vector<uint32_t> SimRealsAt(int file, int element, int count);

    // ---- faults, for the next reply(ies) the controller produces -------------
    void DropNext(uint32_t replies);
    void CorruptNext(uint32_t replies);
    void TruncateNext(uint32_t replies, uint32_t bytes);
    void LateNext(uint32_t replies, uint32_t ms);
    void WrongTnsNext(uint32_t replies);

    static const std::vector<Callback>& Callbacks();

    peer::Plugin plugin;
    const peer::PluginApi* api = nullptr;
    ComInfo info{};

    peer::TagMemory memory;
    std::unique_ptr<peer::Controller> controller;
    std::unique_ptr<peer::SerialLine> line;
    std::unique_ptr<peer::Server> server;
    peer::HostPort host;

    // How long the host waits for a reply. An exchange whose reply a test
    // has made the controller drop or cut short waits faultTimeoutMs only,
    // so a test spends little time on it while every other exchange keeps a
    // margin for a loaded machine.
    int replyTimeoutMs = 1000;
    int faultTimeoutMs = 150;
    // A host that hands DataCom whatever came before the timeout, instead of
    // an empty array.
    bool handPartialReplies = false;
    // In remote mode the host zeroes replyDone before each exchange.
    bool zeroReplyDone = true;

private:
    // Moves the driver's transaction number past its random first value.
    void PrimeTransactionNumber();

    bool noCompleteReply_ = false;  // the next reply is dropped or cut short
    std::vector<std::unique_ptr<ReadVarItem>> items_;
    int cyclicRequests_ = 0;
};

// Bit pattern <-> float, as the image and the controller keep REALs.
uint32_t RealBits(float value);
float RealFromBits(uint32_t bits);

// Number of bytes 0x10 in the little-endian bytes of the values.
int DleBytes(const std::vector<uint16_t>& words);
int DleBytes(const std::vector<uint32_t>& values);

// Reply byte at a position (0 when the reply is shorter).
uint8_t ByteAt(const QByteArray& bytes, int position);

}  // namespace e2e

#endif
