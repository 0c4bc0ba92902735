// Generated write records against the frame rules: for bit, INT and REAL
// writes with random addresses, counts, value bytes and transaction numbers,
// the frame must de-stuff to the layout the record calls for, be longer by
// exactly the doubled bytes, and carry the block check of the undoubled
// layout. Value arrays are handed over in buffers of their exact size, so a
// builder that reads past them trips the address sanitizer. Remote writes and
// reads are checked the same way against their plain layout.
#include "test_support.h"

#include "reply_builder.h"

#include "Func_Remote.h"
#include "Func_Write.h"
#include "reply_builder.h"

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

// One byte of the unstuffed layout, and whether the frame must carry it twice.
struct Cell {
    uint8_t byte;
    bool doubled;
};

int Digit(int v) {
    return v <= 9 ? v + 0x30 : v + 0x37;
}

class Layout {
public:
    void Fixed(uint8_t b) { cells_.push_back({b, false}); }
    // A byte under the doubling rule: doubled when it is DLE.
    void Stuffed(int b) { cells_.push_back({static_cast<uint8_t>(b & 0xFF), (b & 0xFF) == 0x10}); }
    // A name character: doubled only when the whole converted value is DLE.
    void NameCharacter(int converted) {
        cells_.push_back({static_cast<uint8_t>(converted & 0xFF), converted == 0x10});
    }
    int size() const { return static_cast<int>(cells_.size()); }
    // Cut at the trailer position, then DLE ETX.
    void Trailer(int position) {
        if (position < size()) cells_.resize(static_cast<size_t>(position));
        while (size() < position) Fixed(0x00);
        Fixed(0x10);
        Fixed(0x03);
    }
    QByteArray Bytes() const {
        QByteArray out;
        for (const Cell& c : cells_) out.append(static_cast<char>(c.byte));
        return out;
    }
    int Doublings() const {
        int n = 0;
        for (const Cell& c : cells_) n += c.doubled ? 1 : 0;
        return n;
    }
    // Over the body: from DST to the byte before DLE ETX.
    uint8_t Bcc() const {
        const QByteArray body =
            Bytes().mid(peer::df1::kLeadInSize, size() - 2 - peer::df1::kLeadInSize);
        return replies::BlockCheck(body);
    }

private:
    std::vector<Cell> cells_;
};

// Offsets 0 to 33: lead-in, header, Multiple Service Packet, tag path and the
// element number's high byte.
void Head(Layout& l, uint8_t service, char letter, int nameHigh, int nameLow, int element,
          int tns) {
    const uint8_t lead[] = {0x10, 0x06, 0x10, 0x02, 0x00, 0x00, 0x0B, 0x00};
    for (uint8_t b : lead) l.Fixed(b);
    l.Fixed(static_cast<uint8_t>(tns & 0xFF));
    const uint8_t wrapper[] = {0x00, 0x00, 0x00, 0x0A, 0x02, 0x20, 0x02,
                               0x24, 0x01, 0x01, 0x00, 0x04, 0x00};
    for (uint8_t b : wrapper) l.Fixed(b);
    l.Fixed(service);
    const uint8_t path[] = {0x05, 0x91, 0x04};
    for (uint8_t b : path) l.Fixed(b);
    l.Fixed(static_cast<uint8_t>(letter));
    l.Fixed(0x30);
    l.NameCharacter(nameHigh);
    l.NameCharacter(nameLow);
    l.Fixed(0x29);
    l.Fixed(static_cast<uint8_t>((element >> 8) & 0xFF));
    l.Stuffed(element & 0xFF);
    l.Fixed(0x00);
}

Layout BitLayout(const RW_VAR& v, int tns) {
    const int file = v.address / 4096;
    const int element = (v.address / 16) % 256;
    const int bit = v.address % 16;
    const int m = bit >= 0 ? (1 << bit) : 0;
    const bool set = !v.data.isEmpty() && static_cast<uint8_t>(v.data[0]) == 1;
    const int orMask = set ? m : 0;
    const int andMask = set ? 0xFFFF : (~m & 0xFFFF);
    Layout l;
    Head(l, 0x4E, (v.dataType == ABCL_BIT_B || v.dataType == ABCL_WORD_B) ? 'N' : 'B',
         Digit((file >> 8) & 0xFF), Digit(file & 0xFF), element, tns);
    l.Fixed(0x02);
    l.Fixed(0x00);
    l.Stuffed(orMask & 0xFF);
    l.Stuffed((orMask >> 8) & 0xFF);
    l.Stuffed(andMask & 0xFF);
    l.Stuffed((andMask >> 8) & 0xFF);
    l.Fixed(0x00);
    l.Fixed(0x00);
    l.Trailer(42);
    return l;
}

