// Both ends of a serial line: the controller's end (the master side of a
// fresh pseudo-terminal, whose other side a requester opens, such as
// /dev/pts/3, or a real serial device), the host's end (a terminal device
// opened by path), one table of the rates termios offers, raw 8N1 set-up,
// and the byte pacing that makes a pseudo-terminal behave like a line of a
// given rate.
#ifndef PEER_SERIAL_LINE_H
#define PEER_SERIAL_LINE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace peer {

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

// True for every rate termios offers on this system (50 to 4,000,000 on
// Linux).
bool IsSupportedBaud(int baud);

// Sets an open terminal to raw 8N1 at baud (a rate IsSupportedBaud accepts;
// any other leaves the rate as it is), no flow control, no modem control,
// reads returning after vmin bytes. False with the failing call and its
// reason.
bool ConfigureRaw(int fd, int baud, int vmin, std::string* error);

// Opens a terminal device by path for the host's end of a line, non-blocking
// (opening does not wait for a carrier; waiting is done with poll), and sets
// it to raw 8N1 at baud. -1 on failure, with the reason in *error:
// "cannot open port PATH: ...", "cannot use PATH as a serial port: not a
// terminal device", "cannot set up port PATH: ...", or "unsupported baud
// rate N".
int OpenTerminal(const std::string& path, int baud, std::string* error);

// Writes all n bytes to a descriptor, waiting while it is full; false on an
// error other than an interrupted or would-block write.
bool WriteAll(int fd, const uint8_t* bytes, std::size_t n);

// The monotonic clock, in milliseconds and in nanoseconds.
int64_t MonotonicMs();
int64_t MonotonicNs();

// Bytes of a message that have crossed the line elapsedNs after its first
// bit was sent, at baud (10 bits a byte: start, 8 data, stop): byte k has
// crossed once (k + 1) byte times have passed. A sender on a
// pseudo-terminal, which delivers at once, hands each byte over when it has
// crossed, so the receiver sees it when it would on a real line. With baud 0
// the whole message may go at once.
std::size_t PacedBytesAllowed(int64_t elapsedNs, int baud, std::size_t total);

// Nanoseconds from a message's first bit until byte `index` has crossed the
// line at baud, (index + 1) byte times; 0 with baud 0.
int64_t PacedDueNs(std::size_t index, int baud);

// Lets this thread's timed sleeps (and those of threads it starts later) end
// when asked, not up to the kernel's default slack later: pacing at 115,200
// baud sleeps about 87 us a byte.
void UseTightTimers();

// True for the peer (slave) side of a pseudo-terminal, which delivers bytes
// at once and so needs pacing by the sender; a real serial device paces
// itself.
bool IsPseudoTerminal(int fd);

// Bytes at one end of a line: written to it, or read from it.
enum class Traffic { kSent, kReceived };
// Sees every byte an end of a line writes or reads, chunk by chunk, with the
// monotonic time (MonotonicNs) of the write or the read. Called on the
// thread that does the writing or reading.
using TrafficObserver =
    std::function<void(Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t nowNs)>;

// What one exchange on the host's end of a line came to.
enum class LineOutcome {
    kReply,    // a complete reply arrived
    kRefused,  // the controller answered DLE NAK
    kTimeout,  // nothing complete within the timeout
    kStopped,  // wakeFd became readable (the program is stopping)
    kError,    // the line failed (HostPort::error() says how)
    // The line is down and being reopened (HostPort::setReopen): nothing
    // complete went out or came back, and the timeout has been waited out.
    kLineDown,
};
const char* LineOutcomeName(LineOutcome outcome);

// A host's port whose line failed tries to open it again this long after
// the failure, then each time twice as long after the last try, never more
// than kReopenLongestMs apart: quick for a far end that restarts, and easy
// on a machine whose adapter stays unplugged.
constexpr int kReopenFirstMs = 100;
constexpr int kReopenLongestMs = 2000;

// The host's end of a line: a terminal device (a real port or the peer of a
// pseudo-terminal) in raw 8N1 mode, and one request/reply exchange on it.
class HostPort {
public:
    HostPort() = default;
    ~HostPort();
    HostPort(const HostPort&) = delete;
    HostPort& operator=(const HostPort&) = delete;

    // Opens path with OpenTerminal. False with its reason.
    bool open(const std::string& path, int baud, std::string* error);
    void close();

