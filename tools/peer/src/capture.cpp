#include "peer/capture.h"

#include "peer/df1.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace peer {

namespace capture {

int64_t QuietGapNs(int baud) {
    constexpr int64_t kBytes = 20;
    constexpr int64_t kBitsPerByte = 10;
    constexpr int64_t kNsPerSecond = 1000000000;
    if (baud <= 0) return kShortestQuietGapNs;
    return std::max(kShortestQuietGapNs, kBytes * kBitsPerByte * kNsPerSecond / baud);
}

}  // namespace capture

// ---- cutting ---------------------------------------------------------------

CaptureSplitter::CaptureSplitter(capture::Direction direction, int64_t quietGapNs)
    : direction_(direction), quietGapNs_(quietGapNs) {}

bool CaptureSplitter::idle() const {
    return state_ == State::kOutside && loose_.empty();
}

int64_t CaptureSplitter::quietDeadlineNs() const {
    return idle() ? INT64_MAX : lastByteNs_ + quietGapNs_;
}

void CaptureSplitter::push(const uint8_t* bytes, std::size_t n, int64_t nowNs,
                           std::vector<CapturedPacket>* out) {
    if (n == 0) return;
    flushQuiet(nowNs, out);
    for (std::size_t i = 0; i < n; ++i) take(bytes[i], nowNs, out);
    lastByteNs_ = nowNs;
}

void CaptureSplitter::flushQuiet(int64_t nowNs, std::vector<CapturedPacket>* out) {
    if (!idle() && nowNs - lastByteNs_ >= quietGapNs_) finish(out);
}

void CaptureSplitter::finish(std::vector<CapturedPacket>* out) {
    if (state_ == State::kOutsideDle) {
        addLoose(df1::kDle, dleNs_, out);
    } else if (state_ != State::kOutside) {
        // A frame that has not ended is no frame.
        emitFrame(capture::kUnframed, out);
    }
    state_ = State::kOutside;
    emitLoose(out);
}

void CaptureSplitter::take(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out) {
    if (remote_)
        takeRemote(byte, nowNs, out);
    else
        takeDf1(byte, nowNs, out);
}

void CaptureSplitter::takeDf1(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out) {
    switch (state_) {
        case State::kOutside:
            if (byte != df1::kDle) {
                addLoose(byte, nowNs, out);
                return;
            }
            state_ = State::kOutsideDle;
            dleNs_ = nowNs;
            return;
        case State::kOutsideDle: afterDle(byte, nowNs, out); return;
        case State::kFrame:
            if (addToFrame(byte, nowNs, out) && byte == df1::kDle) {
                state_ = State::kFrameDle;
                dleNs_ = nowNs;
            }
            return;
        case State::kFrameDle: insideFrameDle(byte, nowNs, out); return;
        case State::kBlockCheck:
            frame_.push_back(byte);
            emitFrame(capture::kDf1Item, out);
            state_ = State::kOutside;
            return;
        case State::kRemoteFrame: return;  // never in DF1 cutting
    }
}

void CaptureSplitter::afterDle(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out) {
    switch (byte) {
        case df1::kAck:
        case df1::kNak:
        case df1::kEnq: {
            emitLoose(out);
            std::vector<uint8_t> pair = {df1::kDle, byte};
            emit(capture::kDf1Item, &pair, dleNs_, out);
            state_ = State::kOutside;
            return;
        }
        case df1::kStx:
            emitLoose(out);
            frame_ = {df1::kDle, df1::kStx};
            frameNs_ = dleNs_;
            state_ = State::kFrame;
            return;
        case df1::kDle:
            // DLE DLE outside a frame: the first is noise, the second may
            // still start something.
            addLoose(df1::kDle, dleNs_, out);
            dleNs_ = nowNs;
            return;
        default:
            addLoose(df1::kDle, dleNs_, out);
            addLoose(byte, nowNs, out);
            state_ = State::kOutside;
            return;
    }
}

void CaptureSplitter::insideFrameDle(uint8_t byte, int64_t nowNs,
                                     std::vector<CapturedPacket>* out) {
    switch (byte) {
        case df1::kEtx:
            frame_.push_back(byte);
            state_ = State::kBlockCheck;
            return;
        case df1::kStx:
        case df1::kAck:
        case df1::kNak:
        case df1::kEnq:
            // The frame was cut short; its DLE belongs to what starts now.
            frame_.pop_back();
            emitFrame(capture::kUnframed, out);
            state_ = State::kOutsideDle;
            afterDle(byte, nowNs, out);
            return;
        default:
            // DLE DLE is one data byte; a lone DLE is kept with its byte.
            state_ = State::kFrame;
            addToFrame(byte, nowNs, out);
            return;
    }
}

void CaptureSplitter::takeRemote(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out) {
    if (state_ == State::kRemoteFrame) {
        frame_.push_back(byte);
        if (frame_.size() < remoteLength_) return;
        emitFrame(capture::kRemoteFrame, out);
        state_ = State::kOutside;
        return;
    }
    // A length below the fixed part of a request cannot start a frame.
    if (byte < remote::kRequestFixedSize) {
        addLoose(byte, nowNs, out);
        return;
    }
    emitLoose(out);
    frame_ = {byte};
    frameNs_ = nowNs;
    remoteLength_ = byte;
    state_ = State::kRemoteFrame;
}

