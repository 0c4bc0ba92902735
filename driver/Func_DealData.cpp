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

namespace {

// Reads data byte k at reply position dataPos + k + s, where s counts the
// doubled DLEs stepped over so far.
class StuffedDataReader {
public:
    explicit StuffedDataReader(const QByteArray& reply) : reply_(reply) {}

    // True when data bytes [k, k + n) would all lie inside the reply if no
    // further DLE were doubled.
    bool covers(int64_t k, int64_t n) const { return k + n - 1 + skipped_ < reply_.size(); }

    bool read(int64_t k, uint8_t* byte) {
        const int64_t at = k + skipped_;
        if (at < 0 || at >= reply_.size()) return false;
        *byte = static_cast<uint8_t>(reply_.at(static_cast<int>(at)));
        if (*byte == df1::kDle) ++skipped_;
        return true;
    }

private:
    const QByteArray& reply_;
    int64_t skipped_ = 0;
};

// Stores dataBytes / elementBytes elements of `elementBytes` bytes each; of each
// element the `keptBytes` bytes from `firstKept` on form the value, least
// significant first.
template <typename T>
void SaveElements(const QByteArray& reply, T* area, int elementBytes, int firstKept,
                  int keptBytes) {
    const AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (!area || d.protocolList.isEmpty()) return;
    const Protocol& p = d.protocolList.first();
    if (p.dataBytes < elementBytes) return;
    const int64_t count = p.dataBytes / elementBytes;

    StuffedDataReader reader(reply);
    for (int64_t i = 0; i < count; ++i) {
        const int64_t e = p.dataPos + static_cast<int64_t>(elementBytes) * i;
        // Positions only grow, so once an element runs past the reply every
        // later one does too: the rest of the area stays as it was.
        if (!reader.covers(e, elementBytes)) return;
        uint64_t value = 0;
        for (int j = 0; j < elementBytes; ++j) {
            uint8_t byte = 0;
            if (!reader.read(e + j, &byte)) return;  // doubled DLEs pushed it past the end
            if (j >= firstKept && j < firstKept + keptBytes)
                value |= static_cast<uint64_t>(byte) << (8 * (j - firstKept));
        }
        const int64_t index = static_cast<int64_t>(p.var.address) + i;
        if (index >= 0 && index < kAreaElements) area[index] = static_cast<T>(value);
    }
}

constexpr int kTimerCounterElementBytes = 6;  // three 16-bit words per element

}  // namespace

void SaveToLocalDataErea(const QByteArray& reply) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (settings().multiStation != 0) return;  // several stations: no image is kept
    if (d.protocolList.isEmpty()) return;
    // Bit variables are stored as whole words; the bit is picked out when the
    // host reads it.
    switch (d.protocolList.first().var.dataType) {
        case ABCL_BIT_A:
        case ABCL_WORD_A: SaveWordToUS(reply, d.areaA); break;
        case ABCL_BIT_B:
        case ABCL_WORD_B: SaveWordToUS(reply, d.areaB); break;
        case ABCL_REAL: SaveWordToUI(reply, d.areaD); break;
        default: break;
    }
}

void SaveWordToUS(const QByteArray& reply, uint16_t* area) {
    SaveElements(reply, area, 2, 0, 2);
}

void SaveWordToUI(const QByteArray& reply, uint32_t* area) {
    SaveElements(reply, area, 4, 0, 4);
}

// Timer and counter structures: the preset is the second word of each element.
void SaveT_C_PRE(const QByteArray& reply, uint16_t* area) {
    SaveElements(reply, area, kTimerCounterElementBytes, 2, 2);
}

// The accumulated value is the third word of each element.
void SaveT_C_ACC(const QByteArray& reply, uint16_t* area) {
    SaveElements(reply, area, kTimerCounterElementBytes, 4, 2);
}