    // With reopening on, a line that fails while open (a read, write or poll
    // error, a hang-up: a USB adapter unplugged, the far end's
    // pseudo-terminal closed) does not end the port's use. The port closes
    // the device and, from then on, opens the same path at the same rate
    // again whenever an attempt is due (kReopenFirstMs after the failure,
    // doubling up to kReopenLongestMs). While the line is down an exchange
    // sends nothing, waits out its timeout (trying to reopen on the way,
    // stopping early only for wakeFd) and returns kLineDown, so a host
    // keeps the pace of a line that gets no replies. Off (the default): a
    // failure is kError and the port stays as it is.
    void setReopen(bool on) { reopen_ = on; }
    bool lineDown() const { return down_; }
    // Tries to reopen a line that is down, when an attempt is due; true when
    // the line is up. For a host that has nothing to send meanwhile.
    bool reopenIfDue();
    // How many times the line was lost since open().
    uint64_t linesLost() const { return linesLost_; }
    // The current (or last) down period: when it began on the monotonic
    // clock (MonotonicMs), the attempts to reopen made in it, and why the
    // last one that failed did.
    int64_t downSinceMs() const { return downSinceMs_; }
    int reopenAttempts() const { return reopenAttempts_; }
    const std::string& reopenError() const { return reopenError_; }

    bool isOpen() const { return fd_ >= 0; }
    bool isPseudoTerminal() const { return fd_ >= 0 && IsPseudoTerminal(fd_); }
    int fd() const { return fd_; }
    // A pseudo-terminal delivers at once; with a rate set here each request
    // takes as long to send as it would on a line of that rate (10 bits a
    // byte), so the exchange rate is the line's. 0: no pacing (a real port
    // paces itself; its requests are drained before the reply timeout starts).
    void setPaceBaud(int baud) { paceBaud_ = baud; }
    const std::string& path() const { return path_; }
    // Sees every byte sent and received (a capture). With an observer, the
    // stale input an exchange drops is read first, so it is seen too.
    void setObserver(TrafficObserver observer) { observer_ = std::move(observer); }

    // Drops stale input (a reply that came too late for the previous
    // request), writes the request and collects the reply until it is
    // complete, the timeout passes or wakeFd (if not -1) becomes readable.
    // *reply receives every byte taken, as received.
    LineOutcome exchange(const uint8_t* request, std::size_t n, int timeoutMs, int wakeFd,
                         std::vector<uint8_t>* reply);
    // Collects a reply that is already on its way, without sending anything
    // and without dropping input.
    LineOutcome collect(int timeoutMs, int wakeFd, std::vector<uint8_t>* reply);
    // Reads and drops input until none has come for quietMs, for maxMs at
    // most, or until wakeFd becomes readable: after a reply the plug-in
    // refused, which may have been a late answer to an earlier request, the
    // answer to the refused one may still be on its way. An observer sees
    // the bytes dropped.
    void settle(int quietMs, int maxMs, int wakeFd);
    // Why the line failed (the last kError, or the start of the current
    // down period).
    const std::string& error() const { return error_; }

private:
    LineOutcome send(const uint8_t* request, std::size_t n, int wakeFd);
    // collect's work without the handling of a failure.
    LineOutcome receive(int timeoutMs, int wakeFd, std::vector<uint8_t>* reply);
    // With reopening on, a failed exchange closes the device and waits out
    // the rest of its time as a line-down exchange; otherwise kError.
    LineOutcome afterFailure(int64_t deadlineMs, int wakeFd, std::vector<uint8_t>* reply);
    void goDown();
    // Waits until deadlineMs (or wakeFd), trying to reopen when an attempt
    // is due: kLineDown, or kStopped.
    LineOutcome waitWhileDown(int64_t deadlineMs, int wakeFd);
    // Waits until the output takes bytes again (full) or until dueNs on the
    // monotonic clock; true when wakeFd became readable first.
    bool waitToSend(bool full, int64_t dueNs, int wakeFd);
    // Drops input that came too late for the previous request.
    void dropStaleInput();
    void observe(Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t nowNs) const {
        if (observer_) observer_(traffic, bytes, n, nowNs);
    }

    int fd_ = -1;
    int baud_ = 0;
    int paceBaud_ = 0;
    TrafficObserver observer_;
    std::string path_;
    std::string error_;

    bool reopen_ = false;
    bool down_ = false;
    uint64_t linesLost_ = 0;
    int64_t downSinceMs_ = 0;
    int64_t nextAttemptMs_ = 0;
    int reopenDelayMs_ = kReopenFirstMs;
    int reopenAttempts_ = 0;
    std::string reopenError_;
};

}  // namespace peer

#endif