Layout IntLayout(const RW_VAR& v, int tns) {
    Layout l;
    Head(l, 0x53, v.dataType == ABCL_WORD_A ? 'B' : 'N', Digit(0), Digit((v.address / 256) & 0xFF),
         v.address % 256, tns);
    l.Fixed(0xC3);
    l.Stuffed((v.count >> 8) & 0xFF);
    l.Stuffed(v.count & 0xFF);
    for (int i = 0; i < 5; ++i) l.Fixed(0x00);
    for (int i = 0; i < 2 * v.count; ++i)
        l.Stuffed(i < v.data.size() ? static_cast<uint8_t>(v.data[i]) : 0);
    l.Trailer(42 + 2 * v.count);
    return l;
}

Layout RealLayout(const RW_VAR& v, int tns) {
    const int n = v.count >= 2 ? v.count / 2 : 1;
    Layout l;
    Head(l, 0x53, 'F', Digit(0), Digit((v.address / 256) & 0xFF), v.address % 256, tns);
    l.Fixed(0xCA);
    l.Stuffed((n >> 8) & 0xFF);
    l.Stuffed(n & 0xFF);
    for (int i = 0; i < 5; ++i) l.Fixed(0x00);
    for (int k = 0; k < n; ++k) {
        const bool present = v.data.size() >= 4 * k + 4;
        for (int j = 0; j < 4; ++j)
            l.Stuffed(present ? static_cast<uint8_t>(v.data[4 * k + j]) : 0);
    }
    l.Trailer(42 + 4 * n);
    return l;
}

// ---- generation -------------------------------------------------------------

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    int Uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    bool Chance(int percent) { return Uniform(0, 99) < percent; }
    template <size_t N>
    int Pick(const int (&values)[N]) {
        return values[Uniform(0, static_cast<int>(N) - 1)];
    }

    // Value bytes lean on DLE so that doubling is common.
    uint8_t Byte() { return Chance(30) ? 0x10 : static_cast<uint8_t>(Uniform(0, 255)); }

    int Tns() {
        if (Chance(20)) return 0x10;
        if (Chance(10)) return 0x100 * Uniform(1, 100) + Uniform(0, 255);
        return Uniform(0, 254);
    }
    int Element() {
        static const int special[] = {0, 16, 255, 0x10, 1};
        return Chance(40) ? Pick(special) : Uniform(0, 255);
    }
    int WordAddress() {
        if (Chance(10)) return Uniform(0, 0x7FFFFFFF);
        if (Chance(10)) return Uniform(-65536, -1);
        static const int files[] = {0, 3, 7, 8, 16, 217, 255, 256, 0x1010};
        const int file = Chance(50) ? Pick(files) : Uniform(0, 300);
        return file * 256 + Element();
    }
    int BitAddress() {
        if (Chance(15)) return Uniform(0, 0x7FFFFFFF);
        if (Chance(15)) return Uniform(-(1 << 24), -1);
        static const int files[] = {0, 3, 7, 16, 217, 256, 4096, 0x1010, 55769};
        static const int bits[] = {0, 4, 12, 15};
        const int file = Chance(50) ? Pick(files) : Uniform(0, 300);
        const int bit = Chance(50) ? Pick(bits) : Uniform(0, 15);
        return file * 4096 + Element() * 16 + bit;
    }
    int DataLength(int needed) {
        if (Chance(50)) return needed;
        return Uniform(0, needed + 5);
    }

private:
    std::mt19937 rng_;
};

