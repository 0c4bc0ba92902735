// Address parsing, the cyclic read list, the write and one-shot queues, and the
// entry points that wire the driver to its host.
#include "Func_Initi.h"

#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <QtCore/QStringList>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

// A piece that does not convert as a decimal number counts as 0.
int64_t PieceValue(const QStringList& pieces, int index) {
    return index < pieces.size() ? pieces.at(index).toInt(nullptr, 10) : 0;
}

// Number of 16-bit words that hold `count` bits starting at bit `firstBit` of a word.
int64_t WordsHoldingBits(int firstBit, int64_t count) {
    const int64_t bits = firstBit + count;
    return bits / kBitsPerWord + ((bits & (kBitsPerWord - 1)) != 0 ? 1 : 0);
}

bool SameWrite(const RW_VAR& a, const RW_VAR& b) {
    return a.station == b.station && a.dataType == b.dataType && a.address == b.address &&
           a.count == b.count;
}

// Two one-shot reads of the same variable, wherever and however long.
bool SameOnceVariable(const RW_VAR& a, const RW_VAR& b) {
    return a.varId == b.varId && a.varSubId == b.varSubId && a.station == b.station &&
           a.dataType == b.dataType;
}

// Calls piece(address, count) for each request a variable of `total`
// elements is split into, at most maxCount elements each. The step is added
// to the already advanced start, so piece k begins at
// start + max * k * (k + 1) / 2. Hosts configured against this layout rely
// on it; it only shows for variables longer than twice max.
template <typename Piece>
void ForEachPiece(int total, int max, int32_t start, Piece piece) {
    const PieceSplit split = SplitIntoPieces(total, max);
    int32_t address = start;
    int64_t step = 0;
    for (int k = 0; k < split.pieces; ++k) {
        address = Wrap32(address + step);
        piece(address, (k == split.pieces - 1) ? split.lastCount : max);
        step += max;
    }
}

// One piece of a host variable on its way into the cyclic list: its place,
// its size and the variable it came from. Pieces are sorted by `order`: the
// address, then the order they were made in, which is a stable sort by
// address.
struct ListPiece {
    int64_t order;
    int32_t count;
    int32_t item;
};

int64_t PieceOrder(int32_t address, size_t made) {
    return static_cast<int64_t>(address) * (int64_t{1} << 32) + static_cast<int64_t>(made);
}

int32_t PieceAddress(const ListPiece& piece) {
    // The address is the order's high half, rounded towards minus infinity.
    return static_cast<int32_t>(piece.order >> 32);
}

// Appends the sorted pieces of one data type to the list, merging a piece
// into the previous request while the merged run stays within maxCount. The
// gap between two variables is read too: on a slow line one longer request
// is cheaper than two exchanges. A request is a copy of the template with the
// fields of the variable its first piece came from.
void MergeIntoReadList(const std::vector<ListPiece>& sorted, int maxCount, RW_VAR tmpl,
                       const QList<ReadVarItem*>& items, QList<RW_VAR>* list) {
    int64_t groupStart = 0;
    int64_t groupLength = 0;
    auto startRequest = [&](const ListPiece& piece) {
        const ReadVarItem& item = *items.at(piece.item);
        tmpl.addrText2 = item.addrText2;
        tmpl.addrText = item.addrText;
        tmpl.address = PieceAddress(piece);
        tmpl.count = piece.count;
        list->append(tmpl);
        groupStart = tmpl.address;
        groupLength = piece.count;
    };
    for (size_t i = 0; i < sorted.size(); ++i) {
        const ListPiece& piece = sorted[i];
        if (i == 0) {
            startRequest(piece);
            continue;
        }
        const int64_t address = PieceAddress(piece);
        const int64_t groupEnd = groupStart + groupLength;
        const int64_t pieceEnd = address + piece.count;
        if (groupEnd > address && groupEnd >= pieceEnd) continue;  // already covered
        const int64_t newLength = pieceEnd - groupStart;
        // The hardened build never lets a merged request run past the end of
        // the file it starts in: the controller would refuse all of it.
        const int64_t fileEnd = (groupStart / kElementsPerFile + 1) * kElementsPerFile;
        const bool crossesFile = kHardened && pieceEnd > fileEnd;
        if (newLength <= maxCount && !crossesFile) {
            list->last().count = Wrap32(newLength);
            groupLength = newLength;
        } else {
            startRequest(piece);
        }
    }
}

}  // namespace

// ---- wiring ------------------------------------------------------------------

