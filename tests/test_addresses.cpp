// Address texts: packing "file:element/bit" and "file:element" into one index,
// the forgiving piece conversion, and how every caller treats a negative index.
#include "test_support.h"

#include "Func_Initi.h"

#include <QtCore/QStringList>

#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

// ---- an independent model of the packing rules ---------------------------

// One piece of an address text: base 10 with an optional sign, 0 when it does
// not convert (letters, a further separator, empty, out of 32-bit range).
int32_t Piece(const QString& text) {
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    return ok ? value : 0;
}

// Packed arithmetic in 32-bit two's complement, as the controller index wraps.
int32_t Wrap(uint32_t value) {
    return static_cast<int32_t>(value);
}

int32_t ModelPack(int dataType, const QString& text) {
    if (dataType == ABCL_BIT_A || dataType == ABCL_BIT_B) {
        if (!text.contains(':') || !text.contains('/')) return -1;
        const QStringList colon = text.split(':');
        const int32_t file = Piece(colon.value(0));
        const QStringList slash = colon.value(1).split('/');
        const int32_t element = Piece(slash.value(0));
        // A "/" outside the second ":" piece leaves no bit piece: it counts as 0.
        const int32_t bit = slash.size() > 1 ? Piece(slash.value(1)) : 0;
        return Wrap(static_cast<uint32_t>(bit) +
                    (static_cast<uint32_t>(element) + static_cast<uint32_t>(file) * 256u) * 16u);
    }
    if (dataType >= 2 && dataType <= 4) {
        if (!text.contains(':')) return -1;
        const QStringList colon = text.split(':');
        return Wrap(static_cast<uint32_t>(Piece(colon.value(1))) +
                    static_cast<uint32_t>(Piece(colon.value(0))) * 256u);
    }
    return Piece(text);
}

// ---- the table of worked conversions --------------------------------------

struct AddressRow {
    const char* name;
    int dataType;
    const char* text;
    int expected;
};

void PrintTo(const AddressRow& row, std::ostream* os) {
    *os << row.name << " (type " << row.dataType << ", \"" << row.text << "\")";
}

class AddressTable : public ::testing::TestWithParam<AddressRow> {};

TEST_P(AddressTable, StringAddressToInt_PacksAsStated) {
    const AddressRow& row = GetParam();
    EXPECT_EQ(StringAddressToInt(row.dataType, QString::fromLatin1(row.text)), row.expected);
}

TEST_P(AddressTable, PLCAddressChangeIntef_GivesTheSameIndex) {
    const AddressRow& row = GetParam();
    EXPECT_EQ(PLCAddressChangeIntef(row.dataType, QString::fromLatin1(row.text)), row.expected);
}

