// Properties of read frames over many generated records: undoing the DLE
// doubling gives the fixed 45-byte layout, every doubling adds exactly one byte,
// and the block check is the one of the undoubled frame. Also: every correctly
// framed reply passes the reply check, and any single corrupted byte of it
// fails. Fixed seeds, so a failure reproduces.
#include "test_support.h"

#include "Func_Check.h"
#include "Func_Read.h"
#include "reply_builder.h"

#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr uint8_t kDle = replies::kDle;

struct Generated {
    int dataType;
    int address;
    int count;
    int tns;
};

int DigitCode(int v) {
    return v <= 9 ? v + 0x30 : v + 0x37;
}

// The request as it must read once every doubled DLE is counted once: 45 bytes
// from the lead-in up to and including the block check. `subjectDles` receives
// the number of bytes that the frame must carry twice.
std::vector<uint8_t> UndoubledLayout(const Generated& g, int* subjectDles, int* dataBytes) {
    const bool real = g.dataType == ABCL_REAL;
    const char letter = real                                                      ? 'F'
                        : (g.dataType == ABCL_BIT_A || g.dataType == ABCL_WORD_A) ? 'B'
                                                                                  : 'N';
    const int file = g.address / 256;     // truncating, as the controller's address split
    const int element = g.address % 256;  // sign of the dividend
    int n = g.count;
    if (real) {
        n = static_cast<int>(static_cast<uint32_t>(g.count) - 1u);
        if (n < 1) n = 1;
    }
    const uint32_t bytes =
        real ? static_cast<uint32_t>(n) * 4u : static_cast<uint32_t>(g.count) * 2u;
    *dataBytes = static_cast<int32_t>(bytes);

    std::vector<uint8_t> f = {
        0x10, 0x06, 0x10, 0x02, 0x00, 0x00, 0x0B, 0x00, static_cast<uint8_t>(g.tns & 0xFF),
        0x00, 0x00, 0x00, 0x0A, 0x02, 0x20, 0x02, 0x24, 0x01,
        0x01, 0x00, 0x04, 0x00, 0x52, 0x05, 0x91, 0x04, static_cast<uint8_t>(letter),
        0x30};
    int dles = 0;
    const int nameHigh = DigitCode(0);
    const int nameLow = DigitCode(file & 0xFF);
    f.push_back(static_cast<uint8_t>(nameHigh));
    if (nameHigh == kDle) ++dles;
    f.push_back(static_cast<uint8_t>(nameLow));
    if (nameLow == kDle) ++dles;  // the whole code, not its low byte
    f.push_back(0x29);
    f.push_back(static_cast<uint8_t>((element >> 8) & 0xFF));
    const auto subject = [&](uint8_t b) {
        f.push_back(b);
        if (b == kDle) ++dles;
    };
    subject(static_cast<uint8_t>(element & 0xFF));
    subject(static_cast<uint8_t>((n >> 8) & 0xFF));
    subject(static_cast<uint8_t>(n & 0xFF));
    for (int i = 0; i < 7; ++i) f.push_back(0x00);
    const uint8_t blockCheck = peer::BlockCheck(f.data() + 4, f.size() - 4);
    f.push_back(peer::df1::kDle);
    f.push_back(peer::df1::kEtx);
    f.push_back(blockCheck);
    *subjectDles = dles;
    return f;
}

std::string HexOf(const std::vector<uint8_t>& bytes) {
    return ToHex(
        QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size())));
}

Generated Generate(std::mt19937& rng) {
    std::uniform_int_distribution<int> pick(0, 99);
    Generated g{};
    g.dataType = std::uniform_int_distribution<int>(ABCL_BIT_A, ABCL_REAL)(rng);

    // Files and elements that hit the DLE rules often.
    static const int kFiles[] = {0, 7, 9, 10, 15, 16, 17, 216, 217, 255};
    static const int kElements[] = {0, 1, 15, 16, 17, 0x10, 255};
    const int fileChoice = pick(rng);
    int file =
        fileChoice < 50 ? kFiles[pick(rng) % 10] : std::uniform_int_distribution<int>(0, 300)(rng);
    int element =
        pick(rng) < 50 ? kElements[pick(rng) % 7] : std::uniform_int_distribution<int>(0, 255)(rng);
    g.address = file * 256 + element;
    if (pick(rng) < 8) g.address = -std::uniform_int_distribution<int>(1, 70000)(rng);

    static const int kCounts[] = {1,   2,     15,   16,     17,     0x10, 0xFF,
                                  256, 0x110, 4096, 0x1010, 0x10FF, 0,    -1};
    const int countChoice = pick(rng);
    if (countChoice < 60)
        g.count = kCounts[pick(rng) % 14];
    else if (countChoice < 90)
        g.count = std::uniform_int_distribution<int>(-5, 300)(rng);
    else if (g.dataType == ABCL_REAL)
        g.count = std::uniform_int_distribution<int>(0, 1 << 28)(rng);
    else
        g.count = std::uniform_int_distribution<int>(INT_MIN, INT_MAX)(rng);

    g.tns = pick(rng) < 15 ? 0x10 : std::uniform_int_distribution<int>(0, 300)(rng);
    return g;
}

// Whether the build asks for the generated run at all: the hardened build
// builds no read of fewer than one or more elements than an area holds.
bool IsBuilt(const Generated& g) {
    return !kHardenedBuild || (g.count >= 1 && g.count <= kAreaElements);
}