// A value array in a heap block of exactly its own size: reading one byte past
// it is caught by the address sanitizer.
class ExactBuffer {
public:
    ExactBuffer(Generator& g, int length)
        : bytes_(new char[static_cast<size_t>(length)]), length_(length) {
        for (int i = 0; i < length; ++i)
            bytes_[static_cast<size_t>(i)] = static_cast<char>(g.Byte());
    }
    QByteArray View() const { return QByteArray::fromRawData(bytes_.get(), length_); }

private:
    std::unique_ptr<char[]> bytes_;
    int length_;
};

std::string Describe(const RW_VAR& v, int tns) {
    return "type " + std::to_string(v.dataType) + " address " + std::to_string(v.address) +
           " count " + std::to_string(v.count) + " data [" + ToHex(v.data) + "] tns " +
           std::to_string(tns);
}

// Whether the build writes the record at all: the hardened build writes no
// words or REALs for a count below 1.
bool IsBuilt(const RW_VAR& v) {
    const bool bits = v.dataType == ABCL_BIT_A || v.dataType == ABCL_BIT_B;
    return !kHardenedBuild || bits || v.count >= 1;
}

using WriteFrameProperties = DriverTest;

TEST_F(WriteFrameProperties, GeneratedWrites_DestuffToLayout_LengthAndBlockCheckAgree) {
    Generator g(20240611u);
    int checked = 0;
    int refused = 0;
    int withDoubling = 0;
    int byKind[3] = {0, 0, 0};
    for (int iteration = 0; iteration < 4000; ++iteration) {
        const int kind = g.Uniform(0, 2);  // bit, INT, REAL
        RW_VAR v;
        v.varId = g.Uniform(0, 1000);
        v.station = 1;
        int dataLength = 0;
        if (kind == 0) {
            v.dataType = g.Uniform(0, 1);
            v.address = g.BitAddress();
            v.count = g.Uniform(-2, 5);
            dataLength = g.Uniform(0, 4);
        } else if (kind == 1) {
            v.dataType = g.Uniform(2, 3);
            v.address = g.WordAddress();
            v.count = g.Chance(15)   ? g.Uniform(-4, -1)
                      : g.Chance(10) ? g.Uniform(200, 300)
                                     : g.Uniform(0, 40);
            dataLength = g.DataLength(v.count > 0 ? 2 * v.count : 0);
        } else {
            v.dataType = ABCL_REAL;
            v.address = g.WordAddress();
            v.count = g.Chance(10) ? g.Uniform(500, 700) : g.Uniform(-6, 80);
            const int n = v.count >= 2 ? v.count / 2 : 1;
            dataLength = g.DataLength(4 * n);
        }
        const ExactBuffer buffer(g, dataLength);
        v.data = buffer.View();
        if (kind == 0 && dataLength > 0 && g.Chance(60)) {
            // Steer the first byte to the values that decide set or clear.
            static const int first[] = {0, 1, 1, 2, 0xFF, 0x10};
            v.data = QByteArray(1, static_cast<char>(g.Pick(first))) + buffer.View().mid(1);
        }
        const int tns = g.Tns();

        const Layout expected = kind == 0   ? BitLayout(v, tns)
                                : kind == 1 ? IntLayout(v, tns)
                                            : RealLayout(v, tns);
        // Two name characters that both convert to 0x110 go out as two single
        // DLE bytes, which no receiver can tell from one doubled DLE; such
        // tags lie outside what a de-stuffing comparison can judge.
        const QByteArray layoutBytes = expected.Bytes();
        if (layoutBytes[28] == '\x10' && layoutBytes[29] == '\x10') continue;

        PLC_driver.protocolList.clear();
        PLC_driver.tns = tns;
        setCommError(g.Chance(30));
        info.replyDone = 4;
        info.replyTotal = 6;
        WriteRegister(&v);

        SCOPED_TRACE(Describe(v, tns));
        if (!IsBuilt(v)) {
            ASSERT_EQ(0, PLC_driver.protocolList.size());
            EXPECT_EQ(4, info.replyDone);
            EXPECT_EQ(6, info.replyTotal);
            ++refused;
            continue;
        }
        ASSERT_EQ(1, PLC_driver.protocolList.size());
        const Protocol p = PLC_driver.protocolList.first();
        const QByteArray& frame = p.frame;
        ASSERT_EQ(frame.size(), p.frameLen);
        ASSERT_GE(frame.size(), 3);
        EXPECT_EQ(ToHex(layoutBytes), ToHex(replies::UndoubledRequest(frame).chopped(1)));
        EXPECT_EQ(expected.size() + 1 + expected.Doublings(), p.frameLen);
        EXPECT_EQ(expected.Bcc(), static_cast<uint8_t>(frame.back()));
        EXPECT_EQ(27, p.replyLen);
        EXPECT_EQ(0, p.dataPos);
        EXPECT_EQ(0, p.dataBytes);
        EXPECT_EQ(v.address, p.var.address);
        EXPECT_EQ(v.count, p.var.count);
        EXPECT_EQ(v.dataType, p.var.dataType);
        EXPECT_EQ(ToHex(v.data), ToHex(p.var.data));
        EXPECT_EQ(0, info.replyDone);
        EXPECT_EQ(1, info.replyTotal);
        if (::testing::Test::HasFailure()) break;

        ++checked;
        ++byKind[kind];
        if (expected.Doublings() > 0) ++withDoubling;
    }
    PLC_driver.protocolList.clear();
    setCommError(false);
    // The generator must have reached every kind and plenty of doubled frames,
    // and in the hardened build, counts that write nothing.
    EXPECT_GT(checked + refused, 3900);
    EXPECT_EQ(refused > 0, kHardenedBuild);
    EXPECT_GT(byKind[0], 1000);
    EXPECT_GT(byKind[1], 1000);
    EXPECT_GT(byKind[2], 1000);
    EXPECT_GT(withDoubling, 1500);
}

