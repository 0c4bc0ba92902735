// The default and the hardened plug-in agree on a clean line.
//
// The hardened plug-in differs from the default one only where a reply does
// not answer its request or the host hands in something no sound frame can
// be built from. On a clean line, with sound host input, a host must not be
// able to tell the two apart. This program loads both libraries into one
// process, each with its own settings record, callback, host areas and
// in-process controller, and drives both through the same seeded sequence
// of host calls:
//
//   - start-up: FlashLocalRegister, SetComInfo, RegistCallBackFuncIntf;
//   - cyclic lists rebuilt with ReCreatReadVarList;
//   - writes of bits, words and REALs with SetRegisterData (write mode 2);
//   - one-shot reads with AddListOnceReadVar;
//   - reads of the local image with GetRegisterData;
//   - address conversions and QueryFinishFlag;
//   - exchanges: ComCommunication, the controller answers the frame at
//     once, DataCom takes the reply.
//
// Each side keeps a log of everything the host can see: every frame with
// its record, every reply, DataCom's record, every callback, every entry
// point's result and output, the settings record after each call, the
// image where each read stored its values, a digest of the whole image
// every few hundred steps, and at the end the whole image itself. The two
// logs must be equal entry for entry; the first difference is printed with
// the step and the entries around it.
//
// Clean means: only the controller's own data files and element ranges
// inside them, counts of at least 1, data types the plug-in supports, and
// controller memory that changes only through the plug-ins' writes (so a
// length-learning exchange and the exchange after it see the same data).
// Both controllers start from the same seeded values, DLE among them, so
// the first reads already carry data.
//
// The run checks it was clean (every reply a success, every result good)
// and that it did something: frames went out, values written came back
// through reads, one-shot reads called back, and after a final pass the
// image holds what the controller holds.
//
// Both plug-ins draw their first transaction number from Qt's qrand() when
// they are loaded. The default plug-in reads a first reply whose
// transaction number is DLE one byte off (kept on purpose), so this program
// defines qrand() itself and exports it (see CMakeLists.txt): each run
// picks a first transaction number other than DLE, the same for both, and
// the first frame of each plug-in is checked to carry it. The plug-ins are
// loaded afresh for every run, which draws the number again.
//
// A direct-mode variant (DF1 and CIP) and a remote-mode variant (the remote
// link's frames; the host zeroes replyDone before each exchange) run over
// their own lists of seeds.
#include "../hex_text.h"
#include "../linked_controller.h"
#include "ab_controllogix_compactlogix.h"
#include "peer/controller.h"
#include "peer/df1.h"
#include "peer/host_loop.h"
#include "peer/tag_memory.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

// ---- the first transaction number ------------------------------------------------

namespace {
// What qrand() gives while the plug-ins load.
int g_qrandValue = 1;
}  // namespace

// Takes the place of Qt's qrand() in the plug-ins: the program exports it,
// and a definition in the program comes before the one in Qt's library.
int qrand() {
    return g_qrandValue;
}

namespace {

constexpr int kDle = 0x10;
constexpr int kDirectSeeds = 20;
constexpr int kRemoteSeeds = 8;
constexpr int kSteps = 3000;
// Steps between two digests of the whole image.
constexpr int kImageEvery = 250;
// Turns the final settling may take before the run counts as stuck.
constexpr int kSettleLimit = 20000;

constexpr int kDefaultContext = 101;
constexpr int kHardenedContext = 202;

// Elements of one data file as the plug-in addresses them: file x 256 +
// element, so no file is used past its 256th element.
constexpr int kElementsPerFile = 256;
constexpr int kAreaElements = 65536;

std::string Text(const QString& s) {
    return s.toStdString();
}

// ---- the controller's files ------------------------------------------------------

struct FileInfo {
    char letter;
    int number;
    int elements;
};

// The letter of the files a data type lives in.
char LetterOf(int dataType) {
    switch (dataType) {
        case ABCL_BIT_A:
        case ABCL_WORD_A: return 'B';
        case ABCL_BIT_B:
        case ABCL_WORD_B: return 'N';
        default: return 'F';
    }
}

bool IsBit(int dataType) {
    return dataType == ABCL_BIT_A || dataType == ABCL_BIT_B;
}

std::vector<FileInfo> FilesOf(char letter) {
    std::vector<FileInfo> files;
    for (const peer::DataFile& f : peer::TagMemory::DefaultLayout()) {
        if (f.letter != letter) continue;
        files.push_back({f.letter, f.number,
                         static_cast<int>(std::min<std::size_t>(f.elements, kElementsPerFile))});
    }
    return files;
}

// ---- the seeded generator ----------------------------------------------------------

class Draw {
public:
    explicit Draw(uint32_t seed) : g_(seed) {}
    int Int(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(g_); }
    bool Chance(int percent) { return Int(0, 99) < percent; }
    template <typename T>
    const T& Pick(const std::vector<T>& v) {
        return v.at(static_cast<std::size_t>(Int(0, static_cast<int>(v.size()) - 1)));
    }
    // Value bytes with DLE and zero often among them, so doubling is exercised.
    uint8_t Byte() {
        const int r = Int(0, 99);
        if (r < 20) return kDle;
        if (r < 30) return 0;
        return static_cast<uint8_t>(Int(1, 255));
    }

private:
    std::mt19937 g_;
};

enum class Kind { kTurns, kWrite, kOnceRead, kGet, kRebuild, kAddress, kFinishFlag };

// One host call (or a few turns of the loop), made the same way on both sides.
struct Action {
    Kind kind = Kind::kTurns;
    int turns = 0;
    int dataType = 0;
    int count = 0;
    int station = 0;
    int varId = 0;
    int varSubId = 0;
    int unused1 = 0;
    int unused2 = 0;
    int prefill = 0;
    QString addr;
    QString addr2;
    QByteArray data;
    RW_VAR once;
    std::vector<ReadVarItem> items;
};

// Settings of one run, the same for both plug-ins but the host context.
struct RunSettings {
    bool remote = false;
    int maxCount = 32;
    int defaultStation = 1;
    int retryLimit = 2;
    int localLinkNo = 0;
    int firstTns = 1;
    int32_t reserved[5] = {};
};

class Generator {
public:
    Generator(uint32_t seed, const RunSettings& run) : draw_(seed), run_(run) {}