class FrameProperties : public DriverTest {
protected:
    // The generated read, built into an otherwise empty request queue; true
    // when the build asks for it, which the queue must then hold alone.
    static bool BuildAlone(const Generated& g) {
        PLC_driver.protocolList.clear();
        PLC_driver.tns = g.tns;
        RW_VAR v = RecordBuilder().At(g.dataType, g.address, g.count);
        ReadRegister(&v);
        const bool built = IsBuilt(g);
        EXPECT_EQ(PLC_driver.protocolList.size(), built ? 1 : 0)
            << "type " << g.dataType << ", address " << g.address << ", count " << g.count;
        return built;
    }
};

TEST_F(FrameProperties, UndoublingGivesTheFixedLayoutAndBlockCheck) {
    std::mt19937 rng(20240611u);
    int framesWithDoubling = 0;
    for (int iteration = 0; iteration < 5000; ++iteration) {
        const Generated g = Generate(rng);
        if (!BuildAlone(g)) continue;
        ASSERT_EQ(PLC_driver.protocolList.size(), 1) << "iteration " << iteration;
        const Protocol& p = PLC_driver.protocolList.first();

        int dles = 0;
        int dataBytes = 0;
        const std::vector<uint8_t> expected = UndoubledLayout(g, &dles, &dataBytes);
        ASSERT_EQ(expected.size(), 45u);
        const std::string where = "iteration " + std::to_string(iteration) + ": type " +
                                  std::to_string(g.dataType) + ", address " +
                                  std::to_string(g.address) + ", count " + std::to_string(g.count) +
                                  ", tns " + std::to_string(g.tns) + "\nframe " + ToHex(p.frame);

        ASSERT_EQ(p.frame.size(), 45 + dles) << where;
        ASSERT_EQ(p.frameLen, 45 + dles) << where;
        ASSERT_EQ(ToHex(replies::UndoubledRequest(p.frame)), HexOf(expected)) << where;
        ASSERT_EQ(p.replyLen, -1) << where;
        ASSERT_EQ(p.dataPos, 26) << where;
        ASSERT_EQ(p.dataBytes, dataBytes) << where;
        ASSERT_EQ(p.var.count, g.count) << where;
        ASSERT_EQ(p.var.address, g.address) << where;
        if (dles > 0) ++framesWithDoubling;
    }
    // The generator is meant to exercise doubling a lot.
    EXPECT_GT(framesWithDoubling, 1000);
}

TEST_F(FrameProperties, DoubledBytesAreExactlyTheSubjectBytes) {
    // Each subject byte of 0x10 is followed by its copy; no other byte is copied.
    std::mt19937 rng(77u);
    for (int iteration = 0; iteration < 2000; ++iteration) {
        const Generated g = Generate(rng);
        if (!BuildAlone(g)) continue;
        ASSERT_EQ(PLC_driver.protocolList.size(), 1);
        const QByteArray& frame = PLC_driver.protocolList.first().frame;
        // Up to offset 31 nothing is ever doubled, so those bytes stand where the layout puts them.
        int dles = 0;
        int dataBytes = 0;
        const std::vector<uint8_t> expected = UndoubledLayout(g, &dles, &dataBytes);
        for (int i = 0; i < 32; ++i)
            ASSERT_EQ(static_cast<uint8_t>(frame[i]), expected[static_cast<std::size_t>(i)])
                << "iteration " << iteration << " offset " << i << "\n"
                << ToHex(frame);
        // The last three bytes are the undoubled trailer and block check.
        ASSERT_EQ(static_cast<uint8_t>(frame[frame.size() - 3]), 0x10);
        ASSERT_EQ(static_cast<uint8_t>(frame[frame.size() - 2]), 0x03);
        ASSERT_EQ(static_cast<uint8_t>(frame[frame.size() - 1]), expected[44]);
    }
}

TEST_F(FrameProperties, CorrectlyFramedRepliesPassAndCorruptedOnesFail) {
    Protocol request;
    request.var.aux2 = 0;
    PLC_driver.protocolList.append(request);
    std::mt19937 rng(4242u);
    std::uniform_int_distribution<int> length(2, 120);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> percent(0, 99);
    for (int iteration = 0; iteration < 3000; ++iteration) {
        std::vector<uint8_t> body(static_cast<std::size_t>(length(rng)));
        for (uint8_t& b : body) b = percent(rng) < 20 ? kDle : static_cast<uint8_t>(byte(rng));
        const QByteArray reply = replies::ToQt(peer::FrameReply(body));
        ASSERT_EQ(CheckGetData(reply, reply.size()), 1) << ToHex(reply);
        ASSERT_EQ(NotFixReturnCheck(reply), reply.size() >= 27 ? 1 : 0) << ToHex(reply);

        // Changing the block check always fails.
        QByteArray badCheck = reply;
        badCheck[badCheck.size() - 1] = static_cast<char>(
            static_cast<uint8_t>(badCheck[badCheck.size() - 1]) + 1 + byte(rng) % 255);
        ASSERT_EQ(CheckGetData(badCheck, badCheck.size()), 0) << ToHex(badCheck);

        // Changing one non-DLE body byte to another non-DLE value keeps the
        // stuffing intact but breaks the sum.
        std::vector<int> plain;
        for (int i = 4; i < reply.size() - 3; ++i)
            if (static_cast<uint8_t>(reply[i]) != kDle) plain.push_back(i);
        if (!plain.empty()) {
            QByteArray badBody = reply;
            const int pos = plain[static_cast<std::size_t>(byte(rng)) % plain.size()];
            uint8_t replacement = static_cast<uint8_t>(badBody[pos]);
            while (replacement == static_cast<uint8_t>(badBody[pos]) || replacement == kDle)
                replacement = static_cast<uint8_t>(byte(rng));
            badBody[pos] = static_cast<char>(replacement);
            ASSERT_EQ(CheckGetData(badBody, badBody.size()), 0) << ToHex(badBody);
        }
    }
}

}  // namespace
