// Captures of what crossed a line: the bytes of both directions cut into
// packets (DF1 link symbols and data frames, remote-mode frames, and bytes
// that form no frame), written as a pcapng file that Wireshark opens, and a
// one-line description of each packet for live output.
//
// The file holds one section header, one interface (link type 147,
// LINKTYPE_USER0; nanosecond time stamps) and one enhanced packet block per
// packet. Each packet is a 4-byte pseudo-header (direction, kind, 0, 0)
// followed by the bytes exactly as they crossed the line, doubled DLEs kept.
// Every block goes to the file with one write, so a capture survives a crash
// or Ctrl-C up to the last packet cut.
#ifndef PEER_CAPTURE_H
#define PEER_CAPTURE_H

#include "peer/line.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace peer {

namespace capture {
// Pseudo-header byte 0: which way the bytes went.
enum Direction : uint8_t {
    kHostToController = 0,  // requests, and the host's DLE ACK/NAK
    kControllerToHost = 1,  // replies, and the controller's DLE ACK/NAK
};

// Pseudo-header byte 1: what the bytes are.
enum Kind : uint8_t {
    kDf1Item = 0,      // DLE ACK, DLE NAK, DLE ENQ, or DLE STX ... DLE ETX BCC
    kRemoteFrame = 1,  // a remote-mode request: its first byte is its length
    kUnframed = 2,     // noise, a frame cut short, or bytes that start no frame
};

constexpr uint16_t kLinkTypeUser0 = 147;
constexpr std::size_t kPseudoHeaderSize = 4;

// The longest packet cut: a body of 64 KiB (the most any receiver here
// takes) with every byte doubled, plus DLE STX, DLE ETX and the block check.
// A "frame" that runs longer is no frame; it is cut off as unframed bytes,
// so endless noise never grows a splitter without bound.
constexpr std::size_t kLongestPacket = 2 * 65536 + 8;

// The quiet time after which a direction's pending bytes are cut off: 20
// byte times of the line, and never less than kShortestQuietGapNs. Bytes of
// one frame follow each other within a byte time on a line, but a USB serial
// adapter hands them over in bursts up to 16 ms apart and a loaded machine
// may wake a writer late, so a shorter gap would cut good frames in two. It
// stays well below a host's reply timeout (hundreds of ms), so a frame cut
// short is closed before the next request starts.
constexpr int64_t kShortestQuietGapNs = 100 * 1000 * 1000;
int64_t QuietGapNs(int baud);
}  // namespace capture

// One packet as cut from the line.
struct CapturedPacket {
    capture::Direction direction = capture::kHostToController;
    capture::Kind kind = capture::kUnframed;
    int64_t firstByteNs = 0;  // monotonic time its first byte was seen
    std::vector<uint8_t> bytes;
};

// Cuts one direction's bytes into packets. Bytes come in chunks with the
// monotonic time they arrived; every byte of a chunk counts as seen then.
//
// DF1 (the default): DLE ACK, DLE NAK and DLE ENQ are packets of their own;
// DLE STX up to DLE ETX and the byte after it is one packet, whatever its
// block check says. Inside a frame DLE DLE is data, and a DLE followed by
// any other byte but STX, ACK, NAK or ENQ is kept as data too (a requester's
// first transaction number may go out undoubled); DLE STX, ACK, NAK or ENQ
// there means the frame was cut short: what came of it is unframed, and the
// pair starts the next packet.
//
// Remote (setRemote): a byte of 22 or more starts a frame of that many bytes;
// a smaller byte cannot and is unframed.
//
// Unframed bytes are held until a frame starts, the direction has been quiet
// for the gap, or finish(). A frame that has not ended when the gap passes
// is unframed.
class CaptureSplitter {
public:
    explicit CaptureSplitter(capture::Direction direction, int64_t quietGapNs);

    void setRemote(bool remote) { remote_ = remote; }
    // Takes a chunk; packets it completes (and pending bytes it finds stale)
    // are appended to *out.
    void push(const uint8_t* bytes, std::size_t n, int64_t nowNs, std::vector<CapturedPacket>* out);
    // Cuts off pending bytes once the direction has been quiet for the gap.
    void flushQuiet(int64_t nowNs, std::vector<CapturedPacket>* out);
    // Cuts off whatever is pending (the capture is closing).
    void finish(std::vector<CapturedPacket>* out);
    // When flushQuiet will next have something to do; INT64_MAX when
    // nothing is pending.
    int64_t quietDeadlineNs() const;
    bool idle() const;

private:
    enum class State { kOutside, kOutsideDle, kFrame, kFrameDle, kBlockCheck, kRemoteFrame };

