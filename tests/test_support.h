// Shared test helpers: a fresh driver and settings record for every test, and
// hex conversions for writing frames the way protocol tables print them.
#ifndef ABCL_TEST_SUPPORT_H
#define ABCL_TEST_SUPPORT_H

#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "fresh_driver.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstring>
#include <string>

// "10 06 10 02" -> bytes. Blanks are ignored.
inline QByteArray Hex(const char* text) {
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

// bytes -> "10 06 10 02", upper case, for readable failure messages.
inline std::string ToHex(const QByteArray& bytes) {
    std::string out;
    static const char digits[] = "0123456789ABCDEF";
    for (int i = 0; i < bytes.size(); ++i) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        if (i) out += ' ';
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

// Names each row of a table-driven test after the row's `name`.
struct RowName {
    template <class Row>
    std::string operator()(const ::testing::TestParamInfo<Row>& info) const {
        return info.param.name;
    }
};

// Every field of two variable records, data included.
inline void ExpectSameRecord(const RW_VAR& expected, const RW_VAR& actual) {
    EXPECT_EQ(expected.varId, actual.varId);
    EXPECT_EQ(expected.varSubId, actual.varSubId);
    EXPECT_EQ(expected.aux2, actual.aux2);
    EXPECT_EQ(expected.aux3, actual.aux3);
    EXPECT_EQ(expected.linkNo, actual.linkNo);
    EXPECT_EQ(expected.result, actual.result);
    EXPECT_EQ(expected.addrText2, actual.addrText2);
    EXPECT_EQ(expected.addrText, actual.addrText);
    EXPECT_EQ(expected.dataType, actual.dataType);
    EXPECT_EQ(expected.address, actual.address);
    EXPECT_EQ(expected.station, actual.station);
    EXPECT_EQ(expected.count, actual.count);
    EXPECT_EQ(expected.aux12, actual.aux12);
    EXPECT_EQ(expected.aux13, actual.aux13);
    EXPECT_EQ(ToHex(expected.data), ToHex(actual.data));
}

// A driver as right after loading, wired to a zeroed settings record that the
// test owns (`info`), with single-station defaults a panel would use.
class DriverTest : public ::testing::Test {
protected:
    void SetUp() override { WireFreshDriver(info); }
    void TearDown() override { ResetDriverForTest(); }

    ComInfo info;
};

#endif
