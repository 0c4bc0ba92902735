// A controller served in this process on a fresh pseudo-terminal behind a
// symbolic link, and a temporary folder for that link: the far end of a line
// that a test can make vanish (closing the master hangs up every host that
// has the peer open) and come back behind the same path.
#ifndef ABCL_TESTS_SERVED_CONTROLLER_H
#define ABCL_TESTS_SERVED_CONTROLLER_H

#include "peer/controller.h"
#include "peer/line.h"
#include "peer/server.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>

class ServedController {
public:
    // `prepare` fills the tag memory before the server starts.
    ServedController(const std::string& linkPath, int paceBaud, uint32_t turnaroundMs,
                     const std::function<void(peer::TagMemory&)>& prepare = {}) {
        if (prepare) prepare(memory_);
        std::string error;
        line_ = peer::SerialLine::OpenPty(linkPath, &error);
        EXPECT_TRUE(line_) << error;
        if (!line_) return;
        peer::ServerOptions options;
        options.paceBaud = paceBaud;
        options.turnaroundMs = turnaroundMs;
        options.tickIntervalMs = 0;
        server_ = std::make_unique<peer::Server>(controller_, memory_, *line_, options);
        EXPECT_TRUE(server_->start(&error)) << error;
    }
    ~ServedController() { close(); }
    ServedController(const ServedController&) = delete;
    ServedController& operator=(const ServedController&) = delete;

    void close() {
        if (server_) server_->stop();
        server_.reset();
        line_.reset();
    }

private:
    peer::TagMemory memory_;
    peer::Controller controller_{memory_};
    std::unique_ptr<peer::SerialLine> line_;
    std::unique_ptr<peer::Server> server_;
};

// A fixture with a fresh folder and the path of the link inside it.
class LinkFolder : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/abcl_link_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        link_ = dir_ + "/plc";
    }
    void TearDown() override {
        unlink(link_.c_str());
        rmdir(dir_.c_str());
    }
    std::string dir_;
    std::string link_;
};

#endif
