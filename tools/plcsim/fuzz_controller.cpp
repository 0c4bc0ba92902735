// libFuzzer entry: the first input byte picks the link mode and a few
// options, the rest goes to the controller as received bytes, in pieces.
#include "peer/cip.h"
#include "peer/controller.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const uint8_t mode = data[0];
    ++data;
    --size;

    peer::TagMemory memory({{'B', 3, 16}, {'N', 7, 16}, {'F', 8, 8}});
    if (mode & 0x80) {
        // Straight to the CIP decoder and services.
        peer::AnswerCipMessage(data, size, memory, 1 + (mode & 0x7F) * 4);
        return 0;
    }
    peer::ControllerOptions options;
    options.mode = (mode & 1) ? peer::LinkMode::kRemote : peer::LinkMode::kDirect;
    options.nakBadFrames = (mode & 2) != 0;
    options.detectDuplicates = (mode & 4) != 0;
    options.maxReplyData = (mode & 8) ? 40 : 244;
    peer::Controller controller(memory, options);
    peer::FaultPlan plan;
    plan.truncate.every = (mode & 16) ? 2 : 0;
    plan.wrongTns.every = (mode & 32) ? 3 : 0;
    controller.setFaults(plan);
    // Pieces of varying size, as a serial line delivers them.
    std::size_t offset = 0;
    int64_t now = 0;
    while (offset < size) {
        const std::size_t piece = 1 + (data[offset] % 17);
        const std::size_t n = piece < size - offset ? piece : size - offset;
        controller.receive(data + offset, n, now += 10);
        offset += n;
        if (mode & 64) controller.resetReceiver();
    }
    return 0;
}