    Action Next() {
        const int r = draw_.Int(0, 99);
        if (r < 52) return Turns();
        if (r < 66) return Write();
        if (r < 74) return OnceRead();
        if (r < 91) return Get();
        if (r < 93) return Rebuild(false);
        if (r < 98) return Address();
        Action a;
        a.kind = Kind::kFinishFlag;
        return a;
    }

    Action Turns() {
        Action a;
        a.kind = Kind::kTurns;
        a.turns = draw_.Int(1, 6);
        return a;
    }

    // A cyclic list; `start` makes one that is never empty.
    Action Rebuild(bool start) {
        Action a;
        a.kind = Kind::kRebuild;
        const int n = start ? draw_.Int(3, 8) : (draw_.Chance(5) ? 0 : draw_.Int(1, 8));
        for (int i = 0; i < n; ++i) a.items.push_back(CyclicItem());
        return a;
    }

private:
    int Type() { return draw_.Int(ABCL_BIT_A, ABCL_REAL); }
    const FileInfo& File(int dataType) {
        const std::vector<FileInfo>& files = filesByLetter(LetterOf(dataType));
        return draw_.Pick(files);
    }
    const std::vector<FileInfo>& filesByLetter(char letter) {
        if (letter == 'B') return b_;
        if (letter == 'N') return n_;
        return f_;
    }
    static QString WordText(int file, int element) {
        return QStringLiteral("%1:%2").arg(file).arg(element);
    }
    static QString BitText(int file, int element, int bit) {
        return QStringLiteral("%1:%2/%3").arg(file).arg(element).arg(bit);
    }
    QString Addr2() {
        return draw_.Chance(70) ? QString() : QStringLiteral("S%1").arg(draw_.Int(0, 99));
    }
    int LongCount() { return draw_.Int(1, 2 * run_.maxCount); }

    // A run of `count` elements that lies inside a file of `elements`.
    int StartFor(int elements, int count) { return draw_.Int(0, std::max(0, elements - count)); }

    ReadVarItem CyclicItem() {
        ReadVarItem item;
        const int type = Type();
        const FileInfo& file = File(type);
        item.dataType = static_cast<uint8_t>(type);
        item.hostByte0 = static_cast<uint8_t>(draw_.Int(0, 255));
        item.addrText2 = Addr2();
        if (IsBit(type)) {
            // The words holding the bits stay inside the file.
            const int bits = draw_.Int(1, 16 * run_.maxCount);
            const int bit = draw_.Int(0, 15);
            const int words = (bit + bits + 15) / 16;
            const int element = StartFor(file.elements, words);
            item.addrText = BitText(file.number, element, bit);
            item.count = bits;
            return item;
        }
        // Variables longer than maxCount are split into pieces, all inside
        // the variable while it is at most twice maxCount long. The pieces
        // of different variables are merged across the gap between them,
        // also across the end of a file into the next file of the same
        // kind: a REAL variable near the end of one F file and one at the
        // start of the next would make a request that runs past the first
        // file's end. Variables in a file followed by another of its kind
        // therefore end maxCount elements before its end.
        const int count = LongCount();
        int room = file.elements;
        if (type == ABCL_REAL && HasNextFile(file)) room -= run_.maxCount;
        const int element = StartFor(room, count);
        item.addrText = WordText(file.number, element);
        item.count = count;
        return item;
    }

    bool HasNextFile(const FileInfo& file) {
        for (const FileInfo& f : filesByLetter(file.letter))
            if (f.number == file.number + 1) return true;
        return false;
    }

    Action Write() {
        Action a;
        a.kind = Kind::kWrite;
        a.dataType = Type();
        const FileInfo& file = File(a.dataType);
        a.addr2 = Addr2();
        a.station = draw_.Int(0, 40);
        a.varId = draw_.Int(0, 15);
        a.varSubId = draw_.Int(0, 1000);
        if (IsBit(a.dataType)) {
            // Every bit is its own request.
            a.count = draw_.Int(1, 6);
            const int bit = draw_.Int(0, 15);
            const int words = (bit + a.count + 15) / 16;
            a.addr = BitText(file.number, StartFor(file.elements, words), bit);
            for (int i = 0; i < a.count; ++i) {
                const int r = draw_.Int(0, 99);
                a.data.append(static_cast<char>(r < 48 ? 0 : (r < 96 ? 1 : 2)));
            }
        } else if (a.dataType == ABCL_REAL) {
            // Counted in 16-bit units, two per value, one piece. The remote
            // partner writes whole values only: even counts there.
            a.count =
                run_.remote ? 2 * draw_.Int(1, run_.maxCount / 2) : draw_.Int(1, run_.maxCount);
            const int values = std::max(1, a.count / 2);
            a.addr = WordText(file.number, StartFor(file.elements, values));
            for (int i = 0; i < 4 * values; ++i) a.data.append(static_cast<char>(draw_.Byte()));
        } else {
            a.count = LongCount();
            a.addr = WordText(file.number, StartFor(file.elements, a.count));
            for (int i = 0; i < 2 * a.count; ++i) a.data.append(static_cast<char>(draw_.Byte()));
        }
        return a;
    }

