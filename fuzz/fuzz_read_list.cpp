// The cyclic list rebuild under arbitrary host lists: items of any data type
// byte, any address text and any count, with any maxCount. The rebuilt list
// is held against a model of the rebuild written here from its rules
// (splitting with the accumulating step, a stable sort by address, merging
// within maxCount), wherever no value leaves 32 bits; everywhere its shape is
// checked (types in order, the template's fields).
//
// Input layout (an exhausted input reads zeros):
//   0-1    maxCount (signed 16 bits), 2 flags: bit 0 several stations, bit 1
//          hand over no list at all, bit 2 put null entries in the list,
//          bit 3 remote mode; 3 defaultStation, 4 localLinkNo
//   then items (at most 64), each: data type byte, count (32 bits), text
//   length n (% 24), the n bytes of the address text (Latin-1)
#include "fuzz_support.h"

#include "Func_Initi.h"

#include <QtCore/QList>

#include <algorithm>
#include <memory>
#include <vector>

namespace {

constexpr int kMaxItems = 64;
constexpr int64_t kMaxPiecesPerItem = 256;  // keeps one run to milliseconds

struct Request {
    int dataType;
    int64_t address;
    int64_t count;
    QString addrText;
    QString addrText2;
};

bool Fits32(int64_t v) {
    return v >= INT32_MIN && v <= INT32_MAX;
}

// The rebuild by its rules, in 64-bit arithmetic; `exact` turns false when a
// value leaves 32 bits, where the comparison with the driver is not made.
std::vector<Request> ModelRebuild(const QList<ReadVarItem*>& items, int maxCount, bool* exact) {
    std::vector<Request> perType[5];
    const int64_t m = maxCount;
    for (const ReadVarItem* item : items) {
        if (!item) continue;
        const int a = StringAddressToInt(item->dataType, item->addrText);
        if (a < 0 || item->dataType > ABCL_REAL) continue;
        Request r{item->dataType, a, item->count, item->addrText, item->addrText2};
        if (item->dataType <= ABCL_BIT_B) {
            // The words that hold the bits: a bit address shifted right by 4.
            const int64_t bitsFromWordStart = (a & 15) + static_cast<int64_t>(item->count);
            r.address = a >> 4;
            r.count = bitsFromWordStart / 16 + ((bitsFromWordStart & 15) != 0 ? 1 : 0);
            if (!Fits32(r.count)) *exact = false;
        }
        // Pieces of m; piece k starts at start + m * k * (k + 1) / 2.
        const int64_t q = m == 0 ? 0 : r.count / m;
        const int64_t rest = r.count - m * q;
        const int64_t pieces = rest != 0 ? q + 1 : q;
        int64_t address = r.address;
        int64_t step = 0;
        for (int64_t k = 0; k < pieces; ++k) {
            address += step;
            if (!Fits32(address)) *exact = false;
            Request piece = r;
            piece.address = address;
            piece.count = (k == pieces - 1) ? (rest != 0 ? rest : m) : m;
            perType[item->dataType].push_back(piece);
            step += m;
        }
    }
    std::vector<Request> out;
    for (std::vector<Request>& list : perType) {
        std::stable_sort(list.begin(), list.end(),
                         [](const Request& x, const Request& y) { return x.address < y.address; });
        int64_t start = 0;
        int64_t length = 0;
        for (size_t i = 0; i < list.size(); ++i) {
            const Request& e = list[i];
            if (i == 0) {
                out.push_back(e);
                start = e.address;
                length = e.count;
                continue;
            }
            const int64_t groupEnd = start + length;
            const int64_t entryEnd = e.address + e.count;
            if (groupEnd > e.address && groupEnd >= entryEnd) continue;  // inside the group
            const int64_t merged = entryEnd - start;
            if (merged <= m) {
                out.back().count = merged;
                length = merged;
                if (!Fits32(merged)) *exact = false;
            } else {
                out.push_back(e);
                start = e.address;
                length = e.count;
            }
        }
    }
    return out;
}

// Caps a count so that it splits into at most kMaxPiecesPerItem pieces.
int32_t CappedCount(int64_t count, int maxCount) {
    if (maxCount == 0) return static_cast<int32_t>(count);
    const int64_t m = maxCount < 0 ? -static_cast<int64_t>(maxCount) : maxCount;
    // Bits may need one word more than count / 16; a word count needs no more.
    const int64_t limit = m * (kMaxPiecesPerItem - 2);
    return fuzz::Clamp(count, -limit, limit);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    ComInfo& info = fuzz::ResetDriver();
    info.maxCount = in.i16();
    const uint8_t flags = in.u8();
    info.multiStation = flags & 1;
    const bool noList = (flags >> 1) & 1;
    const bool nullEntries = (flags >> 2) & 1;
    info.remoteMode = (flags >> 3) & 1;
    info.defaultStation = in.u8();
    info.localLinkNo = in.u8();

    std::vector<std::unique_ptr<ReadVarItem>> owned;
    QList<ReadVarItem*> items;
    while (!in.empty() && static_cast<int>(owned.size()) < kMaxItems) {
        auto item = std::make_unique<ReadVarItem>();
        item->dataType = in.u8();
        item->count = CappedCount(in.i32(), info.maxCount);
        item->addrText = fuzz::Text(in.bytes(in.u8() % 24), true);
        item->addrText2 = QStringLiteral("item%1").arg(owned.size());
        items.append(item.get());
        if (nullEntries) items.append(nullptr);
        owned.push_back(std::move(item));
    }

    // A previous list is always replaced.
    RW_VAR stale;
    stale.dataType = ABCL_WORD_A;
    stale.count = 1;
    AddListReadVar(&stale);
    info.cycleDone = 1;

    const int length = ReCreatReadVarList(noList ? nullptr : &items);
    const QList<RW_VAR>& built = PLC_driver.readList;
    FUZZ_CHECK(length == built.size());
    if (noList || items.isEmpty() || info.multiStation != 0) {
        FUZZ_CHECK(length == 0);
        return 0;
    }
    FUZZ_CHECK(info.cycleDone == 0 && PLC_driver.cycleCount == 0);

    int previousType = ABCL_BIT_A;
    for (const RW_VAR& r : built) {
        FUZZ_CHECK(r.dataType >= previousType && r.dataType <= ABCL_REAL);
        previousType = r.dataType;
        FUZZ_CHECK(r.varId == 0 && r.varSubId == -1 && r.aux2 == 0 && r.aux12 == 0 && r.aux13 == 0);
        FUZZ_CHECK(r.aux3 == info.remoteMode && r.linkNo == info.localLinkNo);
        FUZZ_CHECK(r.station == info.defaultStation && r.data.isEmpty());
        // A request never exceeds maxCount (a negative count below it is one
        // piece of its own and may shrink a group, but never grows it past).
        if (info.maxCount > 0) FUZZ_CHECK(r.count <= info.maxCount);
        // The hardened build reads only what the local areas hold.
        if (kHardened)
            FUZZ_CHECK(r.count >= 1 && r.address >= 0 &&
                       int64_t{r.address} + r.count <= kAreaElements);
    }
    if (kHardened) FUZZ_CHECK(built.size() <= (ABCL_REAL + 1) * kAreaElements);

    // The model is the default build's list; the hardened one caps it.
    if (kHardened) return 0;
    bool exact = true;
    const std::vector<Request> expected = ModelRebuild(items, info.maxCount, &exact);
    if (!exact) return 0;
    FUZZ_CHECK(static_cast<size_t>(built.size()) == expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const RW_VAR& r = built.at(static_cast<int>(i));
        const Request& e = expected[i];
        FUZZ_CHECK(r.dataType == e.dataType && r.address == e.address && r.count == e.count);
        FUZZ_CHECK(r.addrText == e.addrText && r.addrText2 == e.addrText2);
    }
    return 0;
}