void CaptureSplitter::addLoose(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out) {
    if (loose_.empty()) looseNs_ = nowNs;
    loose_.push_back(byte);
    if (loose_.size() >= capture::kLongestPacket) emitLoose(out);
}

bool CaptureSplitter::addToFrame(uint8_t byte, int64_t nowNs, std::vector<CapturedPacket>* out) {
    if (frame_.size() < capture::kLongestPacket) {
        frame_.push_back(byte);
        return true;
    }
    // Longer than any frame: what came is unframed, and the byte is looked
    // at afresh.
    emitFrame(capture::kUnframed, out);
    state_ = State::kOutside;
    takeDf1(byte, nowNs, out);
    return false;
}

void CaptureSplitter::emitLoose(std::vector<CapturedPacket>* out) {
    if (!loose_.empty()) emit(capture::kUnframed, &loose_, looseNs_, out);
}

void CaptureSplitter::emitFrame(capture::Kind kind, std::vector<CapturedPacket>* out) {
    if (!frame_.empty()) emit(kind, &frame_, frameNs_, out);
}

void CaptureSplitter::emit(capture::Kind kind, std::vector<uint8_t>* bytes, int64_t firstNs,
                           std::vector<CapturedPacket>* out) const {
    CapturedPacket packet;
    packet.direction = direction_;
    packet.kind = kind;
    packet.firstByteNs = firstNs;
    packet.bytes.swap(*bytes);
    bytes->clear();
    out->push_back(std::move(packet));
}

// ---- pcapng ----------------------------------------------------------------

namespace {

constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionBlock = 0x00000001;
constexpr uint32_t kEnhancedPacketBlock = 0x00000006;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kMajorVersion = 1;
constexpr uint16_t kMinorVersion = 0;
constexpr int64_t kSectionLengthUnknown = -1;
constexpr uint32_t kSnapLengthUnlimited = 0;
constexpr uint16_t kOptionEnd = 0;
constexpr uint16_t kOptionInterfaceName = 2;
constexpr uint16_t kOptionTimeResolution = 9;
constexpr uint8_t kNanosecondResolution = 9;  // 10^-9 s
constexpr uint32_t kInterfaceIndex = 0;

// One block: type, total length, body, total length again; every field
// little-endian, options and packet data padded to 4 bytes.
class Block {
public:
    explicit Block(uint32_t type) {
        put32(type);
        put32(0);  // total length, filled in by finish()
    }
    void put16(uint16_t v) {
        for (int i = 0; i < 2; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    void put32(uint32_t v) {
        for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    void put64(uint64_t v) {
        for (int i = 0; i < 8; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    void putPadded(const uint8_t* data, std::size_t n) {
        bytes_.insert(bytes_.end(), data, data + n);
        while (bytes_.size() % 4) bytes_.push_back(0);
    }
    void option(uint16_t code, const uint8_t* data, std::size_t n) {
        put16(code);
        put16(static_cast<uint16_t>(n));
        putPadded(data, n);
    }
    std::vector<uint8_t> finish() {
        const uint32_t total = static_cast<uint32_t>(bytes_.size() + 4);
        put32(total);
        for (int i = 0; i < 4; ++i) bytes_[4 + i] = static_cast<uint8_t>(total >> (8 * i));
        return std::move(bytes_);
    }

private:
    std::vector<uint8_t> bytes_;
};

std::vector<uint8_t> SectionHeader() {
    Block block(kSectionHeaderBlock);
    block.put32(kByteOrderMagic);
    block.put16(kMajorVersion);
    block.put16(kMinorVersion);
    block.put64(static_cast<uint64_t>(kSectionLengthUnknown));
    return block.finish();
}

std::vector<uint8_t> InterfaceDescription(const std::string& name) {
    // An option's length is 16 bits.
    const std::size_t nameLength = std::min<std::size_t>(name.size(), 0xFFFF);
    Block block(kInterfaceDescriptionBlock);
    block.put16(capture::kLinkTypeUser0);
    block.put16(0);  // reserved
    block.put32(kSnapLengthUnlimited);
    block.option(kOptionInterfaceName, reinterpret_cast<const uint8_t*>(name.data()), nameLength);
    block.option(kOptionTimeResolution, &kNanosecondResolution, 1);
    block.option(kOptionEnd, nullptr, 0);
    return block.finish();
}

std::vector<uint8_t> EnhancedPacket(const CapturedPacket& packet, uint64_t wallNs) {
    std::vector<uint8_t> data = {packet.direction, packet.kind, 0, 0};
    data.insert(data.end(), packet.bytes.begin(), packet.bytes.end());
    Block block(kEnhancedPacketBlock);
    block.put32(kInterfaceIndex);
    block.put32(static_cast<uint32_t>(wallNs >> 32));
    block.put32(static_cast<uint32_t>(wallNs & 0xFFFFFFFFu));
    block.put32(static_cast<uint32_t>(data.size()));  // captured
    block.put32(static_cast<uint32_t>(data.size()));  // original
    block.putPadded(data.data(), data.size());
    return block.finish();
}

int64_t RealtimeNs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The wall clock minus the monotonic one, read between two monotonic
// readings so the error is at most half their distance.
int64_t WallClockOffsetNs() {
    const int64_t before = MonotonicNs();
    const int64_t wall = RealtimeNs();
    const int64_t after = MonotonicNs();
    return wall - (before + (after - before) / 2);
}

}  // namespace

CaptureWriter::~CaptureWriter() {
    close();
}

bool CaptureWriter::open(const std::string& path, const std::string& interfaceName,
                         std::string* error) {
    close();
    error_.clear();
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        if (error) *error = "cannot write capture file " + path + ": " + std::strerror(errno);
        return false;
    }
    path_ = path;
    wallOffsetNs_ = WallClockOffsetNs();
    if (!writeBlock(SectionHeader()) || !writeBlock(InterfaceDescription(interfaceName))) {
        if (error) *error = error_;
        close();
        return false;
    }
    return true;
}

bool CaptureWriter::write(const CapturedPacket& packet) {
    if (fd_ < 0) return false;
    const int64_t wall = packet.firstByteNs + wallOffsetNs_;
    return writeBlock(EnhancedPacket(packet, wall > 0 ? static_cast<uint64_t>(wall) : 0));
}

bool CaptureWriter::writeBlock(const std::vector<uint8_t>& block) {
    // A plain descriptor and no buffer of our own: each block is in the
    // file once write returns, whatever happens to the process next.
    if (WriteAll(fd_, block.data(), block.size())) return true;
    if (error_.empty()) error_ = "cannot write capture file " + path_ + ": " + std::strerror(errno);
    return false;
}

void CaptureWriter::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

// ---- one line --------------------------------------------------------------

bool LineCapture::open(const std::string& path, const std::string& interfaceName, int baud,
                       std::string* error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!writer_.open(path, interfaceName, error)) return false;
    const int64_t gap = capture::QuietGapNs(baud);
    splitters_.clear();
    splitters_.emplace_back(capture::kHostToController, gap);
    splitters_.emplace_back(capture::kControllerToHost, gap);
    packets_ = 0;
    return true;
}

void LineCapture::setRemote(bool remote) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!splitters_.empty()) splitters_[capture::kHostToController].setRemote(remote);
}

void LineCapture::setListener(Listener listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    listener_ = std::move(listener);
}

void LineCapture::record(capture::Direction direction, const uint8_t* bytes, std::size_t n,
                         int64_t nowNs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!writer_.isOpen() || n == 0) return;
    // Stale bytes of either direction go first, so the file keeps the
    // order in which things happened.
    std::vector<CapturedPacket> packets;
    for (CaptureSplitter& splitter : splitters_) splitter.flushQuiet(nowNs, &packets);
    splitters_[direction].push(bytes, n, nowNs, &packets);
    writeAll(&packets);
}