    Action OnceRead() {
        Action a;
        a.kind = Kind::kOnceRead;
        RW_VAR& v = a.once;
        v.dataType = Type();
        const FileInfo& file = File(v.dataType);
        v.varId = draw_.Int(0, 15);
        // Never -1, which the cyclic list's entries carry.
        v.varSubId = draw_.Int(0, 20);
        // Mostly the local link; a read of another link stores nothing.
        v.linkNo = draw_.Chance(90) ? run_.localLinkNo : run_.localLinkNo + draw_.Int(1, 3);
        // Mostly a read that carries data; 1: the reply only confirms. The
        // remote frame carries aux2, and its partner takes 1 for a write.
        v.aux2 = run_.remote || draw_.Chance(95) ? 0 : 1;
        v.aux3 = draw_.Int(0, 9);
        v.aux12 = draw_.Int(0, 9);
        v.aux13 = draw_.Int(0, 9);
        v.station = draw_.Int(0, 40);
        v.addrText2 = Addr2();
        if (IsBit(v.dataType)) {
            const int bits = draw_.Int(1, 16 * run_.maxCount);
            const int bit = draw_.Int(0, 15);
            const int words = (bit + bits + 15) / 16;
            v.addrText = BitText(file.number, StartFor(file.elements, words), bit);
            v.count = bits;
        } else {
            v.count = LongCount();
            v.addrText = WordText(file.number, StartFor(file.elements, v.count));
        }
        return a;
    }

    Action Get() {
        Action a;
        a.kind = Kind::kGet;
        a.dataType = Type();
        const FileInfo& file = File(a.dataType);
        // Mostly the controller's files; sometimes any file of the image.
        const int number = draw_.Chance(90) ? file.number : draw_.Int(0, 200);
        const int element = draw_.Int(0, kElementsPerFile - 1);
        a.addr = IsBit(a.dataType) ? BitText(number, element, draw_.Int(0, 15))
                                   : WordText(number, element);
        a.count = draw_.Int(0, IsBit(a.dataType) ? 80 : 2 * run_.maxCount + 8);
        a.unused1 = draw_.Int(0, 9);
        a.unused2 = draw_.Int(0, 9);
        a.prefill = draw_.Chance(80) ? 0 : draw_.Int(1, 40);
        return a;
    }

    Action Address() {
        Action a;
        a.kind = Kind::kAddress;
        a.dataType = Type();
        const FileInfo& file = File(a.dataType);
        const int element = draw_.Int(0, file.elements - 1);
        a.addr = IsBit(a.dataType) ? BitText(file.number, element, draw_.Int(0, 15))
                                   : WordText(file.number, element);
        return a;
    }

    Draw draw_;
    RunSettings run_;
    std::vector<FileInfo> b_ = FilesOf('B');
    std::vector<FileInfo> n_ = FilesOf('N');
    std::vector<FileInfo> f_ = FilesOf('F');
};

// ---- one plug-in and what it is wired to ---------------------------------------------

struct Stats {
    int requests = 0;
    int learning = 0;
    int goodResults = 0;
    int otherResults = 0;
    std::string firstOtherResult;
    int uncleanReplies = 0;
    std::string firstUncleanReply;
    int readsWithValues = 0;  // good data exchanges of reads carrying a non-zero byte
    int writesDone = 0;       // good write exchanges
    int callbacksGood = 0;
    int callbacksFailed = 0;
    int strayCallbacks = 0;
    int getsWithValues = 0;  // GetRegisterData results holding a non-zero byte
};

// What one exchange was, for the run's own bookkeeping.
struct TurnInfo {
    bool sent = false;
    bool learning = false;
    bool cyclic = false;  // an entry of the cyclic list
    bool write = false;
    QByteArray frame;
    RW_VAR var;
    int dataBytes = 0;
};

struct Side {
    Side(const char* sideName, std::string libraryPath, int context, const RunSettings& run)
        : name(sideName),
          path(std::move(libraryPath)),
          hostContext(context),
          controller(memory, OptionsFor(run)) {}

    static peer::ControllerOptions OptionsFor(const RunSettings& run) {
        peer::ControllerOptions options;
        options.mode = run.remote ? peer::LinkMode::kRemote : peer::LinkMode::kDirect;
        return options;
    }

    const char* name;
    std::string path;
    int hostContext;
    ComInfo info{};
    // The host's three areas the plug-in is handed at start-up.
    std::vector<uint8_t> lb = std::vector<uint8_t>(4096, 0);
    std::vector<uint8_t> lw = std::vector<uint8_t>(4096, 0);
    std::vector<uint8_t> rwi = std::vector<uint8_t>(4096, 0);
    peer::TagMemory memory{peer::TagMemory::DefaultLayout()};
    peer::Controller controller;
    std::vector<std::string> log;
    Stats stats;
    std::optional<QByteArray> firstFrame;
    // Declared last, so the library is unloaded before the records it was
    // handed go away.
    peer::Plugin plugin;

