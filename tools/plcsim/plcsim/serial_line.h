// The controller's end of a serial line: the master side of a fresh
// pseudo-terminal (the requester opens the other side, such as /dev/pts/3),
// or a real serial device.
#ifndef PLCSIM_SERIAL_LINE_H
#define PLCSIM_SERIAL_LINE_H

#include <memory>
#include <string>

namespace plcsim {

class SerialLine {
public:
    // A new pseudo-terminal in raw mode. Its peer is peerPath(). The line
    // keeps its own descriptor of the peer open, so the master never sees a
    // hang-up while requesters come and go. If linkPath is not empty a
    // symbolic link of that name is made to the peer (replacing an existing
    // symbolic link, never another kind of file) and removed again on close.
    static std::unique_ptr<SerialLine> OpenPty(const std::string& linkPath, std::string* error);

    // A serial device, raw 8N1 at baud, no flow control.
    static std::unique_ptr<SerialLine> OpenDevice(const std::string& path, int baud,
                                                  std::string* error);

    ~SerialLine();
    SerialLine(const SerialLine&) = delete;
    SerialLine& operator=(const SerialLine&) = delete;

    // Non-blocking descriptor to read requests from and write replies to.
    int fd() const { return fd_; }
    // The path a requester opens: the pty's peer, or the device itself.
    const std::string& peerPath() const { return peerPath_; }
    const std::string& linkPath() const { return linkPath_; }
    bool isPty() const { return peerFd_ >= 0; }

private:
    SerialLine() = default;
    int fd_ = -1;
    int peerFd_ = -1;
    std::string peerPath_;
    std::string linkPath_;
};

// True for the standard rates the line can be set to.
bool IsSupportedBaud(int baud);

}  // namespace plcsim

#endif