void LineCapture::recordHostTraffic(Traffic traffic, const uint8_t* bytes, std::size_t n,
                                    int64_t nowNs) {
    record(traffic == Traffic::kSent ? capture::kHostToController : capture::kControllerToHost,
           bytes, n, nowNs);
}

void LineCapture::recordControllerTraffic(Traffic traffic, const uint8_t* bytes, std::size_t n,
                                          int64_t nowNs) {
    record(traffic == Traffic::kSent ? capture::kControllerToHost : capture::kHostToController,
           bytes, n, nowNs);
}

void LineCapture::flushQuiet(int64_t nowNs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!writer_.isOpen()) return;
    std::vector<CapturedPacket> packets;
    for (CaptureSplitter& splitter : splitters_) splitter.flushQuiet(nowNs, &packets);
    writeAll(&packets);
}

int64_t LineCapture::quietDeadlineNs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    int64_t deadline = INT64_MAX;
    for (const CaptureSplitter& splitter : splitters_)
        deadline = std::min(deadline, splitter.quietDeadlineNs());
    return deadline;
}

void LineCapture::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!writer_.isOpen()) return;
    std::vector<CapturedPacket> packets;
    for (CaptureSplitter& splitter : splitters_) splitter.finish(&packets);
    writeAll(&packets);
    writer_.close();
}

bool LineCapture::isOpen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return writer_.isOpen();
}

uint64_t LineCapture::packets() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return packets_;
}

std::string LineCapture::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return writer_.error();
}

void LineCapture::writeAll(std::vector<CapturedPacket>* packets) {
    std::stable_sort(packets->begin(), packets->end(),
                     [](const CapturedPacket& a, const CapturedPacket& b) {
                         return a.firstByteNs < b.firstByteNs;
                     });
    for (const CapturedPacket& packet : *packets) {
        writer_.write(packet);
        ++packets_;
        if (listener_) listener_(packet);
    }
}

}  // namespace peer