int FlashLocalRegister(void* lb, void* lw, void* rwi) {
    LB = lb;
    LW = lw;
    RWI = rwi;
    return 396;
}

void SetComInfo(ComInfo* info) {
    if (info) info->startFlagB = 0;
    PLC_driver.comInfo = info;
    if (info) info->startFlagA = 0;
}

void RegistCallBackFuncIntf(CallBackFunc callBack, int context) {
    PLC_driver.callBack = callBack;
    PLC_driver.callBackCtx = context;
}

// ---- addresses -----------------------------------------------------------------

// The reference reading of an address text: split at ':' and '/', each piece
// converted as QString::toInt reads a decimal number. Texts outside the plain
// form that StringAddressToInt reads itself (white space, other characters)
// come here, so every text reads exactly as it always has.
int StringAddressToIntBySplitting(int dataType, const QString& text) {
    if (IsBitType(dataType)) {
        if (!text.contains(QLatin1Char(':'))) return -1;
        if (!text.contains(QLatin1Char('/'))) return -1;
        const QStringList pieces = text.split(QLatin1Char(':'));
        const QStringList elementAndBit = pieces.value(1).split(QLatin1Char('/'));
        const int64_t file = PieceValue(pieces, 0);
        const int64_t element = PieceValue(elementAndBit, 0);
        // A "/" outside the element piece (7/1:3) leaves no bit piece: bit 0.
        const int64_t bit = PieceValue(elementAndBit, 1);
        return Wrap32(bit + (element + file * kElementsPerFile) * kBitsPerWord);
    }
    if (dataType >= ABCL_WORD_A && dataType <= ABCL_REAL) {
        if (!text.contains(QLatin1Char(':'))) return -1;
        const QStringList pieces = text.split(QLatin1Char(':'));
        return Wrap32(PieceValue(pieces, 1) + PieceValue(pieces, 0) * kElementsPerFile);
    }
    return text.toInt(nullptr, 10);
}

namespace {

// A stretch of an address text between separators.
struct TextPiece {
    const QChar* begin;
    const QChar* end;
};

const QChar* Find(const QChar* from, const QChar* end, char c) {
    while (from != end && from->unicode() != static_cast<ushort>(c)) ++from;
    return from;
}

// Digits, signs and the two separators: the form screens use ("7:10/3", "-1:5").
bool IsPlainAddressText(const QChar* p, const QChar* end) {
    for (; p != end; ++p) {
        const ushort c = p->unicode();
        const bool digit = c >= '0' && c <= '9';
        if (!digit && c != ':' && c != '/' && c != '+' && c != '-') return false;
    }
    return true;
}

// What QString::toInt(nullptr, 10) gives for a piece of plain text: an
// optional sign and at least one digit, within the range of int; anything
// else does not convert and counts as 0.
int64_t PlainPieceValue(TextPiece piece) {
    const QChar* p = piece.begin;
    if (p == piece.end) return 0;
    const bool negative = p->unicode() == '-';
    if (negative || p->unicode() == '+') ++p;
    if (p == piece.end) return 0;
    constexpr int64_t kLargestMagnitude = int64_t{INT32_MAX} + 1;
    int64_t magnitude = 0;
    for (; p != piece.end; ++p) {
        const ushort c = p->unicode();
        if (c < '0' || c > '9') return 0;
        magnitude = magnitude * 10 + (c - '0');
        if (magnitude > kLargestMagnitude) return 0;
    }
    if (negative) return -magnitude;
    return magnitude > INT32_MAX ? 0 : magnitude;
}

// The piece after the first ':' up to the next ':' (further pieces are
// ignored), or an empty piece at the end when there is no ':'.
TextPiece SecondPiece(const QChar* colon, const QChar* end) {
    if (colon == end) return {end, end};
    return {colon + 1, Find(colon + 1, end, ':')};
}

}  // namespace