    void take(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    void takeDf1(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    void takeRemote(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    void afterDle(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    void insideFrameDle(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    void addLoose(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    // False when the frame grew too long and was cut off as unframed.
    bool addToFrame(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out);
    void emitLoose(std::vector<CapturedPacket>* out);
    void emitFrame(capture::Kind kind, std::vector<CapturedPacket>* out);
    void emit(capture::Kind kind, std::vector<uint8_t>* bytes, int64_t firstNs,
              std::vector<CapturedPacket>* out) const;

    const capture::Direction direction_;
    const int64_t quietGapNs_;
    bool remote_ = false;
    State state_ = State::kOutside;
    std::vector<uint8_t> loose_;  // unframed bytes not yet cut off
    int64_t looseNs_ = 0;
    std::vector<uint8_t> frame_;  // the frame being cut
    int64_t frameNs_ = 0;
    std::size_t remoteLength_ = 0;
    int64_t dleNs_ = 0;  // when the DLE that may start an item came
    int64_t lastByteNs_ = 0;
};

// Writes pcapng: the section header and the interface at open, then one
// enhanced packet block per packet, each with a single write.
class CaptureWriter {
public:
    CaptureWriter() = default;
    ~CaptureWriter();
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    // Creates (or empties) path and writes the headers; interfaceName says
    // which tool and line the capture is of. False with a reason.
    bool open(const std::string& path, const std::string& interfaceName, std::string* error);
    bool write(const CapturedPacket& packet);
    void close();
    bool isOpen() const { return fd_ >= 0; }
    const std::string& error() const { return error_; }

    // Wall-clock minus monotonic time, taken once at open: time stamps are
    // the monotonic time of a packet's first byte plus this.
    int64_t wallOffsetNs() const { return wallOffsetNs_; }

private:
    bool writeBlock(const std::vector<uint8_t>& block);

    int fd_ = -1;
    int64_t wallOffsetNs_ = 0;
    std::string path_;
    std::string error_;
};

// A capture of one line: both directions' splitters and the file. Safe to
// feed from more than one thread.
class LineCapture {
public:
    using Listener = std::function<void(const CapturedPacket&)>;

    // baud sets the quiet gap (0: a line of unknown rate). False with a
    // reason when the file cannot be written.
    bool open(const std::string& path, const std::string& interfaceName, int baud,
              std::string* error);
    // The host's requests are remote-mode frames (the replies stay DF1).
    void setRemote(bool remote);
    // Sees every packet as it is written (live output).
    void setListener(Listener listener);

    // Bytes that crossed the line one way, seen at nowNs (monotonic).
    void record(capture::Direction direction, const uint8_t* bytes, std::size_t n, int64_t nowNs);
    // What a HostPort or Server observer reports, for the host's end
    // (kSent is a request) or the controller's end (kSent is a reply).
    void recordHostTraffic(Traffic traffic, const uint8_t* bytes, std::size_t n, int64_t nowNs);
    void recordControllerTraffic(Traffic traffic, const uint8_t* bytes, std::size_t n,
                                 int64_t nowNs);
    // Cuts off bytes that have been quiet for the gap.
    void flushQuiet(int64_t nowNs);
    int64_t quietDeadlineNs() const;
    // Cuts off everything pending and closes the file.
    void close();

    bool isOpen() const;
    uint64_t packets() const;
    // The first write error, if any.
    std::string error() const;

private:
    void writeAll(std::vector<CapturedPacket>* packets);

    mutable std::mutex mutex_;
    CaptureWriter writer_;
    std::vector<CaptureSplitter> splitters_;  // by direction
    Listener listener_;
    uint64_t packets_ = 0;
};

// One line about a packet: its direction and kind, then for a DF1 data frame
// DST SRC CMD STS TNS and the CIP request or reply in short (or a remote
// reply's data), "bad BCC" when the block check is wrong; a remote frame
// field by field; unframed bytes as "N bytes not a frame".
std::string DescribePacket(const CapturedPacket& packet);

}  // namespace peer

#endif
