// The one-pass address reader against the splitting reading it replaces: for
// any text and any data type both give the same packed index. Texts are drawn
// mostly from the characters the one-pass reader handles itself (digits,
// signs, ':' and '/'), with numbers at the edges of the 32-bit range, and now
// and then a character that sends the text to the splitting reading (white
// space, letters, other scripts' digits and minus signs).
//
// ABCL_ADDRESS_TEXTS sets how many texts to draw (default 200,000), for a
// longer run by hand.
#include "Func_Initi.h"

#include <gtest/gtest.h>

#include <QtCore/QString>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace {

constexpr int kLowestType = -1;
constexpr int kHighestType = 6;  // beyond the last data type

// Uniform draws from the raw generator output, the same on every platform.
class Draw {
public:
    explicit Draw(uint32_t seed) : rng_(seed) {}
    uint32_t below(uint32_t n) { return rng_() % n; }
    bool chance(uint32_t percent) { return below(100) < percent; }

private:
    std::mt19937 rng_;
};

// Numbers around the edges that overflow handling must get exactly right.
const char* const kEdgeNumbers[] = {
    "2147483647",
    "2147483648",
    "-2147483648",
    "-2147483649",
    "+2147483647",
    "4294967296",
    "99999999999",
    "0",
    "-0",
    "+0",
    "00000000000000000000000000000007",
    "-00000000002147483648",
    "16",
    "255",
    "256",
    "4095",
    "65535",
};

// Characters that are not part of the plain form.
const char16_t kOtherCharacters[] = {
    u' ',      u'\t',     u'\n',     u'a',      u'N',      u'e',      u'E',      u'.', u',',  u'x',
    u'\u2212', u'\u00A0', u'\u0660', u'\u0665', u'\uFF10', u'\uFF15', u'\u3000', u'#', u'\0',
};

QString RandomText(Draw& draw) {
    QString text;
    const uint32_t pieces = draw.below(6);
    for (uint32_t i = 0; i <= pieces; ++i) {
        if (draw.chance(15)) {
            text += QLatin1String(kEdgeNumbers[draw.below(std::size(kEdgeNumbers))]);
        } else {
            if (draw.chance(10)) text += QLatin1Char(draw.chance(50) ? '-' : '+');
            const uint32_t digits = draw.chance(10) ? 9 + draw.below(14) : draw.below(5);
            for (uint32_t d = 0; d < digits; ++d)
                text += QLatin1Char(static_cast<char>('0' + draw.below(10)));
        }
        if (draw.chance(4))
            text += QChar(kOtherCharacters[draw.below(std::size(kOtherCharacters))]);
        if (i < pieces) {
            const uint32_t separator = draw.below(10);
            text += QLatin1Char(separator < 5 ? ':' : separator < 9 ? '/' : '-');
        }
    }
    return text;
}

int TextCount() {
    const char* configured = std::getenv("ABCL_ADDRESS_TEXTS");
    const int count = configured ? std::atoi(configured) : 0;
    return count > 0 ? count : 200000;
}

void ExpectSameReading(const QString& text) {
    for (int type = kLowestType; type <= kHighestType; ++type)
        ASSERT_EQ(StringAddressToInt(type, text), StringAddressToIntBySplitting(type, text))
            << "data type " << type << ", text \"" << text.toStdString() << "\"";
}

TEST(AddressReading, RandomTexts_ReadAsTheSplittingReadingDoes) {
    Draw draw(20261124u);
    const int count = TextCount();
    for (int i = 0; i < count; ++i) ExpectSameReading(RandomText(draw));
}

TEST(AddressReading, ScreenForms_ReadAsTheSplittingReadingDoes) {
    for (const char* text : {"7:10/3",
                             "7:10",
                             "N7:10",
                             "7:",
                             ":",
                             "/",
                             ":/",
                             "7:/",
                             ":10/",
                             "7:10/",
                             "7/1:3",
                             "7:10/3/4",
                             "7:10:5/2",
                             "-1:5",
                             "+7:+10/+3",
                             "7:-1/-1",
                             "",
                             "7",
                             "-",
                             "+",
                             "7::10",
                             "2147483647:2147483647/2147483647",
                             "-2147483648:0/0",
                             " 7:10",
                             "7:10 ",
                             "7 :10",
                             "7:1 0/3",
                             "\u0667:10"})
        ExpectSameReading(QString::fromUtf8(text));
}

// A null text and an empty one read alike: no address.
TEST(AddressReading, NullText_ReadAsEmpty) {
    ExpectSameReading(QString());
    EXPECT_EQ(StringAddressToInt(ABCL_WORD_B, QString()), -1);
}

}  // namespace
