// The host simulator's parts: address texts, write values, value and result
// texts, option parsing, and the cyclic entries a tag becomes, checked
// against the driver's own request building.
#include "addresses.h"
#include "display.h"
#include "host.h"
#include "options.h"
#include "peer/profile.h"

#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"

#include <gtest/gtest.h>

#include <QtCore/QList>
#include <QtCore/QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace hostsim;

namespace {

// "D2 04" -> bytes; QByteArray::fromHex passes over the blanks.
std::vector<uint8_t> Bytes(const char* hex) {
    const QByteArray bytes = QByteArray::fromHex(hex);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

// ParseTagAddress with its reason in the failure message.
::testing::AssertionResult Parses(const char* text, TagAddress* tag) {
    std::string error;
    if (ParseTagAddress(text, tag, &error)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << text << ": " << error;
}

}  // namespace

// ---- address texts ------------------------------------------------------

struct AddressRow {
    const char* text;
    char letter;
    int file, element, bit, count;
    int dataType;
    const char* driverText;
    int packed;  // file x 256 + element, times 16 plus the bit for bits
};

void PrintTo(const AddressRow& row, std::ostream* os) {
    *os << '"' << row.text << '"';
}

class TagAddressTexts : public ::testing::TestWithParam<AddressRow> {};

TEST_P(TagAddressTexts, ParseToDataTypeDriverTextAndPackedAddress) {
    const AddressRow& row = GetParam();
    TagAddress a;
    ASSERT_TRUE(Parses(row.text, &a));
    EXPECT_EQ(a.letter, row.letter);
    EXPECT_EQ(a.file, row.file);
    EXPECT_EQ(a.element, row.element);
    EXPECT_EQ(a.bit, row.bit);
    EXPECT_EQ(a.count, row.count);
    EXPECT_EQ(a.dataType(), row.dataType);
    EXPECT_EQ(a.driverText(), row.driverText);
    EXPECT_EQ(a.packedAddress(), row.packed);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TagAddressTexts,
    ::testing::Values(AddressRow{"N7:0 x10", 'N', 7, 0, -1, 10, 3, "7:0", 7 * 256},
                      AddressRow{"N7:0x10", 'N', 7, 0, -1, 10, 3, "7:0", 7 * 256},
                      AddressRow{"n7:10X4", 'N', 7, 10, -1, 4, 3, "7:10", 7 * 256 + 10},
                      AddressRow{"B3:0/5", 'B', 3, 0, 5, 1, 0, "3:0/5", 3 * 256 * 16 + 5},
                      AddressRow{"B3:0", 'B', 3, 0, -1, 1, 2, "3:0", 3 * 256},
                      AddressRow{"N7:2/15 x3", 'N', 7, 2, 15, 3, 1, "7:2/15",
                                 (7 * 256 + 2) * 16 + 15},
                      AddressRow{"F8:0 x4", 'F', 8, 0, -1, 4, 4, "8:0", 8 * 256},
                      AddressRow{"  N10:255  ", 'N', 10, 255, -1, 1, 3, "10:255", 10 * 256 + 255},
                      AddressRow{"N200:0", 'N', 200, 0, -1, 1, 3, "200:0", 200 * 256}));

TEST(TagAddressTexts, PluginReadsEveryDriverTextAsThePackedAddress) {
    for (const char* text : {"N7:0", "B3:0/5", "B3:17", "N7:2/15", "F8:200", "N10:1/0"}) {
        TagAddress a;
        ASSERT_TRUE(Parses(text, &a));
        EXPECT_EQ(PLCAddressChangeIntef(a.dataType(), QString::fromStdString(a.driverText())),
                  a.packedAddress())
            << text;
    }
}

class BadTagAddressTexts : public ::testing::TestWithParam<const char*> {};

TEST_P(BadTagAddressTexts, AreRefusedWithAReason) {
    TagAddress a;
    std::string error;
    EXPECT_FALSE(ParseTagAddress(GetParam(), &a, &error));
    EXPECT_NE(error.find("invalid address"), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Rows, BadTagAddressTexts,
                         ::testing::Values("", "Q7:0", "7:0", "N7", "N:0", "N7:", "N7:256",
                                           "N7:0/16", "F8:0/1", "N7:250 x10", "N7:0 x0", "N7:0 y3",
                                           "N7:0x", "N201:0", "N7:0 x4 x5", "B3:255/15 x2", "N7:-1",
                                           "N7:0/"));

TEST(TagAddressTexts, BitRunCountsTheWordsThatHoldIt) {
    TagAddress a;
    std::string error;
    ASSERT_TRUE(ParseTagAddress("B3:0/15 x2", &a, &error));
    EXPECT_EQ(a.wordCount(), 2);
    ASSERT_TRUE(ParseTagAddress("B3:0/0 x16", &a, &error));
    EXPECT_EQ(a.wordCount(), 1);
    ASSERT_TRUE(ParseTagAddress("B3:254/1 x31", &a, &error));
    EXPECT_EQ(a.wordCount(), 2);
}

// ---- write texts ---------------------------------------------------------

TEST(WriteTexts, WordValuesGoLowByteFirst) {
    WriteRequest w;
    std::string error;
    ASSERT_TRUE(ParseWriteRequest("N7:3=1234", &w, &error)) << error;
    EXPECT_EQ(w.address.dataType(), 3);
    EXPECT_EQ(w.address.count, 1);
    EXPECT_EQ(WriteBytes(w), Bytes("D2 04"));
    ASSERT_TRUE(ParseWriteRequest("N7:3=1, 2,-1,65535", &w, &error)) << error;
    EXPECT_EQ(w.address.count, 4);
    EXPECT_EQ(WriteBytes(w), Bytes("01 00 02 00 FF FF FF FF"));
}

TEST(WriteTexts, BitValuesAreOneByteEach) {
    WriteRequest w;
    std::string error;
    ASSERT_TRUE(ParseWriteRequest("B3:0/5=1", &w, &error)) << error;
    EXPECT_EQ(w.address.dataType(), 0);
    EXPECT_EQ(w.address.driverText(), "3:0/5");
    EXPECT_EQ(WriteBytes(w), Bytes("01"));
    ASSERT_TRUE(ParseWriteRequest("N7:1/15=0,1", &w, &error)) << error;
    EXPECT_EQ(w.address.dataType(), 1);
    EXPECT_EQ(WriteBytes(w), Bytes("00 01"));
}

TEST(WriteTexts, RealValuesAreIeeeSinglesLowByteFirst) {
    WriteRequest w;
    std::string error;
    ASSERT_TRUE(ParseWriteRequest("F8:1=2.5", &w, &error)) << error;
    ASSERT_EQ(w.reals.size(), 1u);
    // 2.5 = 1.25 x 2^1: sign 0, exponent 128, mantissa 0x200000 -> 0x40200000.
    EXPECT_EQ(RealBytes(w.reals[0]), Bytes("00 00 20 40"));
    EXPECT_EQ(RealBytes(1.5f), Bytes("00 00 C0 3F"));
    const std::vector<uint8_t> b = Bytes("00 00 10 40");
    EXPECT_EQ(RealFromBytes(b.data()), 2.25f);
}

class BadWriteTexts : public ::testing::TestWithParam<const char*> {};

TEST_P(BadWriteTexts, AreRefused) {
    WriteRequest w;
    std::string error;
    EXPECT_FALSE(ParseWriteRequest(GetParam(), &w, &error));
    EXPECT_FALSE(error.empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, BadWriteTexts,
                         ::testing::Values("N7:3", "N7:3=", "N7:3=abc", "N7:3=70000", "N7:3=-32769",
                                           "B3:0/5=2", "F8:1=abc", "F8:1=inf", "N7:3 x2=1",
                                           "N7:255=1,2", "Q7:3=1", "N7:3=1,,2"));

// ---- options ---------------------------------------------------------------

TEST(Options, DefaultsAreTheDocumentedOnes) {
    Options o;
    std::string error;
    ASSERT_TRUE(ParseOptions({}, &o, &error)) << error;
    EXPECT_EQ(o.maxCount, 32);
    EXPECT_EQ(o.retryLimit, 3);
    EXPECT_EQ(o.station, 1);
    EXPECT_EQ(o.writeMode, 2);
    EXPECT_EQ(o.localLink, 0);
    EXPECT_EQ(o.timeoutMs, 500);
    EXPECT_FALSE(o.remote);
    EXPECT_FALSE(o.multiStation);
    EXPECT_TRUE(o.port.empty());
}

TEST(Options, ValuesAndFlagsAreTaken) {
    Options o;
    std::string error;
    ASSERT_TRUE(ParseOptions({"--max-count",
                              "10",
                              "--retry-limit=0",
                              "--station",
                              "4",
                              "--remote",
                              "--multi-station",
                              "--local-link",
                              "2",
                              "--write-mode",
                              "1",
                              "--baud=115200",
                              "--timeout-ms",
                              "50",
                              "--tag",
                              "N7:0 x4",
                              "--write",
                              "F8:1=2.5",
                              "--read",
                              "N7:10x4",
                              "--exchanges",
                              "9",
                              "--duration",
                              "1.5",
                              "--cip-errors-fail",
                              "--keep-reply-done",
                              "--interval-ms",
                              "750",
                              "--plain"},
                             &o, &error))
        << error;
    EXPECT_EQ(o.maxCount, 10);
    EXPECT_EQ(o.retryLimit, 0);
    EXPECT_EQ(o.station, 4);
    EXPECT_TRUE(o.remote);
    EXPECT_TRUE(o.multiStation);
    EXPECT_EQ(o.localLink, 2);
    EXPECT_EQ(o.writeMode, 1);
    EXPECT_EQ(o.baud, 115200);
    EXPECT_EQ(o.timeoutMs, 50);
    ASSERT_EQ(o.tags.size(), 1u);
    EXPECT_EQ(o.tags[0].count, 4);
    ASSERT_EQ(o.writes.size(), 1u);
    ASSERT_EQ(o.reads.size(), 1u);
    EXPECT_EQ(o.reads[0].element, 10);
    EXPECT_EQ(o.exchanges, 9u);
    EXPECT_DOUBLE_EQ(o.durationSeconds, 1.5);
    EXPECT_TRUE(o.cipErrorsFail);
    EXPECT_TRUE(o.keepReplyDone);
    EXPECT_EQ(o.intervalMs, 750);
    EXPECT_TRUE(o.plain);
}

struct BadOptionRow {
    std::vector<std::string> args;
    const char* reason;  // part of the message
};

void PrintTo(const BadOptionRow& row, std::ostream* os) {
    for (const std::string& a : row.args) *os << a << ' ';
}

class BadOptions : public ::testing::TestWithParam<BadOptionRow> {};

TEST_P(BadOptions, AreRefusedWithAReason) {
    Options o;
    std::string error;
    EXPECT_FALSE(ParseOptions(GetParam().args, &o, &error));
    EXPECT_NE(error.find(GetParam().reason), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BadOptions,
    ::testing::Values(BadOptionRow{{"--bogus"}, "unknown option"},
                      BadOptionRow{{"extra"}, "unknown option"},
                      BadOptionRow{{"--baud", "12345"}, "unsupported rate"},
                      BadOptionRow{{"--max-count"}, "needs a value"},
                      BadOptionRow{{"--max-count", "-1"}, "is not a number"},
                      BadOptionRow{{"--retry-limit", "x"}, "is not a number"},
                      BadOptionRow{{"--duration", "0"}, "positive number"},
                      BadOptionRow{{"--exchanges", "0"}, "is not a number"},
                      BadOptionRow{{"--tag", "N7"}, "invalid address"},
                      BadOptionRow{{"--read", "X1:0"}, "invalid address"},
                      BadOptionRow{{"--write", "N7:3"}, "expected ADDRESS=VALUE"},
                      BadOptionRow{{"--remote=1"}, "takes no value"},
                      BadOptionRow{{"--tags", "/nonexistent/tags.txt"}, "cannot read tag file"},
                      BadOptionRow{{"--port", "/dev/ttyS0", "--sim-set", "N7:0=1"},
                                   "built-in simulator"}));

TEST(Options, TagFileTakesOneTagALineWithComments) {
    std::vector<TagAddress> tags;
    std::string error;
    ASSERT_TRUE(ReadTagFile(HOSTSIM_SOURCE_DIR "/sample_tags.txt", &tags, &error)) << error;
    ASSERT_EQ(tags.size(), 4u);
    EXPECT_EQ(tags[0].display(), "N7:0 x10");
    EXPECT_EQ(tags[1].display(), "B3:0/5");
    EXPECT_EQ(tags[2].display(), "F8:0 x4");
    EXPECT_EQ(tags[3].display(), "N10:0 x2");
}

// ---- numbers and input limits ---------------------------------------------------

// The value an option takes, or the reason it is refused.
std::string OptionOutcome(const std::string& name, const std::string& value, int Options::*field) {
    Options o;
    std::string error;
    if (!ParseOptions({name, value}, &o, &error)) return error;
    return std::to_string(o.*field);
}

TEST(Options, NumbersAtTheEdgesOfEachOption) {
    EXPECT_EQ(OptionOutcome("--write-mode", "2147483647", &Options::writeMode), "2147483647");
    EXPECT_EQ(OptionOutcome("--write-mode", "-2147483648", &Options::writeMode), "-2147483648");
    EXPECT_EQ(OptionOutcome("--write-mode", "2147483648", &Options::writeMode),
              "option --write-mode: '2147483648' is not a number from -2147483648 to 2147483647");
    EXPECT_EQ(OptionOutcome("--local-link", "-2147483649", &Options::localLink),
              "option --local-link: '-2147483649' is not a number from -2147483648 to "
              "2147483647");
    EXPECT_EQ(OptionOutcome("--station", "255", &Options::station), "255");
    EXPECT_EQ(OptionOutcome("--station", "256", &Options::station),
              "option --station: '256' is not a number from 0 to 255");
    EXPECT_EQ(OptionOutcome("--timeout-ms", "007", &Options::timeoutMs), "7");
    // What a C library reader would take (blanks, a plus, a base, a tail)
    // or wrap (too many digits) is refused.
    for (const char* text : {"", "+5", " 5", "5 ", "5x", "0x10", "-1", "99999999999999999999"})
        EXPECT_NE(OptionOutcome("--timeout-ms", text, &Options::timeoutMs).find("is not a number"),
                  std::string::npos)
            << "'" << text << "'";
}

TEST(Options, ExchangesTakeSixtyFourBitCounts) {
    Options o;
    std::string error;
    ASSERT_TRUE(ParseOptions({"--exchanges", "99999999999"}, &o, &error)) << error;
    EXPECT_EQ(o.exchanges, 99999999999u);
    EXPECT_FALSE(ParseOptions({"--exchanges", "9223372036854775808"}, &o, &error));
    EXPECT_FALSE(ParseOptions({"--exchanges", "-1"}, &o, &error));
}

// A file in a fresh directory, removed with it.
class TagFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/hostsim_tags_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        for (const std::string& f : files_) unlink(f.c_str());
        rmdir(dir_.c_str());
    }
    std::string Write(const std::string& name, const std::string& content) {
        const std::string path = dir_ + "/" + name;
        FILE* f = std::fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        if (f) {
            std::fwrite(content.data(), 1, content.size(), f);
            std::fclose(f);
        }
        files_.push_back(path);
        return path;
    }
    // The reason the file is refused; "" when it is read.
    static std::string Refusal(const std::string& path, std::size_t* tagCount = nullptr) {
        std::vector<TagAddress> tags;
        std::string error;
        const bool ok = ReadTagFile(path, &tags, &error);
        if (tagCount) *tagCount = tags.size();
        return ok ? "" : error;
    }

    std::string dir_;
    std::vector<std::string> files_;
};

TEST_F(TagFiles, EndlessZerosAreRefusedAtOnce) {
    EXPECT_EQ(Refusal("/dev/zero"), "/dev/zero:1: not a text file (byte 0x00)");
}

TEST_F(TagFiles, BinaryFileIsRefusedWithItsLine) {
    const std::string path = Write("binary", std::string("N7:0\nN7:1\n\x7f\x45\x4c\x46\x02", 15));
    EXPECT_EQ(Refusal(path), path + ":3: not a text file (byte 0x7F)");
}

TEST_F(TagFiles, LineLongerThanTheLimitIsRefused) {
    const std::string longest = "N7:0" + std::string(kMaxLineLength - 4, ' ') + "\n";
    std::size_t tags = 0;
    EXPECT_EQ(Refusal(Write("longest", longest), &tags), "");
    EXPECT_EQ(tags, 1u);
    const std::string path = Write("huge", "N7:0\n# " + std::string(kMaxLineLength, 'x') + "\n");
    EXPECT_EQ(Refusal(path), path + ":2: line longer than 4096 characters");
}

TEST_F(TagFiles, MoreTagsThanTheLimitAreRefused) {
    std::string lines;
    for (std::size_t i = 0; i < kMaxTags; ++i) lines += "N7:0\n";
    std::size_t tags = 0;
    EXPECT_EQ(Refusal(Write("most", lines), &tags), "");
    EXPECT_EQ(tags, kMaxTags);
    const std::string path = Write("too_many", lines + "N7:1\n");
    EXPECT_EQ(Refusal(path), path + ": more than 100000 tags");
}

TEST_F(TagFiles, FileLargerThanTheLimitIsRefused) {
    // Blank lines hold no tags, so only the size can refuse them.
    const std::string path = Write("large", std::string(kMaxTagFileBytes + 1, '\n'));
    EXPECT_EQ(Refusal(path), path + ": larger than 16777216 bytes");
}

TEST_F(TagFiles, DirectoryIsNotATagFile) {
    EXPECT_NE(Refusal(dir_).find("cannot read tag file " + dir_ + ": "), std::string::npos)
        << Refusal(dir_);
}

TEST(Options, EveryTermiosRateIsAccepted) {
    for (const char* rate : {"50", "1200", "19200", "230400", "460800", "4000000"}) {
        Options o;
        std::string error;
        EXPECT_TRUE(ParseOptions({"--baud", rate}, &o, &error)) << rate << ": " << error;
        EXPECT_EQ(o.baud, std::stoi(rate));
    }
}

TEST(Options, DefaultTagsAreTheProfilesHostTags) {
    const std::vector<TagAddress> tags = DefaultTags();
    ASSERT_EQ(tags.size(), std::size(peer::profile::kDefaultHostTags));
    for (std::size_t i = 0; i < tags.size(); ++i)
        EXPECT_EQ(tags[i].display(), peer::profile::kDefaultHostTags[i]);
}

// ---- value and result texts ---------------------------------------------------

TagAddress Parsed(const char* text) {
    TagAddress a;
    EXPECT_TRUE(Parses(text, &a));
    return a;
}

TEST(ValueTexts, EachKindIsShownItsOwnWay) {
    EXPECT_EQ(FormatValues(Parsed("N7:0 x2"), QByteArray::fromHex("FF FF 10 00")), "-1 16");
    EXPECT_EQ(FormatValues(Parsed("B3:0 x2"), QByteArray::fromHex("08 00 34 12")), "0x0008 0x1234");
    EXPECT_EQ(FormatValues(Parsed("B3:0/1 x3"), QByteArray::fromHex("01 00 01")), "1 0 1");
    EXPECT_EQ(FormatValues(Parsed("F8:0 x2"), QByteArray::fromHex("00 00 20 40 00 00 C0 BF")),
              "2.5 -1.5");
}

TEST(ValueTexts, ValuesTheBytesDoNotCoverAreQuestionMarks) {
    EXPECT_EQ(FormatValues(Parsed("N7:0 x3"), QByteArray::fromHex("05 00 06")), "5 ? ?");
    EXPECT_EQ(FormatValues(Parsed("F8:0 x2"), QByteArray::fromHex("00 00 20 40 00")), "2.5 ?");
    EXPECT_EQ(FormatValues(Parsed("B3:0/0 x2"), QByteArray()), "? ?");
}

TEST(ResultCodes, GoodCodesAreOneAndHundred) {
    EXPECT_TRUE(IsGoodResult(1));
    EXPECT_TRUE(IsGoodResult(100));
    EXPECT_FALSE(IsGoodResult(0));
    EXPECT_FALSE(IsGoodResult(41));
    EXPECT_EQ(ResultText(41), "no reply");
    EXPECT_EQ(ResultText(74), "wrong length (varId 3)");
    EXPECT_EQ(ResultText(122), "remote bad reply (varId 11)");
    EXPECT_EQ(ResultText(171), "remote wrong length");
    EXPECT_EQ(ResultText(12), "bad reply (varId 1)");
    EXPECT_EQ(ResultText(200), "unknown");
}

// ---- cyclic entries --------------------------------------------------------

struct ItemsRow {
    const char* tag;
    int maxCount;
    bool remote;
    std::vector<std::pair<std::string, int>> items;  // address text, count
};

void PrintTo(const ItemsRow& row, std::ostream* os) {
    *os << row.tag << " maxCount " << row.maxCount << (row.remote ? " remote" : "");
}

class CyclicEntries : public ::testing::TestWithParam<ItemsRow> {};

TEST_P(CyclicEntries, CutAtWholeBlocks) {
    const ItemsRow& row = GetParam();
    TagAddress tag;
    ASSERT_TRUE(Parses(row.tag, &tag));
    const auto items = ReadItemsFor(tag, row.maxCount, row.remote);
    ASSERT_EQ(items.size(), row.items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(items[i].dataType, tag.dataType());
        EXPECT_EQ(items[i].text, row.items[i].first) << "entry " << i;
        EXPECT_EQ(items[i].count, row.items[i].second) << "entry " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CyclicEntries,
    ::testing::Values(
        ItemsRow{"N7:0 x10", 32, false, {{"7:0", 10}}},
        ItemsRow{"N7:0 x100", 32, false, {{"7:0", 32}, {"7:32", 32}, {"7:64", 32}, {"7:96", 4}}},
        ItemsRow{"N7:0 x100", 0, false, {{"7:0", 100}}},
        // A REAL entry of count c reads c - 1 values: n values take n + 1.
        ItemsRow{"F8:0 x4", 32, false, {{"8:0", 5}}},
        ItemsRow{"F8:0 x40", 32, false, {{"8:0", 32}, {"8:31", 10}}},
        ItemsRow{"F8:0 x3", 1, false, {{"8:0", 1}, {"8:1", 1}, {"8:2", 1}}},
        ItemsRow{"F8:0 x3", 0, false, {{"8:0", 4}}},
        // Remote reads take the count as it is.
        ItemsRow{"F8:0 x3", 32, true, {{"8:0", 3}}},
        // 40 bits from bit 5 fill three words; blocks of two words.
        ItemsRow{"B3:0/5 x40", 2, false, {{"3:0/5", 27}, {"3:2/0", 13}}},
        ItemsRow{"B3:0/5 x40", 32, false, {{"3:0/5", 40}}}));

// The entries go through the driver's own list building: the cyclic list it
// makes reads exactly the tags' values, and the frame it builds for a REAL
// entry asks for that many elements.
class CyclicEntriesInTheDriver : public ::testing::Test {
protected:
    void SetUp() override {
        ResetDriverForTest();
        std::memset(&info, 0, sizeof info);
        info.maxCount = 32;
        info.defaultStation = 1;
        info.retryLimit = 2;
        info.writeMode = 2;
        SetComInfo(&info);
    }
    void TearDown() override { ResetDriverForTest(); }

    // Builds the cyclic list from the tags; returns its (address, count)
    // entries in order.
    std::vector<std::pair<int, int>> Build(const std::vector<const char*>& texts) {
        std::vector<TagAddress> tags;
        for (const char* text : texts) tags.push_back(Parsed(text));
        std::vector<ReadVarItem> items = ReadVarItemsFor(tags, info.maxCount, false);
        QList<ReadVarItem*> list;
        for (ReadVarItem& item : items) list.append(&item);
        const int length = ReCreatReadVarList(&list);
        std::vector<std::pair<int, int>> out;
        for (const RW_VAR& v : PLC_driver.readList) out.emplace_back(v.address, v.count);
        EXPECT_EQ(static_cast<std::size_t>(length), out.size());
        return out;
    }

    ComInfo info;
};

TEST_F(CyclicEntriesInTheDriver, FourRealsAreReadAsFourElements) {
    const auto entries = Build({"F8:0 x4"});
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0], std::make_pair(8 * 256, 5));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->dataBytes, 16);
    // The element count of the Read Tag Fragmented request: high byte at
    // frame offset 33, low byte at 34 (no byte before them is doubled here).
    EXPECT_EQ(static_cast<uint8_t>(p->frame[33]), 0x00);
    EXPECT_EQ(static_cast<uint8_t>(p->frame[34]), 0x04);
}

TEST_F(CyclicEntriesInTheDriver, NeighbouringRealTagsMergeWithoutReadingPastTheLast) {
    // F8:0..1 and F8:2 become one entry that reads three values.
    const auto entries = Build({"F8:0 x2", "F8:2"});
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0], std::make_pair(8 * 256, 4));
    Protocol* p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->dataBytes, 12);
}