// Reads the text once, character by character; only texts outside the plain
// form take the splitting reading, which allocates for every piece.
int StringAddressToInt(int dataType, QString text) {
    const QChar* begin = text.constData();
    const QChar* end = begin + text.size();
    if (!IsPlainAddressText(begin, end)) return StringAddressToIntBySplitting(dataType, text);

    const QChar* colon = Find(begin, end, ':');
    const int64_t file = PlainPieceValue({begin, colon});
    if (IsBitType(dataType)) {
        if (colon == end || Find(begin, end, '/') == end) return -1;
        const TextPiece elementAndBit = SecondPiece(colon, end);
        const QChar* slash = Find(elementAndBit.begin, elementAndBit.end, '/');
        const int64_t element = PlainPieceValue({elementAndBit.begin, slash});
        const int64_t bit =
            slash == elementAndBit.end
                ? 0
                : PlainPieceValue({slash + 1, Find(slash + 1, elementAndBit.end, '/')});
        return Wrap32(bit + (element + file * kElementsPerFile) * kBitsPerWord);
    }
    if (dataType >= ABCL_WORD_A && dataType <= ABCL_REAL) {
        if (colon == end) return -1;
        return Wrap32(PlainPieceValue(SecondPiece(colon, end)) + file * kElementsPerFile);
    }
    return static_cast<int>(PlainPieceValue({begin, end}));
}

int PLCAddressChangeIntef(int dataType, QString text) {
    return AtTheBoundary(-1, [dataType, &text] { return StringAddressToInt(dataType, text); });
}

// ---- cyclic read list -------------------------------------------------------------

PieceSplit SplitIntoPieces(int total, int maxCount) {
    const int64_t quotient = maxCount == 0 ? 0 : static_cast<int64_t>(total) / maxCount;
    const int64_t remainder = total - static_cast<int64_t>(maxCount) * quotient;
    const int64_t pieces = remainder != 0 ? quotient + 1 : quotient;
    if (pieces <= 0) return {0, 0};
    if (pieces > kMaxPieces) return {kMaxPieces, maxCount};  // the cut-off tail held the remainder
    return {static_cast<int>(pieces), remainder != 0 ? Wrap32(remainder) : maxCount};
}

void WhetherGroup(int total, int max, RW_VAR* var, QList<RW_VAR>* list) {
    if (!var || !list) return;
    ForEachPiece(total, max, var->address, [var, list](int32_t address, int32_t count) {
        var->address = address;
        var->count = count;
        list->append(*var);
    });
}

// Ascending by address; entries with equal addresses keep their order, exactly
// as repeated adjacent swaps would leave them.
void Bubble_Sort(QList<RW_VAR>* list) {
    if (!list || list->size() <= 1) return;
    std::stable_sort(list->begin(), list->end(),
                     [](const RW_VAR& a, const RW_VAR& b) { return a.address < b.address; });
}

int AddListReadVar(RW_VAR* var) {
    return AtTheBoundary(0, [var] {
        if (var) PLC_driver.readList.append(*var);
        return PLC_driver.readList.size();
    });
}

namespace {

// The cyclic list the items make, built without touching the driver's lists.
QList<RW_VAR> BuildCyclicList(const QList<ReadVarItem*>& items, const ComInfo& s) {
    constexpr int kTypes = ABCL_REAL + 1;
    std::vector<ListPiece> perType[kTypes];
    RW_VAR tmpl;
    tmpl.varId = 0;
    tmpl.varSubId = -1;
    tmpl.aux2 = 0;
    tmpl.aux3 = s.remoteMode;
    tmpl.linkNo = s.localLinkNo;
    tmpl.result = 0;
    tmpl.aux12 = 0;
    tmpl.aux13 = 0;
    tmpl.station = s.defaultStation;

    for (int i = 0; i < items.size(); ++i) {
        const ReadVarItem* item = items.at(i);
        if (!item || item->dataType > ABCL_REAL) continue;
        const int a = StringAddressToInt(item->dataType, item->addrText);
        if (a < 0) continue;
        int32_t address = a;
        int32_t count = item->count;
        if (IsBitType(item->dataType)) {
            // The cyclic list reads the whole words that hold the bits.
            address = a >> 4;
            count = Wrap32(WordsHoldingBits(a & 15, item->count));
        }
        // The hardened build reads only what the local areas can hold, and
        // never lists more pieces of a type than an area has elements.
        if (kHardened && !CapToArea(address, &count)) continue;
        std::vector<ListPiece>& pieces = perType[item->dataType];
        if (kHardened && pieces.size() >= static_cast<size_t>(kAreaElements)) continue;
        ForEachPiece(count, s.maxCount, address, [&pieces, i](int32_t at, int32_t n) {
            // The split's growing step can carry a piece past the area's end
            // even when the variable fits: the hardened build cuts it there.
            if (kHardened && !CapToArea(at, &n)) return;
            pieces.push_back({PieceOrder(at, pieces.size()), n, i});
        });
    }

    QList<RW_VAR> list;
    for (int type = 0; type < kTypes; ++type) {
        std::vector<ListPiece>& pieces = perType[type];
        std::sort(pieces.begin(), pieces.end(),
                  [](const ListPiece& x, const ListPiece& y) { return x.order < y.order; });
        tmpl.dataType = type;
        MergeIntoReadList(pieces, s.maxCount, tmpl, items, &list);
    }
    return list;
}

// The new list is built before listMutex is taken and swapped in under it,
// so the communication thread waits for the swap only, however many
// variables there are; the old list is freed after the lock is released.
int RebuildCyclicList(QList<ReadVarItem*>* items) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    ComInfo& s = settings();
    const bool building = items && !items->isEmpty() && s.multiStation == 0;
    QList<RW_VAR> list = building ? BuildCyclicList(*items, s) : QList<RW_VAR>();
    DriverLock lock(&d.listMutex);
    d.readList.swap(list);
    if (!items || items->isEmpty()) return 0;
    d.cycleCount = 0;
    s.cycleDone = 0;
    return d.readList.size();
}

}  // namespace