    const peer::PluginApi& api() const { return plugin.api(); }
};

// The side whose entry points are being called; callbacks must come from it.
Side* g_driving = nullptr;
Side* g_sides[2] = {nullptr, nullptr};

int OnceReadDone(int hostContext, int varId, int varSubId, int status) {
    Side* from = nullptr;
    for (Side* s : g_sides)
        if (s && s->hostContext == hostContext) from = s;
    if (!from || from != g_driving) {
        if (g_driving) ++g_driving->stats.strayCallbacks;
        return 0;
    }
    std::ostringstream out;
    out << "callback varId=" << varId << " varSubId=" << varSubId << " status=" << status;
    from->log.push_back(out.str());
    if (status == 1)
        ++from->stats.callbacksGood;
    else
        ++from->stats.callbacksFailed;
    return 0;
}

std::string Describe(const RW_VAR& v) {
    std::ostringstream out;
    out << "{varId=" << v.varId << " varSubId=" << v.varSubId << " aux2=" << v.aux2
        << " aux3=" << v.aux3 << " linkNo=" << v.linkNo << " result=" << v.result << " addr2='"
        << Text(v.addrText2) << "' addr='" << Text(v.addrText) << "' type=" << v.dataType
        << " address=" << v.address << " station=" << v.station << " count=" << v.count
        << " aux12=" << v.aux12 << " aux13=" << v.aux13 << " data=" << ToHex(v.data) << "}";
    return out.str();
}

// Each side has a host context of its own: it shows as "own" while the
// record holds the side's own.
std::string DescribeSettings(const ComInfo& c, int ownContext) {
    std::ostringstream out;
    out << "settings reserved=" << c.hostReserved0[0] << "," << c.hostReserved0[1] << ","
        << c.hostReserved0[2] << "," << c.hostReserved0[3] << "," << c.hostReserved20
        << " maxCount=" << c.maxCount << " station=" << c.defaultStation
        << " retryLimit=" << c.retryLimit << " retryCount=" << c.retryCount
        << " multiStation=" << c.multiStation << " startA=" << c.startFlagA
        << " replyTotal=" << c.replyTotal << " replyDone=" << c.replyDone
        << " startB=" << c.startFlagB << " remote=" << c.remoteMode
        << " localLink=" << c.localLinkNo << " writeMode=" << c.writeMode
        << " cycleDone=" << c.cycleDone << " context=";
    if (c.hostContext == ownContext)
        out << "own";
    else
        out << c.hostContext;
    return out.str();
}

bool AnyNonZero(const QByteArray& bytes, int from, int n) {
    for (int i = from; i < from + n && i < bytes.size(); ++i)
        if (bytes[i] != 0) return true;
    return false;
}

// The reply's body, DLE doubling undone; empty when it cannot be read.
QByteArray BodyOf(const QByteArray& reply) {
    const auto body = peer::MessageBody(replies::ToBytes(reply));
    return body ? replies::ToQt(*body) : QByteArray();
}

// A reply that reports success for what was asked.
bool ReplyIsClean(const QByteArray& reply, bool remote, bool write) {
    const QByteArray body = BodyOf(reply);
    const auto at = [&body](int i) { return replies::At(body, i); };
    if (remote) {
        // Station, 0, command, status, transaction, 0, then data or 06.
        if (body.size() < 6 || at(3) != 0) return false;
        return !write || (body.size() == 7 && at(6) == 0x06);
    }
    // DF1 header (reply command, status 0), the packet's status, the
    // embedded reply's status and no extended status.
    return body.size() >= 20 && at(2) == (peer::df1::kCmdCip | peer::df1::kReplyFlag) &&
           at(3) == 0 && at(10) == 0 && at(11) == 0 && at(18) == 0 && at(19) == 0;
}

// Where a read reply's data start in its body.
int DataStart(bool remote) {
    return remote ? 6 : 22;
}

// Every byte of the controller's files, in layout order.
std::vector<uint8_t> MemoryBytes(const peer::TagMemory& memory) {
    std::vector<uint8_t> all;
    for (const peer::DataFile& f : peer::TagMemory::DefaultLayout()) {
        const std::size_t bytes = f.elements * peer::ElementSize(f.letter);
        if (memory.read(f.letter, f.number, 0, bytes, &all) != peer::Access::kOk) return {};
    }
    return all;
}

// The values a controller holds before the first exchange.
void FillMemory(peer::TagMemory& memory, uint32_t seed) {
    Draw d(seed);
    for (const peer::DataFile& f : peer::TagMemory::DefaultLayout()) {
        std::vector<uint8_t> bytes(f.elements * peer::ElementSize(f.letter));
        for (uint8_t& b : bytes) b = d.Byte();
        memory.write(f.letter, f.number, 0, bytes.data(), bytes.size());
    }
}

// ---- the host's calls, made on one side -------------------------------------------

class Host {
public:
    Host(Side& side, bool remote) : s_(side), remote_(remote) {}

    void Note(const std::string& entry) { s_.log.push_back(entry); }

