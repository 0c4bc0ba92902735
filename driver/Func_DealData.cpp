// Storing the data of a good reply into the local image. Values are taken
// straight from the received (DLE-doubled) bytes: every DLE read is followed by
// its double, which is stepped over.
//
// A reply can come from any device on the line and is not trusted: nothing is
// read past the bytes received, and elements whose index falls outside the area
// are skipped while the others are stored.
#include "Func_DealData.h"

#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <algorithm>
#include <cstring>

namespace {

// Reads data byte k at reply position dataPos + k + s, where s counts the
// doubled DLEs stepped over so far.
class StuffedDataReader {
public:
    explicit StuffedDataReader(const QByteArray& reply)
        : reply_(reply), bytes_(reinterpret_cast<const uint8_t*>(reply.constData())) {}

    // True when data bytes [k, k + n) would all lie inside the reply if no
    // further DLE were doubled.
    bool covers(int64_t k, int64_t n) const { return k + n - 1 + skipped_ < reply_.size(); }

    bool read(int64_t k, uint8_t* byte) {
        const int64_t at = k + skipped_;
        if (at < 0 || at >= reply_.size()) return false;
        *byte = bytes_[at];
        if (*byte == df1::kDle) ++skipped_;
        return true;
    }

    // The n data bytes from k on when they lie inside the reply and none of
    // them is a DLE, so that they read as they stand; null otherwise.
    const uint8_t* plain(int64_t k, int n) const {
        const int64_t at = k + skipped_;
        if (at < 0 || at + n > reply_.size()) return nullptr;
        for (int j = 0; j < n; ++j)
            if (bytes_[at + j] == df1::kDle) return nullptr;
        return bytes_ + at;
    }

private:
    const QByteArray& reply_;
    const uint8_t* bytes_;
    int64_t skipped_ = 0;
};

// Element layout of an area's replies: elements of kElementBytes bytes, of
// which the kKeptBytes from kFirstKept on form the value, least significant
// first.
template <typename T, int kElementBytes, int kFirstKept, int kKeptBytes>
struct ElementLayout {
    using Value = T;
    static constexpr int kBytes = kElementBytes;
    static T value(const uint8_t* element) {
        uint64_t value = 0;
        for (int j = 0; j < kKeptBytes; ++j)
            value |= static_cast<uint64_t>(element[kFirstKept + j]) << (8 * j);
        return static_cast<T>(value);
    }
    static bool kept(int j) { return j >= kFirstKept && j < kFirstKept + kKeptBytes; }
    static int shift(int j) { return 8 * (j - kFirstKept); }
};

// Stores dataBytes / kBytes elements of the layout's shape.
template <typename Layout>
void SaveElements(const QByteArray& reply, typename Layout::Value* area) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (!area || d.protocolList.isEmpty()) return;
    const Protocol& p = d.protocolList.first();
    if (p.dataBytes < Layout::kBytes) return;
    const int64_t count = p.dataBytes / Layout::kBytes;

    StuffedDataReader reader(reply);
    for (int64_t i = 0; i < count; ++i) {
        const int64_t e = p.dataPos + static_cast<int64_t>(Layout::kBytes) * i;
        // Positions only grow, so once an element runs past the reply every
        // later one does too: the rest of the area stays as it was.
        if (!reader.covers(e, Layout::kBytes)) return;
        const int64_t index = static_cast<int64_t>(p.var.address) + i;
        const bool inArea = index >= 0 && index < kAreaElements;
        if (const uint8_t* plain = reader.plain(e, Layout::kBytes)) {
            if (inArea) area[index] = Layout::value(plain);
            continue;
        }
        uint64_t value = 0;
        for (int j = 0; j < Layout::kBytes; ++j) {
            uint8_t byte = 0;
            if (!reader.read(e + j, &byte)) return;  // doubled DLEs pushed it past the end
            if (Layout::kept(j)) value |= static_cast<uint64_t>(byte) << Layout::shift(j);
        }
        if (inArea) area[index] = static_cast<typename Layout::Value>(value);
    }
}

// Words and 32-bit values are whole elements.
using WordLayout = ElementLayout<uint16_t, 2, 0, 2>;
using LongLayout = ElementLayout<uint32_t, 4, 0, 4>;
// Timer and counter structures: three 16-bit words per element; the preset
// is the second word, the accumulated value the third.
using PresetLayout = ElementLayout<uint16_t, 6, 2, 2>;
using AccumulatedLayout = ElementLayout<uint16_t, 6, 4, 2>;

// Stores the whole elements of a plain data field; elements outside the
// area are skipped.
template <typename Layout>
void SaveDataField(const QByteArray& data, typename Layout::Value* area) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (!area || d.protocolList.isEmpty()) return;
    const int64_t address = d.protocolList.first().var.address;
    const auto* bytes = reinterpret_cast<const uint8_t*>(data.constData());
    const int64_t count = data.size() / Layout::kBytes;
    for (int64_t i = 0; i < count; ++i) {
        const int64_t index = address + i;
        if (index >= 0 && index < kAreaElements)
            area[index] = Layout::value(bytes + Layout::kBytes * i);
    }
}

// Hands the area of the queued request's type to saveWords (the word areas)
// or saveLongs (the 32-bit area). Nothing is stored with several stations,
// where no image is kept. Bit variables are stored as whole words; the bit
// is picked out when the host reads it.
template <typename SaveWords, typename SaveLongs>
void SaveIntoRequestsArea(SaveWords saveWords, SaveLongs saveLongs) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (settings().multiStation != 0) return;
    if (d.protocolList.isEmpty()) return;
    switch (d.protocolList.first().var.dataType) {
        case ABCL_BIT_A:
        case ABCL_WORD_A: saveWords(d.areaA); break;
        case ABCL_BIT_B:
        case ABCL_WORD_B: saveWords(d.areaB); break;
        case ABCL_REAL: saveLongs(d.areaD); break;
        default: break;
    }
}

}  // namespace

void SaveDataFieldToLocalDataErea(const QByteArray& data) {
    SaveIntoRequestsArea([&data](uint16_t* area) { SaveDataField<WordLayout>(data, area); },
                         [&data](uint32_t* area) { SaveDataField<LongLayout>(data, area); });
}

void SaveToLocalDataErea(const QByteArray& reply) {
    SaveIntoRequestsArea([&reply](uint16_t* area) { SaveWordToUS(reply, area); },
                         [&reply](uint32_t* area) { SaveWordToUI(reply, area); });
}

void SaveWordToUS(const QByteArray& reply, uint16_t* area) {
    SaveElements<WordLayout>(reply, area);
}

void SaveWordToUI(const QByteArray& reply, uint32_t* area) {
    SaveElements<LongLayout>(reply, area);
}

// Timer and counter structures: the preset is the second word of each element.
void SaveT_C_PRE(const QByteArray& reply, uint16_t* area) {
    SaveElements<PresetLayout>(reply, area);
}

// The accumulated value is the third word of each element.
void SaveT_C_ACC(const QByteArray& reply, uint16_t* area) {
    SaveElements<AccumulatedLayout>(reply, area);
}