int ReCreatReadVarList(QList<ReadVarItem*>* items) {
    return AtTheBoundary(0, [items] { return RebuildCyclicList(items); });
}

// ---- write queue and one-shot reads -------------------------------------------------

namespace {

// Queues one write in mode 0, with listMutex held. Entry 0 may be on the
// wire; a newer value of a pending write replaces it, so a burst of values
// leaves at most the one on the wire and the newest.
void AppendOrReplaceWrite(QList<RW_VAR>* list, const RW_VAR& var) {
    if (list->size() <= 1) {
        list->append(var);
        return;
    }
    for (int i = 1; i < list->size(); ++i) {
        if (SameWrite(list->at(i), var)) {
            (*list)[i] = var;
            return;
        }
    }
    if (list->size() < kQueueLimit) list->append(var);
}

}  // namespace

int QueueWriteRequest(RW_VAR* var, int mode) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.listMutex);
    if (!var) return d.writeList.size();
    if (mode == 1)
        d.writeList.append(*var);
    else
        AppendOrReplaceWrite(&d.writeList, *var);
    return d.writeList.size();
}

int QueueWritesWhileRoom(const std::vector<RW_VAR>& writes, size_t* taken) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    *taken = 0;
    if (writes.empty()) {
        DriverLock lock(&d.listMutex);
        return d.writeList.size();
    }
    const RW_VAR& head = writes.front();
    // The first entry after the one on the wire for each place and size of
    // the writes' station and type: the entry a write there would replace.
    // Looked up instead of scanning the queue for every write, which would
    // cost up to a million comparisons under the lock.
    PlaceKeyMap<int> firstAt;
    firstAt.reserve(static_cast<size_t>(kQueueLimit));
    DriverLock lock(&d.listMutex);
    QList<RW_VAR>& list = d.writeList;
    for (int j = 1; j < list.size(); ++j) {
        const RW_VAR& e = list.at(j);
        if (e.station == head.station && e.dataType == head.dataType)
            firstAt.emplace(PlaceKey(e.address, e.count), j);
    }
    size_t i = 0;
    for (; i < writes.size(); ++i) {
        if (i > 0 && list.size() >= kQueueLimit) break;
        const RW_VAR& w = writes[i];
        if (list.size() > 1) {
            const auto found = firstAt.find(PlaceKey(w.address, w.count));
            if (found != firstAt.end()) {
                list[found->second] = w;
                continue;
            }
            if (list.size() >= kQueueLimit) continue;
        }
        list.append(w);
        if (list.size() > 1) firstAt.emplace(PlaceKey(w.address, w.count), list.size() - 1);
    }
    *taken = i;
    return list.size();
}

int ReplaceQueuedWritesIfFull(const RW_VAR& write,
                              const std::function<bool(const RW_VAR&, RW_VAR*)>& replacement) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.listMutex);
    if (d.writeList.size() < kQueueLimit) return -1;
    // Of several queued writes with the same place and size, only the first
    // after the one on the wire is replaced, as a write queued on its own
    // would replace it.
    PlaceKeySet replaced;
    for (int j = 1; j < d.writeList.size(); ++j) {
        const RW_VAR& e = d.writeList.at(j);
        if (e.station != write.station || e.dataType != write.dataType) continue;
        const uint64_t key = PlaceKey(e.address, e.count);
        if (replaced.count(key)) continue;
        RW_VAR value = write;
        if (!replacement(e, &value)) continue;
        replaced.insert(key);
        d.writeList[j] = value;
    }
    return d.writeList.size();
}