TEST_F(CyclicEntriesInTheDriver, LongRealTagKeepsEveryValue) {
    info.maxCount = 4;
    // Ten values in blocks of three (count 4 reads 3): 0-2, 3-5, 6-8, 9.
    const auto entries = Build({"F8:0 x10"});
    const std::vector<std::pair<int, int>> expected = {{2048, 4}, {2051, 4}, {2054, 4}, {2057, 2}};
    EXPECT_EQ(entries, expected);
}

TEST_F(CyclicEntriesInTheDriver, LongWordTagIsReadInContiguousBlocks) {
    info.maxCount = 10;
    // 35 words from N7:100 in blocks at 100, 110, 120 and 130; one entry of
    // 35 would have the driver start its third block at 130 and its fourth
    // at 160.
    const auto entries = Build({"N7:100 x35"});
    const int start = 7 * 256 + 100;
    const std::vector<std::pair<int, int>> expected = {
        {start, 10}, {start + 10, 10}, {start + 20, 10}, {start + 30, 5}};
    EXPECT_EQ(entries, expected);
}

TEST_F(CyclicEntriesInTheDriver, LongBitTagCoversEveryWord) {
    info.maxCount = 2;
    // 40 bits from B3:0/5 lie in words 0 to 2 of B3.
    const auto entries = Build({"B3:0/5 x40"});
    const std::vector<std::pair<int, int>> expected = {{768, 2}, {770, 1}};
    EXPECT_EQ(entries, expected);
}