const AddressRow kAddressRows[] = {
    // Bits: ((file x 256) + element) x 16 + bit.
    {"Bit_FileElementBit_Type0", 0, "7:10/3", 28835},
    {"Bit_FileElementBit_Type1", 1, "7:10/3", 28835},
    {"Bit_NoSlash_Invalid", 0, "7:10", -1},
    {"Bit_NoColon_Invalid", 0, "7/3", -1},
    {"Bit_Empty_Invalid", 0, "", -1},
    {"Bit_Type1_NoSlash_Invalid", 1, "7:10", -1},
    {"Bit_Type1_NoColon_Invalid", 1, "7/3", -1},
    {"Bit_Type1_Empty_Invalid", 1, "", -1},
    {"Bit_NegativeBitAtZero_Invalid", 0, "0:0/-1", -1},
    {"Bit_BitAbove15_CarriesIntoElement", 0, "7:10/16", 28848},
    {"Bit_ElementAbove255_CarriesIntoFile", 0, "7:256/0", 32768},
    {"Bit_ExtraSlashPiecesIgnored", 0, "7:10/3/9", 28835},
    {"Bit_ExtraColonPiecesIgnored", 0, "7:10/3:4", 28835},
    {"Bit_TopOfArea", 0, "255:255/15", 1048575},
    {"Bit_NegativePieceWithPositiveResult", 0, "1:-1/5", 4085},
    // A "/" that is not in the second ":" piece: the missing bit counts as 0.
    {"Bit_SlashInFilePiece_MissingBitIsZero", 0, "7/1:3", 48},
    {"Bit_SlashInFilePiece_Type1", 1, "7/3:10", 160},
    {"Bit_SlashOnlyInThirdPiece_MissingBitIsZero", 0, "7:10:2/3", 28832},
    // Words and 32-bit values: (file x 256) + element.
    {"Word_Type2", 2, "7:10", 1802},
    {"Word_Type3", 3, "7:10", 1802},
    {"Real_Type4", 4, "7:10", 1802},
    {"Word_LetterMakesFilePieceZero", 2, "N7:10", 10},
    {"Word_BitSuffixMakesElementPieceZero", 2, "7:10/3", 1792},
    {"Word_EmptyElementIsZero", 3, "7:", 1792},
    {"Word_ThirdPieceIgnored", 3, "7:10:99", 1802},
    {"Word_ElementCarriesIntoFile", 2, "7:300", 2092},
    {"Word_SameIndexAsCarried", 2, "8:44", 2092},
    {"Word_OnlyColon_IsZero", 2, ":", 0},
    {"Word_NegativeFilePieceWithPositiveResult", 2, "-1:300", 44},
    {"Word_TopOfArea", 2, "255:255", 65535},
    {"Word_PlusSign", 3, "+7:+10", 1802},
    {"Word_HexPieceDoesNotConvert", 2, "0x10:5", 5},
    {"Word_OutOfRangePieceIsZero", 2, "2147483648:5", 5},
    {"Word_NoColon_Invalid", 2, "710", -1},
    {"Word_Empty_Invalid", 4, "", -1},
    {"Word_NegativeResult_Invalid", 2, "0:-5", -5},
    // Other types: the whole text as one number.
    {"Other_Type5_Number", 5, "1802", 1802},
    {"Other_TypeMinus1_Number", -1, "1802", 1802},
    {"Other_Type5_Letters", 5, "abc", 0},
    {"Other_TypeMinus1_Letters", -1, "abc", 0},
    {"Other_Type5_MinusOne", 5, "-1", -1},
    {"Other_TypeMinus1_MinusOne", -1, "-1", -1},
    {"Other_Type5_SeparatorMakesZero", 5, "7:10", 0},
    {"Other_Type5_Empty", 5, "", 0},
    {"Other_Type100_Number", 100, "65535", 65535},
};

INSTANTIATE_TEST_SUITE_P(Rows, AddressTable, ::testing::ValuesIn(kAddressRows),
                         [](const ::testing::TestParamInfo<AddressRow>& row) {
                             return std::string(row.param.name);
                         });

// ---- extreme pieces ---------------------------------------------------------

TEST(AddressExtremes, IntMaxPieces_WrapAsTwosComplement) {
    const char* const texts[] = {
        "2147483647:2147483647/2147483647",
        "2147483647:0/0",
        "0:2147483647/0",
        "0:0/2147483647",
        "-2147483648:0/0",
        "0:-2147483648/0",
        "0:0/-2147483648",
        "-2147483648:-2147483648/-2147483648",
        "2147483647:2147483647",
        "-2147483648:-2147483648",
        "2147483647:-2147483648",
        "2147483647",
        "-2147483648",
    };
    for (const char* t : texts) {
        const QString text = QString::fromLatin1(t);
        for (int type = -1; type <= 5; ++type) {
            SCOPED_TRACE(std::string(t) + " type " + std::to_string(type));
            EXPECT_EQ(StringAddressToInt(type, text), ModelPack(type, text));
        }
    }
}

TEST(AddressExtremes, WrappedWordIndexes_KnownValues) {
    // 8,388,608 x 256 = 2^31: the sign bit; 16,777,216 x 256 = 2^32: wraps to 0.
    EXPECT_EQ(StringAddressToInt(2, QStringLiteral("8388608:0")), INT_MIN);
    EXPECT_EQ(StringAddressToInt(2, QStringLiteral("16777216:5")), 5);
    // 134,217,728 x 16 = 2^31.
    EXPECT_EQ(StringAddressToInt(0, QStringLiteral("0:134217728/0")), INT_MIN);
    EXPECT_EQ(StringAddressToInt(0, QStringLiteral("0:268435456/7")), 7);
}