TEST_F(WriteFrameProperties, ShortValueArrays_NothingReadBeyondThem) {
    struct Case {
        int dataType;
        int count;
        int length;
    };
    const Case cases[] = {
        {0, 1, 0},   {1, 3, 0},  {0, 8, 1},  {2, 1, 0}, {3, 1, 1}, {3, 4, 7},
        {2, 300, 3}, {3, -1, 0}, {3, -4, 1}, {4, 1, 0}, {4, 2, 3}, {4, 4, 6},
        {4, 9, 15},  {4, -3, 0}, {4, 40, 1}, {3, 0, 0},
    };
    Generator g(7u);
    for (const Case& c : cases) {
        const ExactBuffer buffer(g, c.length);
        RW_VAR v;
        v.dataType = c.dataType;
        v.address = c.dataType <= 1 ? 28676 : 1792;
        v.count = c.count;
        v.data = buffer.View();
        PLC_driver.protocolList.clear();
        PLC_driver.tns = 0x21;
        WriteRegister(&v);
        SCOPED_TRACE(Describe(v, 0x21));
        if (!IsBuilt(v)) {
            EXPECT_EQ(0, PLC_driver.protocolList.size());
            continue;
        }
        ASSERT_EQ(1, PLC_driver.protocolList.size());
        const Layout expected = c.dataType <= 1   ? BitLayout(v, 0x21)
                                : c.dataType <= 3 ? IntLayout(v, 0x21)
                                                  : RealLayout(v, 0x21);
        const QByteArray& frame = PLC_driver.protocolList.first().frame;
        EXPECT_EQ(ToHex(expected.Bytes()), ToHex(replies::UndoubledRequest(frame).chopped(1)));
        EXPECT_EQ(expected.Bcc(), static_cast<uint8_t>(frame.back()));
        PLC_driver.protocolList.clear();  // before the buffer goes
    }
}

// ---- remote frames ------------------------------------------------------------

void PutBigEndian(QByteArray& out, uint32_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.append(static_cast<char>((value >> (8 * i)) & 0xFF));
}

QByteArray RemoteFields(const RW_VAR& v) {
    QByteArray out;
    out.append('\0');
    PutBigEndian(out, static_cast<uint32_t>(v.varId), 1);
    PutBigEndian(out, static_cast<uint32_t>(v.aux2), 1);
    PutBigEndian(out, static_cast<uint32_t>(v.linkNo), 1);
    PutBigEndian(out, static_cast<uint32_t>(v.station), 1);
    PutBigEndian(out, static_cast<uint32_t>(v.dataType), 2);
    PutBigEndian(out, static_cast<uint32_t>(v.address), 4);
    PutBigEndian(out, static_cast<uint32_t>(v.count), 2);
    PutBigEndian(out, static_cast<uint32_t>(v.aux12), 4);
    PutBigEndian(out, static_cast<uint32_t>(v.aux13), 4);
    return out;
}

