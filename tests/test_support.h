// Shared test helpers: a fresh driver and settings record for every test, and
// hex conversions for writing frames the way protocol tables print them.
#ifndef ABCL_TEST_SUPPORT_H
#define ABCL_TEST_SUPPORT_H

#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "build_kind.h"
#include "hex_text.h"
#include "fresh_driver.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstring>
#include <string>
#include <vector>

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

// A variable record filled field group by field group; whatever is not named
// keeps the record's own default (zero, empty).
class RecordBuilder {
public:
    RecordBuilder& Ids(int varId, int varSubId) {
        v_.varId = varId;
        v_.varSubId = varSubId;
        return *this;
    }
    // The host fields: reply kind, then the three copied through.
    RecordBuilder& Host(int aux2, int aux3, int aux12 = 0, int aux13 = 0) {
        v_.aux2 = aux2;
        v_.aux3 = aux3;
        v_.aux12 = aux12;
        v_.aux13 = aux13;
        return *this;
    }
    RecordBuilder& Link(int linkNo, int result = 0) {
        v_.linkNo = linkNo;
        v_.result = result;
        return *this;
    }
    RecordBuilder& Texts(const QString& addrText, const QString& addrText2 = QString()) {
        v_.addrText = addrText;
        v_.addrText2 = addrText2;
        return *this;
    }
    RecordBuilder& At(int dataType, int address, int count, int station = 0) {
        v_.dataType = dataType;
        v_.address = address;
        v_.count = count;
        v_.station = station;
        return *this;
    }
    RecordBuilder& Data(const QByteArray& data) {
        v_.data = data;
        return *this;
    }
    RW_VAR Build() const { return v_; }
    operator RW_VAR() const { return v_; }

private:
    RW_VAR v_;
};

// A copy of the three areas, to tell exactly which elements a call changed.
struct ImageSnapshot {
    std::vector<uint16_t> a, b;
    std::vector<uint32_t> d;
    ImageSnapshot()
        : a(PLC_driver.areaA, PLC_driver.areaA + kAreaElements),
          b(PLC_driver.areaB, PLC_driver.areaB + kAreaElements),
          d(PLC_driver.areaD, PLC_driver.areaD + kAreaElements) {}

    // "A1802", "B0", "D2048": the elements that differ from the snapshot.
    std::vector<std::string> Changes() const {
        std::vector<std::string> out;
        AddChanges(&out, "A", a.data(), PLC_driver.areaA);
        AddChanges(&out, "B", b.data(), PLC_driver.areaB);
        AddChanges(&out, "D", d.data(), PLC_driver.areaD);
        return out;
    }
    bool Unchanged() const { return Changes().empty(); }

private:
    template <class T>
    static void AddChanges(std::vector<std::string>* out, const char* area, const T* before,
                           const T* now) {
        for (int i = 0; i < kAreaElements; ++i)
            if (now[i] != before[i]) out->push_back(area + std::to_string(i));
    }
};

// A driver as right after loading, wired to a zeroed settings record that the
// test owns (`info`), with single-station defaults a panel would use.
class DriverTest : public ::testing::Test {
protected:
    void SetUp() override { WireFreshDriver(info); }
    void TearDown() override { ResetDriverForTest(); }

    ComInfo info;
};

// The fixture of a table-driven test: `Base`'s set-up, one `Row` per case.
template <class Row, class Base = DriverTest>
class RowTest : public Base, public ::testing::WithParamInterface<Row> {};

#endif