// ---- generated inputs -----------------------------------------------------

std::vector<QString> GeneratedTexts() {
    static const char* const pieces[] = {
        "",           "0",           "7",          "10",          "3",          "15",  "16",
        "255",        "256",         "300",        "-1",          "-7",         "+4",  "N7",
        "abc",        " 5",          "5 ",         "1e3",         "0x10",       "007", "65535",
        "2147483647", "-2147483648", "2147483648", "-2147483649", "4294967296",
    };
    static const char* const separators[] = {":", "/", ":", "/", "", "::", "/:"};
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<int> pickPiece(0, static_cast<int>(std::size(pieces)) - 1);
    std::uniform_int_distribution<int> pickSep(0, static_cast<int>(std::size(separators)) - 1);
    std::uniform_int_distribution<int> pickLength(1, 4);
    std::vector<QString> texts;
    for (int n = 0; n < 3000; ++n) {
        QString text = QString::fromLatin1(pieces[pickPiece(rng)]);
        const int length = pickLength(rng);
        for (int k = 1; k < length; ++k) {
            text += QString::fromLatin1(separators[pickSep(rng)]);
            text += QString::fromLatin1(pieces[pickPiece(rng)]);
        }
        texts.push_back(text);
    }
    // The typical shapes, written out.
    for (int file : {0, 1, 7, 255}) {
        for (int element : {0, 10, 255, 256}) {
            texts.push_back(QStringLiteral("%1:%2").arg(file).arg(element));
            for (int bit : {0, 3, 15, 16})
                texts.push_back(QStringLiteral("%1:%2/%3").arg(file).arg(element).arg(bit));
        }
    }
    return texts;
}

TEST(AddressGenerated, PLCAddressChangeIntef_EqualsStringAddressToInt) {
    for (const QString& text : GeneratedTexts()) {
        for (int type : {-1, 0, 1, 2, 3, 4, 5, 255}) {
            ASSERT_EQ(PLCAddressChangeIntef(type, text), StringAddressToInt(type, text))
                << "type " << type << " text \"" << text.toStdString() << "\"";
        }
    }
}

TEST(AddressGenerated, StringAddressToInt_FollowsThePackingRules) {
    for (const QString& text : GeneratedTexts()) {
        for (int type : {-1, 0, 1, 2, 3, 4, 5}) {
            ASSERT_EQ(StringAddressToInt(type, text), ModelPack(type, text))
                << "type " << type << " text \"" << text.toStdString() << "\"";
        }
    }
}

// ---- callers act on the sign alone ----------------------------------------

class AddressCallers : public DriverTest {
protected:
    // Everything an invalid address must leave alone.
    void ExpectNothingChanged() {
        EXPECT_TRUE(PLC_driver.writeList.isEmpty());
        EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
        for (int i = 0; i < kAreaElements; ++i) {
            if (PLC_driver.areaA[i] != 0 || PLC_driver.areaB[i] != 0 || PLC_driver.areaD[i] != 0) {
                ADD_FAILURE() << "image changed at element " << i;
                return;
            }
        }
    }

