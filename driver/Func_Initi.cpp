// Address parsing, the cyclic read list, the write and one-shot queues, and the
// entry points that wire the driver to its host.
#include "Func_Initi.h"

#include "ab_controllogix_compactlogix_p.h"
#include "protocol_constants.h"

#include <QtCore/QStringList>

#include <algorithm>

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

bool SameOnceRead(const RW_VAR& a, const RW_VAR& b) {
    return a.varId == b.varId && a.varSubId == b.varSubId && a.station == b.station &&
           a.dataType == b.dataType && a.address == b.address && a.count == b.count;
}

// Appends the sorted requests of one data type to readList, merging a request
// into the previous one while the merged run stays within maxCount. The gap
// between two variables is read too: on a slow line one longer request is
// cheaper than two exchanges.
void MergeIntoReadList(const QList<RW_VAR>& sorted, int maxCount) {
    int64_t groupStart = 0;
    int64_t groupLength = 0;
    for (int i = 0; i < sorted.size(); ++i) {
        const RW_VAR& e = sorted.at(i);
        if (i == 0) {
            RW_VAR copy = e;
            AddListReadVar(&copy);
            groupStart = e.address;
            groupLength = e.count;
            continue;
        }
        const int64_t groupEnd = groupStart + groupLength;
        const int64_t entryEnd = static_cast<int64_t>(e.address) + e.count;
        if (groupEnd > e.address && groupEnd >= entryEnd) continue;  // already covered
        const int64_t newLength = entryEnd - groupStart;
        if (newLength <= maxCount) {
            PLC_driver.readList.last().count = Wrap32(newLength);
            groupLength = newLength;
        } else {
            RW_VAR copy = e;
            AddListReadVar(&copy);
            groupStart = e.address;
            groupLength = e.count;
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

int StringAddressToInt(int dataType, QString text) {
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

int PLCAddressChangeIntef(int dataType, QString text) {
    return StringAddressToInt(dataType, text);
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
    const PieceSplit split = SplitIntoPieces(total, max);
    // The step is added to the already advanced start, so piece k begins at
    // start + max * k * (k + 1) / 2. Hosts configured against this layout rely
    // on it; it only shows for variables longer than twice max.
    int64_t step = 0;
    for (int k = 0; k < split.pieces; ++k) {
        var->address = Wrap32(var->address + step);
        var->count = (k == split.pieces - 1) ? split.lastCount : max;
        list->append(*var);
        step += max;
    }
}

// Ascending by address; entries with equal addresses keep their order, exactly
// as repeated adjacent swaps would leave them.
void Bubble_Sort(QList<RW_VAR>* list) {
    if (!list || list->size() <= 1) return;
    std::stable_sort(list->begin(), list->end(),
                     [](const RW_VAR& a, const RW_VAR& b) { return a.address < b.address; });
}

int AddListReadVar(RW_VAR* var) {
    if (var) PLC_driver.readList.append(*var);
    return PLC_driver.readList.size();
}

int ReCreatReadVarList(QList<ReadVarItem*>* items) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.listMutex);
    d.readList.clear();
    if (!items || items->isEmpty()) return 0;

    constexpr int kTypes = ABCL_REAL + 1;
    QList<RW_VAR> perType[kTypes];
    ComInfo& s = settings();
    RW_VAR tmpl;
    tmpl.varId = 0;
    tmpl.varSubId = -1;
    tmpl.aux2 = 0;
    tmpl.aux3 = s.remoteMode;
    tmpl.linkNo = s.localLinkNo;
    tmpl.result = 0;
    tmpl.aux12 = 0;
    tmpl.aux13 = 0;
    d.cycleCount = 0;
    s.cycleDone = 0;
    if (s.multiStation != 0) return 0;

    for (const ReadVarItem* item : *items) {
        if (!item) continue;
        const int a = StringAddressToInt(item->dataType, item->addrText);
        if (a < 0) continue;
        tmpl.station = s.defaultStation;
        tmpl.addrText2 = item->addrText2;
        tmpl.addrText = item->addrText;
        tmpl.address = a;
        tmpl.count = item->count;
        tmpl.dataType = item->dataType;
        if (item->dataType > ABCL_REAL) continue;
        if (IsBitType(item->dataType)) {
            // The cyclic list reads the whole words that hold the bits.
            tmpl.address = a >> 4;
            tmpl.count = Wrap32(WordsHoldingBits(a & 15, item->count));
        }
        WhetherGroup(tmpl.count, s.maxCount, &tmpl, &perType[item->dataType]);
    }

    for (QList<RW_VAR>& list : perType) {
        Bubble_Sort(&list);
        MergeIntoReadList(list, s.maxCount);
    }
    return d.readList.size();
}

// ---- write queue and one-shot reads -------------------------------------------------

int AddListWriteVar(RW_VAR* var, int mode) {
    AB_ControlLogix_CompactLogix& d = PLC_driver;
    DriverLock lock(&d.listMutex);
    if (!var) return d.writeList.size();
    if (mode == 1 || d.writeList.size() <= 1) {
        d.writeList.append(*var);
        return d.writeList.size();
    }
    // Entry 0 may be on the wire; a newer value of a pending write replaces it,
    // so a burst of values leaves at most the one on the wire and the newest.
    for (int i = 1; i < d.writeList.size(); ++i) {
        if (SameWrite(d.writeList.at(i), *var)) {
            d.writeList[i] = *var;
            return d.writeList.size();
        }
    }
    if (d.writeList.size() < kQueueLimit) d.writeList.append(*var);
    return d.writeList.size();
}

int AddListOnceReadVar(RW_VAR* var, int mode) {
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
    const int64_t start = var->address;
    const int maxCount = s.maxCount;
    const PieceSplit split = SplitIntoPieces(var->count, maxCount);

    DriverLock lock(&d.listMutex);
    for (int k = 0; k < split.pieces; ++k) {
        const int64_t step = static_cast<int64_t>(k) * maxCount * (bits ? kBitsPerWord : 1);
        var->address = Wrap32(start + step);
        var->count = (k == split.pieces - 1) ? split.lastCount : maxCount;
        if (d.onceReadList.isEmpty()) {
            d.onceReadList.append(*var);
            continue;
        }
        const bool queued = std::any_of(d.onceReadList.cbegin(), d.onceReadList.cend(),
                                        [var](const RW_VAR& e) { return SameOnceRead(e, *var); });
        if (!queued && d.onceReadList.size() < kQueueLimit) d.onceReadList.append(*var);
    }
    return d.onceReadList.size();
}