    TurnInfo Turn() {
        g_driving = &s_;
        TurnInfo t;
        Protocol* p = s_.api().ComCommunication();
        if (!p) {
            Note("ComCommunication: nothing; " + DescribeSettings(s_.info, s_.hostContext));
            return t;
        }
        t.sent = true;
        t.frame = p->frame;
        t.var = p->var;
        t.learning = p->replyLen == -1;
        t.dataBytes = p->dataBytes;
        t.write = p->var.aux2 == 1;
        t.cyclic = p->var.varSubId == -1 && !t.write;
        {
            std::ostringstream out;
            out << "request frame=" << ToHex(p->frame) << " frameLen=" << p->frameLen
                << " replyLen=" << p->replyLen << " dataPos=" << p->dataPos
                << " dataBytes=" << p->dataBytes << " extra=" << p->extra1 << "," << p->extra2
                << "," << p->extra3 << " var=" << Describe(p->var);
            Note(out.str());
        }
        if (!s_.firstFrame) s_.firstFrame = t.frame;
        ++s_.stats.requests;
        if (t.learning) ++s_.stats.learning;

        // A host in remote mode zeroes replyDone before each exchange.
        if (remote_) s_.info.replyDone = 0;
        const QByteArray reply = replies::AnswerOf(s_.controller, t.frame);
        Note("reply " + ToHex(reply));
        if (!ReplyIsClean(reply, remote_, t.write)) {
            if (s_.stats.uncleanReplies++ == 0)
                s_.stats.firstUncleanReply = ToHex(t.frame) + " -> " + ToHex(reply);
        }

        const RW_VAR* r = s_.api().DataCom(reply, reply.size());
        Note("DataCom " + Describe(*r) + "; " + DescribeSettings(s_.info, s_.hostContext));
        if (r->result == 1 || r->result == 100) {
            ++s_.stats.goodResults;
            if (!t.learning && t.write) ++s_.stats.writesDone;
            if (!t.learning && !t.write &&
                AnyNonZero(BodyOf(reply), DataStart(remote_), t.dataBytes))
                ++s_.stats.readsWithValues;
        } else if (s_.stats.otherResults++ == 0) {
            s_.stats.firstOtherResult =
                std::to_string(r->result) + " for " + ToHex(t.frame) + " -> " + ToHex(reply);
        }
        if (!t.learning && !t.write) NoteStored(t);
        return t;
    }

    // What the image holds where a read's values went, with an element
    // either side, right after the read: a value stored wrongly shows here
    // even when a later write or read covers it again.
    void NoteStored(const TurnInfo& t) {
        const bool real = t.var.dataType == ABCL_REAL;
        const int wordType = t.var.dataType == ABCL_BIT_A   ? ABCL_WORD_A
                             : t.var.dataType == ABCL_BIT_B ? ABCL_WORD_B
                                                            : t.var.dataType;
        const int elements = std::max(0, t.dataBytes) / (real ? 4 : 2);
        const int start = std::max(0, t.var.address - 1);
        const int count = elements + 2;
        QByteArray values;
        const int r = s_.api().GetRegisterData(
            0, wordType,
            QStringLiteral("%1:%2").arg(start / kElementsPerFile).arg(start % kElementsPerFile), 0,
            &values, real ? 2 * count : count);
        Note("image after the read = " + std::to_string(r) + " " + ToHex(values));
    }

    // A digest of the whole image.
    void NoteImage() {
        uint64_t h = 1469598103934665603ull;
        for (int type : {ABCL_WORD_A, ABCL_WORD_B, ABCL_REAL})
            for (char c : Image(type)) h = (h ^ static_cast<uint8_t>(c)) * 1099511628211ull;
        std::ostringstream out;
        out << "image digest " << std::hex << h;
        Note(out.str());
    }

    int Rebuild(const std::vector<ReadVarItem>& source) {
        g_driving = &s_;
        std::vector<ReadVarItem> items = source;
        QList<ReadVarItem*> list;
        std::ostringstream out;
        out << "ReCreatReadVarList [";
        for (ReadVarItem& item : items) {
            list.append(&item);
            out << " {type=" << int{item.dataType} << " addr='" << Text(item.addrText)
                << "' count=" << item.count << "}";
        }
        const int r = s_.api().ReCreatReadVarList(&list);
        out << " ] = " << r << "; " << DescribeSettings(s_.info, s_.hostContext);
        Note(out.str());
        return r;
    }

    void Apply(const Action& a) {
        g_driving = &s_;
        std::ostringstream out;
        switch (a.kind) {
            case Kind::kTurns:
                for (int i = 0; i < a.turns; ++i) Turn();
                return;
            case Kind::kRebuild: Rebuild(a.items); return;
            case Kind::kWrite: {
                QByteArray in = a.data;
                const int r = s_.api().SetRegisterData(a.addr2, a.dataType, a.addr, a.station, &in,
                                                       a.count, a.varId, a.varSubId);
                out << "SetRegisterData type=" << a.dataType << " addr='" << Text(a.addr)
                    << "' count=" << a.count << " varId=" << a.varId << " varSubId=" << a.varSubId
                    << " in=" << ToHex(in) << " = " << r;
                break;
            }
            case Kind::kOnceRead: {
                RW_VAR v = a.once;
                const int r = s_.api().AddListOnceReadVar(&v, 0);
                out << "AddListOnceReadVar " << Describe(v) << " = " << r;
                break;
            }
            case Kind::kGet: {
                QByteArray values(a.prefill, '\x5A');
                const int r = s_.api().GetRegisterData(a.unused1, a.dataType, a.addr, a.unused2,
                                                       &values, a.count);
                out << "GetRegisterData type=" << a.dataType << " addr='" << Text(a.addr)
                    << "' count=" << a.count << " = " << r << " " << ToHex(values);
                if (AnyNonZero(values, a.prefill, values.size())) ++s_.stats.getsWithValues;
                break;
            }
            case Kind::kAddress: {
                const int r = s_.api().PLCAddressChangeIntef(a.dataType, a.addr);
                out << "PLCAddressChangeIntef type=" << a.dataType << " '" << Text(a.addr)
                    << "' = " << r;
                break;
            }
            case Kind::kFinishFlag:
                out << "QueryFinishFlag = " << s_.api().QueryFinishFlag();
                break;
        }
        out << "; " << DescribeSettings(s_.info, s_.hostContext);
        Note(out.str());
    }

