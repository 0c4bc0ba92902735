// Instructions and heap calls of the driver's hot operations, in steady state.
//
//   instructions OPERATION [ITERATIONS]
//
// Runs OPERATION a few times to reach steady state, then ITERATIONS more with
// callgrind's collection switched on around them (bench/instructions.sh runs
// this under `valgrind --tool=callgrind --collect-atstart=no` and divides the
// total by the iterations). The program also counts its own calls to malloc,
// calloc and realloc during the measured iterations and prints them per
// iteration, so the same run gives both figures. Every operation checks its
// own result and the program exits non-zero if one is wrong: a count is never
// reported for a broken path.
#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "fresh_driver.h"
#include "host_variables.h"
#include "reply_builder.h"

#include <valgrind/callgrind.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

// ---- heap call counting ------------------------------------------------------
// The program's own definitions of the allocation functions take precedence
// over the C library's for the whole process (Qt's included), and pass every
// call on to the library's implementation.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}

namespace {
bool g_counting = false;
unsigned long g_heapCalls = 0;
}  // namespace

extern "C" void* malloc(size_t n) {
    if (g_counting) ++g_heapCalls;
    return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t size) {
    if (g_counting) ++g_heapCalls;
    return __libc_calloc(n, size);
}
extern "C" void* realloc(void* p, size_t n) {
    if (g_counting) ++g_heapCalls;
    return __libc_realloc(p, n);
}
extern "C" void free(void* p) {
    __libc_free(p);
}