    void ExpectRejectedEverywhere(int dataType, const char* t) {
        SCOPED_TRACE(std::string("type ") + std::to_string(dataType) + " text " + t);
        const QString text = QString::fromLatin1(t);
        ASSERT_LT(StringAddressToInt(dataType, text), 0);

        QByteArray out = Hex("AA BB CC");
        EXPECT_EQ(GetRegisterData(0, dataType, text, 0, &out, 3), 0);
        EXPECT_EQ(ToHex(out), "AA BB CC");

        QByteArray in = Hex("01 01 01 01 01 01");
        info.writeMode = 2;
        setCommError(true);  // would mirror at once if anything were queued
        EXPECT_EQ(SetRegisterData(QStringLiteral("x"), dataType, text, 1, &in, 3, 1, 1), 0);
        info.writeMode = 1;
        EXPECT_EQ(SetRegisterData(QStringLiteral("x"), dataType, text, 1, &in, 3, 1, 1), 0);
        setCommError(false);

        RW_VAR var;
        var.varId = 4;
        var.varSubId = 5;
        var.dataType = dataType;
        var.addrText = text;
        var.address = 1234;
        var.count = 3;
        var.station = 9;
        var.aux12 = 77;
        EXPECT_EQ(AddListOnceReadVar(&var, 0), 0);
        // An invalid address leaves the caller's record as it was.
        EXPECT_EQ(var.address, 1234);
        EXPECT_EQ(var.count, 3);
        EXPECT_EQ(var.station, 9);
        EXPECT_EQ(var.aux12, 77);

        ReadVarItem item;
        item.dataType = static_cast<uint8_t>(dataType);
        item.addrText = text;
        item.count = 3;
        QList<ReadVarItem*> items;
        items.append(&item);
        EXPECT_EQ(ReCreatReadVarList(&items), 0);
        EXPECT_TRUE(PLC_driver.readList.isEmpty());

        ExpectNothingChanged();
    }
};

TEST_F(AddressCallers, NegativeBit_RejectedByEveryCaller) {
    ExpectRejectedEverywhere(0, "0:0/-1");
}

TEST_F(AddressCallers, MissingSlash_RejectedByEveryCaller) {
    ExpectRejectedEverywhere(1, "7:10");
}

TEST_F(AddressCallers, MissingColon_RejectedByEveryCaller) {
    ExpectRejectedEverywhere(2, "710");
}

TEST_F(AddressCallers, NegativeWordIndex_RejectedByEveryCaller) {
    ExpectRejectedEverywhere(3, "0:-5");
}

TEST_F(AddressCallers, WrappedToSignBit_RejectedByEveryCaller) {
    ExpectRejectedEverywhere(2, "8388608:0");
    ExpectRejectedEverywhere(0, "0:134217728/0");
}

TEST_F(AddressCallers, IntMaxPiecesGivingNegative_RejectedByEveryCaller) {
    // 256 + 2,147,483,647 and 16 + 2,147,483,647 wrap past the sign bit.
    ExpectRejectedEverywhere(2, "1:2147483647");
    ExpectRejectedEverywhere(0, "0:1/2147483647");
    ExpectRejectedEverywhere(4, "8388607:2147483647");
}

TEST_F(AddressCallers, WrappedToSmallPositive_UsedAsThatIndex) {
    // 16,777,216 x 256 wraps to 0, so the text names word 5.
    PLC_driver.areaA[5] = 0x1234;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(0, 2, QStringLiteral("16777216:5"), 0, &out, 1), 1);
    EXPECT_EQ(ToHex(out), "34 12");
}

TEST_F(AddressCallers, NegativePieceWithPositiveIndex_Accepted) {
    // -1 x 256 + 300 = 44: accepted, only the packed sign counts.
    PLC_driver.areaB[44] = 0xBEEF;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(0, 3, QStringLiteral("-1:300"), 0, &out, 1), 1);
    EXPECT_EQ(ToHex(out), "EF BE");
}

// The largest valid bit and word texts, far beyond the areas.
const QString kHugeBitText = QStringLiteral("2147483647:2147483647/2147483647");
const QString kHugeWordText = QStringLiteral("2147483647:2147483647");

