// The controller's end of a pseudo-terminal for tests of the host's end: it
// waits for a request of a known size and answers it with set bytes, on its
// own thread, every wait bounded.
#ifndef PEER_TEST_CONTROLLER_END_H
#define PEER_TEST_CONTROLLER_END_H

#include "peer/line.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// "10 06 10 02" -> bytes. Blanks are ignored.
inline std::vector<uint8_t> Bytes(const char* hex) {
    std::vector<uint8_t> out;
    std::string digits;
    for (const char* p = hex; *p; ++p)
        if (*p != ' ') digits += *p;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

class ControllerEnd {
public:
    // Every wait for a request ends after this long.
    static constexpr int kRequestWaitMs = 5000;

    ControllerEnd() {
        std::string error;
        line_ = peer::SerialLine::OpenPty("", &error);
        EXPECT_TRUE(line_) << error;
    }
    ~ControllerEnd() { join(); }

    const std::string& peerPath() const { return line_->peerPath(); }

    // Takes requestSize bytes, then writes answer (if not empty).
    void answer(std::size_t requestSize, std::vector<uint8_t> answer) {
        thread_ = std::thread([this, requestSize, answer] {
            received_ = readBytes(requestSize);
            if (!answer.empty()) peer::WriteAll(line_->fd(), answer.data(), answer.size());
        });
    }
    // Takes requestSize bytes, writes answer, then writes each of `later`
    // gapMs after the one before: a late reply, or a stream of bytes.
    void answerThen(std::size_t requestSize, std::vector<uint8_t> answer, int gapMs,
                    std::vector<std::vector<uint8_t>> later) {
        thread_ = std::thread([this, requestSize, answer, gapMs, later] {
            received_ = readBytes(requestSize);
            peer::WriteAll(line_->fd(), answer.data(), answer.size());
            for (const auto& bytes : later) {
                std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
                peer::WriteAll(line_->fd(), bytes.data(), bytes.size());
            }
        });
    }
    // Waits for the thread; the request as it arrived.
    const std::vector<uint8_t>& request() {
        join();
        return received_;
    }

private:
    std::vector<uint8_t> readBytes(std::size_t n) const {
        std::vector<uint8_t> bytes;
        const int64_t deadline = peer::MonotonicMs() + kRequestWaitMs;
        while (bytes.size() < n && peer::MonotonicMs() < deadline) {
            pollfd in = {line_->fd(), POLLIN, 0};
            if (poll(&in, 1, static_cast<int>(deadline - peer::MonotonicMs())) <= 0) continue;
            uint8_t buffer[256];
            const ssize_t r = ::read(line_->fd(), buffer, sizeof buffer);
            if (r > 0) bytes.insert(bytes.end(), buffer, buffer + r);
        }
        return bytes;
    }
    void join() {
        if (thread_.joinable()) thread_.join();
    }

    std::unique_ptr<peer::SerialLine> line_;
    std::thread thread_;
    std::vector<uint8_t> received_;
};

#endif