namespace {

ComInfo g_settings;

// One measured operation: set-up (not counted), one step, and a check of what
// the last step left.
struct Operation {
    const char* description;
    int unitsPerStep;  // for the per-unit column (variables of a rebuild), else 1
    std::function<void()> setUp;
    std::function<void()> step;
    std::function<bool()> check;
};

std::vector<uint16_t> Words(int n) {
    std::vector<uint16_t> words;
    for (int i = 0; i < n; ++i) words.push_back(static_cast<uint16_t>(0x2000 + 0x0101 * (i + 1)));
    return words;
}

// A one-entry cyclic list reading 32 words of N007: each pass is two
// exchanges, the first learning the reply's length, the second storing it.
Operation CyclicRead32() {
    static QByteArray reply;
    static int learnt = 0;
    static int stored = 0;
    Operation op;
    op.description = "cyclic read of 32 INT words, both exchanges";
    op.unitsPerStep = 1;
    op.setUp = [] {
        WireFreshDriver(g_settings, 32);
        RW_VAR var;
        var.dataType = ABCL_WORD_B;
        var.address = 7 * 256;
        var.count = 32;
        var.station = 1;
        var.addrText = QStringLiteral("7:0");
        AddListReadVar(&var);
        reply = replies::WordReadReply(kFirstTns, Words(32));
    };
    op.step = [] {
        ComCommunication();
        learnt = DataCom(reply, reply.size())->result;
        ComCommunication();
        stored = DataCom(reply, reply.size())->result;
    };
    op.check = [] {
        QByteArray image;
        GetRegisterData(0, ABCL_WORD_B, QStringLiteral("7:0"), 0, &image, 32);
        return learnt == 1 && stored == 1 && image == replies::LeWords(Words(32));
    };
    return op;
}

// A host write of ten words through to its acknowledgement: SetRegisterData,
// ComCommunication (asked again when the burst limit answers once with
// nothing), DataCom.
Operation WriteInt10() {
    static QByteArray values;
    static QByteArray reply;
    static int result = 0;
    static int frameLen = 0;
    Operation op;
    op.description = "INT write of 10 words, end to end";
    op.unitsPerStep = 1;
    op.setUp = [] {
        WireFreshDriver(g_settings, 32);
        values = QByteArray(20, '\0');
        for (int i = 0; i < values.size(); ++i) values[i] = static_cast<char>(0x30 + i);
        reply = replies::WriteReply(kFirstTns);
    };
    op.step = [] {
        SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:0"), 1, &values, 10, 3, 0);
        Protocol* request = ComCommunication();
        if (!request) request = ComCommunication();
        frameLen = request->frameLen;
        result = DataCom(reply, reply.size())->result;
    };
    op.check = [] { return result == 1 && frameLen == 65 && PLC_driver.writeList.isEmpty(); };
    return op;
}

// The cyclic list rebuilt from 10,000 variables of all five data types.
Operation Rebuild10000() {
    static bench::HostVariables vars;
    static int requests = 0;
    Operation op;
    op.description = "ReCreatReadVarList, 10,000 mixed variables";
    op.unitsPerStep = 10000;
    op.setUp = [] {
        WireFreshDriver(g_settings, 32);
        vars = bench::RandomVariables(10000, 20240611u);
    };
    op.step = [] { requests = ReCreatReadVarList(&vars.list); };
    // The same variables as the benchmark: 876 requests.
    op.check = [] { return requests == 876; };
    return op;
}

// One word handed in by a screen and queued for the controller. Without
// communication in between, the queue holds the write on the wire and the
// newest value, which each further call replaces.
Operation SetOneWord() {
    static QByteArray values;
    static int length = 0;
    Operation op;
    op.description = "SetRegisterData of 1 word, queued";
    op.unitsPerStep = 1;
    op.setUp = [] {
        WireFreshDriver(g_settings, 32);
        values = QByteArray("\x34\x12", 2);
    };
    op.step = [] {
        length =
            SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:5"), 1, &values, 1, 3, 0);
    };
    op.check = [] {
        return length == 2 && PLC_driver.writeList.last().data == values &&
               PLC_driver.writeList.last().address == 7 * 256 + 5;
    };
    return op;
}

// 100 words copied out of the image into the screen's array.
Operation Get100Words() {
    static QByteArray out;
    static int result = 0;
    Operation op;
    op.description = "GetRegisterData of 100 words";
    op.unitsPerStep = 1;
    op.setUp = [] {
        WireFreshDriver(g_settings, 32);
        for (int i = 0; i < 100; ++i) PLC_driver.areaB[7 * 256 + i] = static_cast<uint16_t>(i * 3);
        out = QByteArray(200, '\0');
    };
    op.step = [] { result = GetRegisterData(0, ABCL_WORD_B, QStringLiteral("7:0"), 0, &out, 100); };
    op.check = [] {
        if (result != 1 || out.size() != 200) return false;
        for (int i = 0; i < 100; ++i)
            if (static_cast<uint8_t>(out.at(2 * i)) != ((i * 3) & 0xFF)) return false;
        return true;
    };
    return op;
}

std::map<std::string, Operation> Operations() {
    return {{"cyclic_read_32", CyclicRead32()},
            {"write_int_10", WriteInt10()},
            {"rebuild_10000", Rebuild10000()},
            {"set_one_word", SetOneWord()},
            {"get_100_words", Get100Words()}};
}

int Usage(const std::map<std::string, Operation>& operations) {
    std::fprintf(stderr, "usage: instructions OPERATION [ITERATIONS]\noperations:");
    for (const auto& entry : operations) std::fprintf(stderr, " %s", entry.first.c_str());
    std::fprintf(stderr, "\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, Operation> operations = Operations();
    if (argc < 2 || argc > 3) return Usage(operations);
    const auto found = operations.find(argv[1]);
    if (found == operations.end()) return Usage(operations);
    const int iterations = argc == 3 ? std::atoi(argv[2]) : 100;
    if (iterations <= 0) return Usage(operations);
    const Operation& op = found->second;

    constexpr int kWarmUp = 3;
    op.setUp();
    for (int i = 0; i < kWarmUp; ++i) op.step();

    g_counting = true;
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < iterations; ++i) op.step();
    CALLGRIND_TOGGLE_COLLECT;
    g_counting = false;

    if (!op.check()) {
        std::fprintf(stderr, "%s: wrong result, nothing measured\n", argv[1]);
        return 1;
    }
    std::printf(
        "operation %s\ndescription %s\niterations %d\nunits %d\nheap_calls_per_iteration %.2f\n",
        argv[1], op.description, iterations, op.unitsPerStep,
        static_cast<double>(g_heapCalls) / iterations);
    return 0;
}