TEST_F(AddressCallers, IntMaxPiecesGivingHugeIndex_AcceptedButOutsideTheImage) {
    // Valid (non-negative) indexes far beyond the areas: the image callers
    // accept them, nothing is copied from or into the image, nothing crashes.
    const QString& bitText = kHugeBitText;
    const QString& wordText = kHugeWordText;
    const int bitIndex = StringAddressToInt(0, bitText);
    const int wordIndex = StringAddressToInt(2, wordText);
    ASSERT_EQ(bitIndex, ModelPack(0, bitText));
    ASSERT_EQ(wordIndex, ModelPack(2, wordText));
    ASSERT_GT(bitIndex, 16 * kAreaElements);
    ASSERT_GT(wordIndex, kAreaElements);

    QByteArray out = Hex("AA");
    EXPECT_EQ(GetRegisterData(0, 0, bitText, 0, &out, 4), 1);
    EXPECT_EQ(ToHex(out), "AA");
    EXPECT_EQ(GetRegisterData(0, 2, wordText, 0, &out, 4), 1);
    EXPECT_EQ(GetRegisterData(0, 4, wordText, 0, &out, 4), 1);
    EXPECT_EQ(ToHex(out), "AA");

    QByteArray in(600, '\x01');
    info.writeMode = 1;
    EXPECT_EQ(SetRegisterData(QString(), 0, bitText, 1, &in, 4, 1, 1), 1);
    EXPECT_EQ(SetRegisterData(QString(), 2, wordText, 1, &in, 300, 1, 1), 1);
    EXPECT_EQ(SetRegisterData(QString(), 4, wordText, 1, &in, 300, 1, 1), 1);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());

    info.writeMode = 2;
    setCommError(true);  // mirrored at once: must still stay inside the areas
    EXPECT_EQ(SetRegisterData(QString(), 0, bitText, 1, &in, 4, 1, 1), 4);
    // 300 words in pieces of 32: ten writes, the later ones past the 32-bit range.
    EXPECT_EQ(SetRegisterData(QString(), 2, wordText, 1, &in, 300, 1, 1), 14);
    setCommError(false);

    for (int i = 0; i < kAreaElements; ++i) {
        if (PLC_driver.areaA[i] != 0 || PLC_driver.areaB[i] != 0 || PLC_driver.areaD[i] != 0) {
            ADD_FAILURE() << "image changed at element " << i;
            break;
        }
    }
}

TEST_F(AddressCallers, IntMaxPiecesGivingHugeIndex_OnceReadsQueuedOutsideTheImage) {
    ABCL_DEFAULT_BUILD_ONLY("the hardened build queues no one-shot read outside the local areas");
    RW_VAR var;
    var.dataType = ABCL_BIT_A;
    var.addrText = kHugeBitText;
    var.count = 4;
    EXPECT_EQ(AddListOnceReadVar(&var, 0), 1);
    var.dataType = ABCL_WORD_A;
    var.addrText = kHugeWordText;
    var.count = 300;
    EXPECT_EQ(AddListOnceReadVar(&var, 0), 11);
}

TEST_F(AddressCallers, IntMaxPiecesGivingHugeIndex_OnceReadsOutsideTheAreasNotQueued_Hardened) {
    ABCL_HARDENED_BUILD_ONLY("the default build queues reads of any valid index");
    RW_VAR var;
    var.dataType = ABCL_BIT_A;
    var.addrText = kHugeBitText;
    var.count = 4;
    EXPECT_EQ(AddListOnceReadVar(&var, 0), 0);
    var.dataType = ABCL_WORD_A;
    var.addrText = kHugeWordText;
    var.count = 300;
    EXPECT_EQ(AddListOnceReadVar(&var, 0), 0);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());

    // A valid read behind them is still taken.
    var.addrText = QStringLiteral("7:0");
    var.count = 2;
    EXPECT_EQ(AddListOnceReadVar(&var, 0), 1);
}

TEST_F(AddressCallers, SlashInFilePiece_UsedWithBitZero) {
    // "7/1:3" names element 3 of file 0, bit 0: index 48, word 3.
    PLC_driver.areaA[3] = 0x0001;
    QByteArray out;
    EXPECT_EQ(GetRegisterData(0, 0, QStringLiteral("7/1:3"), 0, &out, 2), 1);
    EXPECT_EQ(ToHex(out), "01 00");
    // "7/3:10": element 10 of file 0, bit 0: index 160, word 10.
    PLC_driver.areaB[10] = 0x0002;
    out.clear();
    EXPECT_EQ(GetRegisterData(0, 1, QStringLiteral("7/3:10"), 0, &out, 2), 1);
    EXPECT_EQ(ToHex(out), "00 01");
}

}  // namespace