void AppendSum(QByteArray& frame) {
    frame.append(static_cast<char>(peer::RemoteChecksum(replies::ToBytes(frame))));
}

using RemoteFrameProperties = DriverTest;

TEST_F(RemoteFrameProperties, GeneratedRecords_PlainLayoutAndBookkeeping) {
    Generator g(99173u);
    auto field = [&g]() {
        return g.Chance(25)
                   ? static_cast<int>(g.Byte()) | (g.Uniform(0, 0xFFFF) << 8)
                   : static_cast<int>((static_cast<uint32_t>(g.Uniform(0, 0x7FFFFFFF)) << 1) |
                                      static_cast<uint32_t>(g.Uniform(0, 1)));
    };
    for (int iteration = 0; iteration < 2000; ++iteration) {
        RW_VAR v;
        v.varId = field();
        v.aux2 = field();
        v.linkNo = field();
        v.station = field();
        v.dataType = g.Chance(80) ? g.Uniform(0, 4) : field();
        v.address = field();
        v.count = g.Chance(70) ? g.Uniform(0, 300) : field();
        v.aux12 = field();
        v.aux13 = field();
        const ExactBuffer buffer(g, g.Uniform(0, 300));
        v.data = buffer.View();
        const int tns = g.Tns();
        const int c = ((v.station & 0xFF) == 0x10 ? 1 : 0) + ((tns & 0xFF) == 0x10 ? 1 : 0);

        PLC_driver.protocolList.clear();
        PLC_driver.tns = tns;
        setCommError(g.Chance(30));
        // Huge counts are for the frame's 16-bit field only; keep the mirror of
        // the write out of those.
        info.multiStation = (v.count < 0 || v.count > 300) ? 1 : 0;
        info.replyDone = 4;
        info.replyTotal = 6;
        Remote_ReadVar(&v);
        EXPECT_EQ(0, info.replyDone);
        EXPECT_EQ(1, info.replyTotal);
        info.replyDone = 4;
        info.replyTotal = 6;
        Remote_WriteVar(&v);
        EXPECT_EQ(4, info.replyDone);
        EXPECT_EQ(6, info.replyTotal);

        QByteArray read = RemoteFields(v);
        read[0] = 22;
        AppendSum(read);
        QByteArray write = RemoteFields(v) + v.data;
        write[0] = static_cast<char>((write.size() + 1) & 0xFF);
        AppendSum(write);
        int dataBytes = 0;
        if (v.dataType >= 0 && v.dataType <= 3)
            dataBytes = static_cast<int>(static_cast<unsigned>(v.count) * 2u);
        if (v.dataType == ABCL_REAL)
            dataBytes = static_cast<int>(static_cast<unsigned>(v.count) * 4u);

        SCOPED_TRACE(Describe(v, tns) + " station " + std::to_string(v.station));
        // The hardened build builds no write its length byte cannot count.
        const bool writeBuilt = !kHardenedBuild || write.size() <= 255;
        ASSERT_EQ(writeBuilt ? 2 : 1, PLC_driver.protocolList.size());
        const Protocol r = PLC_driver.protocolList[0];
        EXPECT_EQ(ToHex(read), ToHex(r.frame));
        EXPECT_EQ(22, r.frameLen);
        EXPECT_EQ(-1, r.replyLen);
        EXPECT_EQ(10 + c, r.dataPos);
        if (v.count >= 0 && v.count <= 300) {
            EXPECT_EQ(dataBytes, r.dataBytes);
        }
        if (!writeBuilt) continue;
        const Protocol w = PLC_driver.protocolList[1];
        EXPECT_EQ(ToHex(write), ToHex(w.frame));
        EXPECT_EQ(write.size(), w.frameLen);
        EXPECT_EQ(14 + c, w.replyLen);
        EXPECT_EQ(0, w.dataPos);
        EXPECT_EQ(0, w.dataBytes);
        if (::testing::Test::HasFailure()) break;
    }
    PLC_driver.protocolList.clear();
    setCommError(false);
}

}  // namespace