    // The start-up a host makes once the plug-in is loaded.
    void Start(const RunSettings& run) {
        g_driving = &s_;
        ComInfo& c = s_.info;
        c = ComInfo{};
        for (int i = 0; i < 4; ++i) c.hostReserved0[i] = run.reserved[i];
        c.hostReserved20 = run.reserved[4];
        c.maxCount = run.maxCount;
        c.defaultStation = run.defaultStation;
        c.retryLimit = run.retryLimit;
        c.remoteMode = run.remote ? 1 : 0;
        c.localLinkNo = run.localLinkNo;
        c.writeMode = 2;
        c.hostContext = s_.hostContext;
        // Garbage the start-up clears.
        c.startFlagA = 7;
        c.startFlagB = 9;
        const int flash = s_.api().FlashLocalRegister(s_.lb.data(), s_.lw.data(), s_.rwi.data());
        s_.api().SetComInfo(&c);
        s_.api().RegistCallBackFuncIntf(&OnceReadDone, s_.hostContext);
        Note("FlashLocalRegister = " + std::to_string(flash) + "; " +
             DescribeSettings(c, s_.hostContext));
    }

    // The whole local image, as GetRegisterData gives it.
    QByteArray Image(int dataType) {
        g_driving = &s_;
        QByteArray out;
        const int units = dataType == ABCL_REAL ? 2 * kAreaElements : kAreaElements;
        const int r = s_.api().GetRegisterData(0, dataType, QStringLiteral("0:0"), 0, &out, units);
        out.prepend(QByteArray::number(r) + ':');
        return out;
    }

private:
    Side& s_;
    bool remote_;
};

// ---- the run -----------------------------------------------------------------------

struct Variant {
    bool remote;
    int seedIndex;
};

void PrintTo(const Variant& v, std::ostream* out) {
    *out << (v.remote ? "remote" : "direct") << " run " << v.seedIndex;
}

RunSettings SettingsFor(const Variant& v) {
    // Its own generator, so the host calls do not depend on these draws.
    Draw d(0x5EED0000u + (v.remote ? 0x1000u : 0u) + static_cast<uint32_t>(v.seedIndex));
    RunSettings run;
    run.remote = v.remote;
    run.maxCount = d.Int(2, 32);
    // A few runs at the smallest and largest request size.
    if (v.seedIndex % 7 == 2) run.maxCount = 2;
    if (v.seedIndex % 7 == 3) run.maxCount = 32;
    run.retryLimit = d.Int(0, 3);
    run.localLinkNo = d.Int(0, 3);
    // Station 16 is doubled in remote replies; direct frames carry no station.
    run.defaultStation = v.seedIndex % 4 == 1 ? kDle : d.Int(0, 31);
    // 0..254 but DLE, with both ends among them.
    static const int kEdges[] = {0, 254, 15, 17, 1};
    if (v.seedIndex < static_cast<int>(sizeof kEdges / sizeof kEdges[0])) {
        run.firstTns = kEdges[v.seedIndex];
    } else {
        do {
            run.firstTns = d.Int(0, 254);
        } while (run.firstTns == kDle);
    }
    for (int32_t& r : run.reserved) r = d.Int(-100000, 100000);
    return run;
}

class BuildsAgree : public ::testing::TestWithParam<Variant> {
protected:
    void SetUp() override {
        run_ = SettingsFor(GetParam());
        seed_ = 1000u + 7919u * static_cast<uint32_t>(GetParam().seedIndex) +
                (GetParam().remote ? 500000u : 0u);
        default_ = std::make_unique<Side>("default", ABCL_PLUGIN_PATH, kDefaultContext, run_);
        hardened_ =
            std::make_unique<Side>("hardened", ABCL_HARDENED_PLUGIN_PATH, kHardenedContext, run_);
        g_sides[0] = default_.get();
        g_sides[1] = hardened_.get();
        for (peer::TagMemory* m : {&default_->memory, &hardened_->memory, &initial_})
            FillMemory(*m, seed_ ^ 0xF111u);
        // Both plug-ins draw their first transaction number while loading.
        g_qrandValue = run_.firstTns;
        for (Side* s : g_sides) {
            std::string error;
            ASSERT_TRUE(s->plugin.load(s->path, &error)) << error;
        }
        ASSERT_NE(reinterpret_cast<void*>(default_->api().DataCom),
                  reinterpret_cast<void*>(hardened_->api().DataCom))
            << "the two paths name one library";
    }
    void TearDown() override {
        g_driving = nullptr;
        g_sides[0] = g_sides[1] = nullptr;
        hardened_.reset();
        default_.reset();
    }

    // Compares the logs from entry `checked_` on; false with a report at the
    // first difference.
    bool LogsAgree(std::string* report) {
        const std::vector<std::string>& a = default_->log;
        const std::vector<std::string>& b = hardened_->log;
        const std::size_t common = std::min(a.size(), b.size());
        std::size_t i = checked_;
        while (i < common && a[i] == b[i]) ++i;
        if (i == common && a.size() == b.size()) {
            checked_ = common;
            return true;
        }
        std::ostringstream out;
        out << "the plug-ins differ at step " << step_ << ", log entry " << i << "\n";
        out << "  default:  " << (i < a.size() ? a[i] : std::string("(nothing)")) << "\n";
        out << "  hardened: " << (i < b.size() ? b[i] : std::string("(nothing)")) << "\n";
        out << "entries before it (the same in both):\n";
        for (std::size_t k = i > 8 ? i - 8 : 0; k < i; ++k) out << "  " << a[k] << "\n";
        for (const auto* side : {&a, &b}) {
            out << (side == &a ? "default" : "hardened") << " after it:\n";
            for (std::size_t k = i + 1; k < std::min(side->size(), i + 4); ++k)
                out << "  " << (*side)[k] << "\n";
        }
        *report = out.str();
        return false;
    }