int AddListWriteVar(RW_VAR* var, int mode) {
    return AtTheBoundary(0, [var, mode] { return QueueWriteRequest(var, mode); });
}

namespace {

// One piece of a one-shot read: its place and size.
struct OncePiece {
    int32_t address;
    int32_t count;
};

// The pieces a one-shot read of `count` elements from `start` is split into,
// at most maxCount elements each (the address steps by maxCount x unit), the
// last piece always last. A piece equal to an earlier one is left out: it
// could never be queued, since the earlier one either was, or was kept out
// for a reason that holds for it too. Made before listMutex is taken.
std::vector<OncePiece> DistinctOncePieces(int32_t start, int32_t count, int maxCount, int unit) {
    const PieceSplit split = SplitIntoPieces(count, maxCount);
    std::vector<OncePiece> pieces;
    if (split.pieces <= 0) return pieces;
    pieces.reserve(static_cast<size_t>(split.pieces));
    PlaceKeySet seen;
    for (int k = 0; k < split.pieces; ++k) {
        const int64_t step = static_cast<int64_t>(k) * maxCount * unit;
        const OncePiece piece{Wrap32(start + step),
                              (k == split.pieces - 1) ? split.lastCount : maxCount};
        if (split.pieces == 1 || seen.insert(PlaceKey(piece.address, piece.count)).second)
            pieces.push_back(piece);
    }
    // The record ends with the last piece's place even when an equal piece
    // came earlier.
    const int last = split.pieces - 1;
    const OncePiece lastPiece{Wrap32(start + static_cast<int64_t>(last) * maxCount * unit),
                              split.lastCount};
    if (pieces.back().address != lastPiece.address || pieces.back().count != lastPiece.count)
        pieces.push_back(lastPiece);
    return pieces;
}

// Queues the pieces that are not queued yet while the queue has room; a
// full queue takes nothing more, so the rest is not looked at. Queued pieces
// are found through a set of the queue's entries for this variable, so each
// piece costs the same however long the queue is. listMutex is held.
void QueueOncePieces(const std::vector<OncePiece>& pieces, const RW_VAR& var) {
    QList<RW_VAR>& queue = PLC_driver.onceReadList;
    PlaceKeySet queued;
    for (const RW_VAR& e : queue)
        if (SameOnceVariable(e, var)) queued.insert(PlaceKey(e.address, e.count));
    RW_VAR entry = var;
    for (const OncePiece& piece : pieces) {
        entry.address = piece.address;
        entry.count = piece.count;
        if (queue.isEmpty()) {
            queue.append(entry);
            queued.insert(PlaceKey(piece.address, piece.count));
            continue;
        }
        if (queue.size() >= kQueueLimit) break;
        if (queued.insert(PlaceKey(piece.address, piece.count)).second) queue.append(entry);
    }
}

int QueueOnceRead(RW_VAR* var, int mode) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    if (!var) return 0;
    if (mode == 1) {
        DriverLock lock(&d.listMutex);
        d.onceReadList.append(*var);
        return d.onceReadList.size();
    }
    const int a = StringAddressToInt(var->dataType, var->addrText);
    if (a < 0) return 0;

    const ComInfo& s = settings();
    var->aux12 = 0;
    var->aux13 = 0;
    if (s.multiStation == 0) var->station = s.defaultStation;

    const bool bits = IsBitType(var->dataType);
    if (var->dataType >= ABCL_WORD_A && var->dataType <= ABCL_REAL) {
        var->address = a;
    } else if (bits) {
        // Kept in bit units (a multiple of 16), unlike the cyclic list.
        var->address = a & ~15;
        var->count = Wrap32(WordsHoldingBits(a & 15, var->count));
    }
    // The hardened build queues only what the local areas can hold.
    if (kHardened && !CapToArea(bits ? var->address >> 4 : var->address, &var->count)) return 0;
    const std::vector<OncePiece> pieces =
        DistinctOncePieces(var->address, var->count, s.maxCount, bits ? kBitsPerWord : 1);
    if (!pieces.empty()) {
        // The record keeps the last piece's place, as if every piece had
        // been written into it in turn.
        var->address = pieces.back().address;
        var->count = pieces.back().count;
    }

    DriverLock lock(&d.listMutex);
    QueueOncePieces(pieces, *var);
    return d.onceReadList.size();
}

}  // namespace

int AddListOnceReadVar(RW_VAR* var, int mode) {
    return AtTheBoundary(0, [var, mode] { return QueueOnceRead(var, mode); });
}
