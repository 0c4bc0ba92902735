#include "plcsim/serial_line.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace plcsim {

namespace {

struct BaudEntry {
    int baud;
    speed_t speed;
};

const BaudEntry kBauds[] = {{300, B300},     {600, B600},       {1200, B1200},    {2400, B2400},
                            {4800, B4800},   {9600, B9600},     {19200, B19200},  {38400, B38400},
                            {57600, B57600}, {115200, B115200}, {230400, B230400}};

bool SpeedOf(int baud, speed_t* speed) {
    for (const auto& entry : kBauds) {
        if (entry.baud == baud) {
            *speed = entry.speed;
            return true;
        }
    }
    return false;
}

std::string Describe(const std::string& what, int err) {
    return what + ": " + std::strerror(err);
}

bool MakeRaw(int fd, int baud, std::string* error) {
    termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        if (error) *error = Describe("tcgetattr", errno);
        return false;
    }
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CRTSCTS);
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    speed_t speed;
    if (SpeedOf(baud, &speed)) {
        cfsetispeed(&tio, speed);
        cfsetospeed(&tio, speed);
    }
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        if (error) *error = Describe("tcsetattr", errno);
        return false;
    }
    return true;
}

}  // namespace

bool IsSupportedBaud(int baud) {
    speed_t speed;
    return SpeedOf(baud, &speed);
}

std::unique_ptr<SerialLine> SerialLine::OpenPty(const std::string& linkPath, std::string* error) {
    std::unique_ptr<SerialLine> line(new SerialLine);
    line->fd_ = posix_openpt(O_RDWR | O_NOCTTY);
    if (line->fd_ < 0) {
        if (error) *error = Describe("posix_openpt", errno);
        return nullptr;
    }
    if (grantpt(line->fd_) != 0 || unlockpt(line->fd_) != 0) {
        if (error) *error = Describe("grantpt/unlockpt", errno);
        return nullptr;
    }
    char name[128];
    if (ptsname_r(line->fd_, name, sizeof name) != 0) {
        if (error) *error = Describe("ptsname_r", errno);
        return nullptr;
    }
    line->peerPath_ = name;
    line->peerFd_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (line->peerFd_ < 0) {
        if (error) *error = Describe("open " + line->peerPath_, errno);
        return nullptr;
    }
    if (!MakeRaw(line->peerFd_, 19200, error)) return nullptr;
    const int flags = fcntl(line->fd_, F_GETFL);
    fcntl(line->fd_, F_SETFL, flags | O_NONBLOCK);
    fcntl(line->fd_, F_SETFD, FD_CLOEXEC);

    if (!linkPath.empty()) {
        struct stat st;
        if (lstat(linkPath.c_str(), &st) == 0) {
            if (!S_ISLNK(st.st_mode)) {
                if (error) *error = linkPath + " exists and is not a symbolic link";
                return nullptr;
            }
            unlink(linkPath.c_str());
        }
        if (symlink(name, linkPath.c_str()) != 0) {
            if (error) *error = Describe("symlink " + linkPath, errno);
            return nullptr;
        }
        line->linkPath_ = linkPath;
    }
    return line;
}

std::unique_ptr<SerialLine> SerialLine::OpenDevice(const std::string& path, int baud,
                                                   std::string* error) {
    if (!IsSupportedBaud(baud)) {
        if (error) *error = "unsupported baud rate " + std::to_string(baud);
        return nullptr;
    }
    std::unique_ptr<SerialLine> line(new SerialLine);
    line->fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (line->fd_ < 0) {
        if (error) *error = Describe("open " + path, errno);
        return nullptr;
    }
    if (!MakeRaw(line->fd_, baud, error)) return nullptr;
    tcflush(line->fd_, TCIOFLUSH);
    line->peerPath_ = path;
    return line;
}

SerialLine::~SerialLine() {
    if (!linkPath_.empty()) {
        // Only our own link: someone may have replaced it meanwhile.
        char target[256];
        const ssize_t n = readlink(linkPath_.c_str(), target, sizeof target - 1);
        if (n >= 0) {
            target[n] = '\0';
            if (peerPath_ == target) unlink(linkPath_.c_str());
        }
    }
    if (peerFd_ >= 0) close(peerFd_);
    if (fd_ >= 0) close(fd_);
}

}  // namespace plcsim