    // Applies an action to both sides, default first, each entry tagged with
    // the step.
    template <typename Call>
    bool BothDo(Call call) {
        for (Side* s : {default_.get(), hardened_.get()}) {
            const std::size_t before = s->log.size();
            Host host(*s, run_.remote);
            call(host, *s);
            for (std::size_t k = before; k < s->log.size(); ++k)
                s->log[k] = "#" + std::to_string(step_) + " " + s->log[k];
        }
        std::string report;
        if (LogsAgree(&report)) return true;
        ADD_FAILURE() << report;
        return false;
    }

    // Where one cyclic read of the last pass read, as the controller read it.
    struct Range {
        char letter;
        int file;
        int element;
        int count;
    };

    // Rebuilds the cyclic list on both sides; its length on the default side.
    bool RebuildBoth(const Action& a, int* length) {
        return BothDo([&](Host& h, Side& s) {
            const int r = h.Rebuild(a.items);
            if (&s == default_.get()) *length = r;
        });
    }

    // Start-up, a first cyclic list that is never empty, then the seeded
    // steps, with a digest of the whole image now and then.
    void RunSteps(Generator& gen) {
        ASSERT_TRUE(BothDo([&](Host& h, Side&) { h.Start(run_); }));
        ++step_;
        ASSERT_TRUE(RebuildBoth(gen.Rebuild(true), &listSize_));
        ASSERT_GT(listSize_, 0) << "the first cyclic list built nothing";
        for (step_ = 2; step_ < kSteps; ++step_) {
            if (step_ % kImageEvery == 0) {
                ASSERT_TRUE(BothDo([](Host& h, Side&) { h.NoteImage(); }));
            }
            const Action a = gen.Next();
            if (a.kind == Kind::kRebuild) {
                ASSERT_TRUE(RebuildBoth(a, &listSize_)) << "seed " << seed_;
            } else {
                ASSERT_TRUE(BothDo([&](Host& h, Side&) { h.Apply(a); })) << "seed " << seed_;
            }
        }
    }

    Range RangeOf(const TurnInfo& t) {
        if (run_.remote) {
            // The partner reads the record's place and count.
            const int address = t.var.address;
            return {LetterOf(t.var.dataType), address / kElementsPerFile,
                    address % kElementsPerFile,
                    t.var.dataType == ABCL_REAL ? t.dataBytes / 4 : t.dataBytes / 2};
        }
        const auto request = replies::DecodeRequest(t.frame);
        if (!request || !request->path.named) {
            ADD_FAILURE() << "a request the controller cannot read: " << ToHex(t.frame);
            return {'N', 0, 0, 0};
        }
        return {request->path.letter, request->path.file, static_cast<int>(request->path.element),
                request->count};
    }

    // A last cyclic list that is never empty, then the write and one-shot
    // queues drain, then two whole passes over the cyclic list; the reads
    // of the second come after every write.
    void Settle(Generator& gen, std::vector<Range>* lastPass) {
        ASSERT_TRUE(RebuildBoth(gen.Rebuild(true), &listSize_));
        ASSERT_GT(listSize_, 0) << "the last cyclic list built nothing";
        ++step_;
        int cyclicInARow = 0;
        for (int turn = 0; turn < kSettleLimit; ++turn, ++step_) {
            TurnInfo seen;
            ASSERT_TRUE(BothDo([&](Host& h, Side& s) {
                const TurnInfo t = h.Turn();
                if (&s == default_.get()) seen = t;
            })) << "seed "
                << seed_;
            ASSERT_TRUE(seen.sent) << "a non-empty cyclic list always has a request";
            if (!seen.cyclic) {
                cyclicInARow = 0;
                lastPass->clear();
                continue;
            }
            if (seen.learning) continue;
            if (++cyclicInARow > listSize_) lastPass->push_back(RangeOf(seen));
            if (cyclicInARow >= 2 * listSize_) return;
        }
        FAIL() << "the queues did not drain within " << kSettleLimit << " exchanges";
    }

    // The whole local image and the controllers' memory at the end; the
    // number of bytes the writes changed in the controller.
    void CheckFinalState(int* writtenBytes) {
        for (int type : {ABCL_WORD_A, ABCL_WORD_B, ABCL_REAL}) {
            const QByteArray a = Host(*default_, run_.remote).Image(type);
            const QByteArray b = Host(*hardened_, run_.remote).Image(type);
            ASSERT_EQ(a.size(), b.size()) << "image of type " << type;
            const auto diff = std::mismatch(a.begin(), a.end(), b.begin());
            EXPECT_TRUE(diff.first == a.end())
                << "the images of type " << type << " differ at byte " << (diff.first - a.begin())
                << " (after the result prefix)";
        }
        const std::vector<uint8_t> before = MemoryBytes(initial_);
        const std::vector<uint8_t> after = MemoryBytes(default_->memory);
        ASSERT_EQ(after.size(), before.size());
        EXPECT_TRUE(after == MemoryBytes(hardened_->memory)) << "the controllers' memories differ";
        for (std::size_t i = 0; i < after.size(); ++i) *writtenBytes += after[i] != before[i];
    }

    // After the last pass each side's image holds what its controller
    // holds, over everything that pass read. Bytes that differ from the
    // controller's first values came there through a write and back through
    // a read; *cameBack counts them.
    void CheckImagesHoldTheControllers(const std::vector<Range>& lastPass, int* cameBack) {
        for (Side* s : {default_.get(), hardened_.get()}) {
            for (const Range& r : lastPass) {
                const int dataType = r.letter == 'B'   ? ABCL_WORD_A
                                     : r.letter == 'N' ? ABCL_WORD_B
                                                       : ABCL_REAL;
                const auto size = peer::ElementSize(r.letter);
                const auto offset = static_cast<std::size_t>(r.element) * size;
                const auto bytes = static_cast<std::size_t>(r.count) * size;
                std::vector<uint8_t> held;
                std::vector<uint8_t> initial;
                ASSERT_EQ(s->memory.read(r.letter, r.file, offset, bytes, &held), peer::Access::kOk)
                    << r.letter << r.file << ":" << r.element << " x" << r.count;
                initial_.read(r.letter, r.file, offset, bytes, &initial);
                QByteArray image;
                g_driving = s;
                s->api().GetRegisterData(0, dataType,
                                         QStringLiteral("%1:%2").arg(r.file).arg(r.element), 0,
                                         &image, dataType == ABCL_REAL ? 2 * r.count : r.count);
                const QByteArray shown = replies::ToQt(held);
                EXPECT_EQ(ToHex(image), ToHex(shown))
                    << s->name << " image of " << r.letter << r.file << ":" << r.element << " x"
                    << r.count;
                if (image != shown) continue;
                for (std::size_t i = 0; i < held.size() && i < initial.size(); ++i)
                    *cameBack += held[i] != initial[i];
            }
        }
    }

    // The first transaction number came from this program's qrand().
    void CheckFirstTransactionNumber() {
        if (run_.remote) return;  // remote frames carry none
        for (Side* s : {default_.get(), hardened_.get()}) {
            ASSERT_TRUE(s->firstFrame.has_value()) << s->name;
            ASSERT_GT(s->firstFrame->size(), 8) << s->name;
            EXPECT_EQ(ToHex(s->firstFrame->left(4)), "10 06 10 02") << s->name;
            EXPECT_EQ(replies::At(*s->firstFrame, 8), run_.firstTns)
                << s->name << ": the first frame does not carry the chosen transaction number";
        }
    }

    // The line was clean, and the run did what it set out to.
    void CheckCleanAndBusy() {
        for (Side* s : {default_.get(), hardened_.get()}) {
            const Stats& st = s->stats;
            SCOPED_TRACE(std::string(s->name) + ", seed " + std::to_string(seed_));
            EXPECT_EQ(st.uncleanReplies, 0) << "first: " << st.firstUncleanReply;
            EXPECT_EQ(st.otherResults, 0) << "first: " << st.firstOtherResult;
            EXPECT_EQ(st.strayCallbacks, 0);
            EXPECT_EQ(st.callbacksFailed, 0);
            EXPECT_EQ(s->info.retryCount, 0);
            EXPECT_GE(st.requests, 4000);
            EXPECT_GE(st.learning, 1500);
            EXPECT_GE(st.writesDone, 500);
            EXPECT_GE(st.readsWithValues, 300);
            EXPECT_GE(st.callbacksGood, 100);
            EXPECT_GE(st.getsWithValues, 80);
        }
        EXPECT_EQ(default_->log.size(), hardened_->log.size());
    }

    RunSettings run_;
    uint32_t seed_ = 0;
    std::unique_ptr<Side> default_;
    std::unique_ptr<Side> hardened_;
    // What both controllers held before the first exchange.
    peer::TagMemory initial_{peer::TagMemory::DefaultLayout()};
    std::size_t checked_ = 0;
    int step_ = 0;
    int listSize_ = 0;  // the cyclic list's length, as the default side gave it
};

TEST_P(BuildsAgree, OnACleanLine) {
    Generator gen(seed_, run_);
    ASSERT_NO_FATAL_FAILURE(RunSteps(gen));
    std::vector<Range> lastPass;
    ASSERT_NO_FATAL_FAILURE(Settle(gen, &lastPass));

    int writtenBytes = 0;
    ASSERT_NO_FATAL_FAILURE(CheckFinalState(&writtenBytes));
    int cameBack = 0;
    ASSERT_NO_FATAL_FAILURE(CheckImagesHoldTheControllers(lastPass, &cameBack));
    CheckFirstTransactionNumber();
    CheckCleanAndBusy();
    EXPECT_GE(writtenBytes, 400);
    EXPECT_FALSE(lastPass.empty());
    EXPECT_GE(cameBack, 10);
}

std::vector<Variant> Variants(bool remote, int n) {
    std::vector<Variant> out;
    for (int i = 0; i < n; ++i) out.push_back({remote, i});
    return out;
}

std::string VariantName(const ::testing::TestParamInfo<Variant>& info) {
    return std::string(info.param.remote ? "Remote" : "Direct") +
           std::to_string(info.param.seedIndex);
}

INSTANTIATE_TEST_SUITE_P(Direct, BuildsAgree, ::testing::ValuesIn(Variants(false, kDirectSeeds)),
                         VariantName);
INSTANTIATE_TEST_SUITE_P(Remote, BuildsAgree, ::testing::ValuesIn(Variants(true, kRemoteSeeds)),
                         VariantName);

}  // namespace
