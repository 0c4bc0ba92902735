// Cost of whole exchanges (ComCommunication, then DataCom with a good reply)
// and of the host's access to the local image, set against what the serial
// line allows: the driver's share of each exchange's time on the line.
#include "bench_support.h"

#include "Func_Check.h"
#include "Func_Read.h"

#include <vector>

namespace {

// Ten words without a DLE byte: a 49-byte reply to a 45-byte read request.
std::vector<uint16_t> TenWords() {
    std::vector<uint16_t> words;
    for (uint16_t i = 0; i < 10; ++i)
        words.push_back(static_cast<uint16_t>(0x2000 + 0x0101 * (i + 1)));
    return words;
}

// One pass of a one-entry cyclic list: a direct read learns its reply length
// from a first exchange, then the same request is sent again and its reply
// stored. Each iteration is therefore two exchanges on the wire.
void BM_Exchange_CyclicRead(benchmark::State& state) {
    bench::ResetDriver();
    RW_VAR var;
    var.dataType = ABCL_WORD_B;
    var.address = 7 * 256;  // N007, element 0
    var.count = 10;
    var.station = 1;
    var.addrText = QStringLiteral("7:0");
    AddListReadVar(&var);
    const std::vector<uint16_t> words = TenWords();
    const QByteArray reply = replies::WordReadReply(bench::kTns, words);
    const int length = reply.size();

    int learnt = 0;
    int stored = 0;
    int requestLength = 0;
    for (auto _ : state) {
        Protocol* request = ComCommunication();
        requestLength = request->frameLen;
        learnt = DataCom(reply, length)->result;
        request = ComCommunication();
        benchmark::DoNotOptimize(request);
        stored = DataCom(reply, length)->result;
    }
    QByteArray image;
    GetRegisterData(0, ABCL_WORD_B, QStringLiteral("7:0"), 0, &image, 10);
    if (learnt != 1 || stored != 1 || length != 49 || requestLength != 45 ||
        image.left(20) != reply.mid(26, 20))
        state.SkipWithError("the exchange did not end good with the data stored");
    bench::SetExchangeCounters(state, 2, requestLength + length);
}
BENCHMARK(BM_Exchange_CyclicRead);

// A host write of ten words: SetRegisterData queues it, ComCommunication
// builds the frame (mirroring the values into the image) and DataCom takes the
// 27-byte acknowledgement. One exchange on the wire. After five writes in a
// row with nothing else to do, the scheduler answers one call with nothing
// (the burst limit resetting itself), so the host asks again, as its loop does.
void BM_Exchange_Write(benchmark::State& state) {
    bench::ResetDriver();
    QByteArray values(20, '\0');
    for (int i = 0; i < values.size(); ++i) values[i] = static_cast<char>(0x30 + i);
    const QByteArray reply = replies::WriteReply(bench::kTns);
    const int length = reply.size();
    int result = 0;
    int requestLength = 0;
    for (auto _ : state) {
        SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:0"), 1, &values, 10, 3, 0);
        Protocol* request = ComCommunication();
        if (!request) request = ComCommunication();
        requestLength = request->frameLen;
        result = DataCom(reply, length)->result;
    }
    // 65-byte request (ten values) and 27-byte acknowledgement.
    if (result != 1 || length != 27 || requestLength != 65 || !PLC_driver.writeList.isEmpty())
        state.SkipWithError("the write did not end good");
    bench::SetExchangeCounters(state, 1, requestLength + length);
}
BENCHMARK(BM_Exchange_Write);

// GetRegisterData of range(1) elements of data type range(0).
void BM_GetRegisterData(benchmark::State& state) {
    bench::ResetDriver();
    const int dataType = static_cast<int>(state.range(0));
    const int count = static_cast<int>(state.range(1));
    const QString address =
        dataType <= ABCL_BIT_B ? QStringLiteral("7:10/3") : QStringLiteral("7:10");
    QByteArray out;
    int ok = 0;
    for (auto _ : state) {
        ok = GetRegisterData(0, dataType, address, 0, &out, count);
        benchmark::DoNotOptimize(out.data());
    }
    if (ok != 1) state.SkipWithError("GetRegisterData refused the address");
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_GetRegisterData)
    ->ArgNames({"type", "count"})
    ->Args({ABCL_BIT_B, 16})
    ->Args({ABCL_WORD_B, 10})
    ->Args({ABCL_WORD_B, 100})
    ->Args({ABCL_REAL, 20});

// SetRegisterData of range(1) words; range(0) is the settings' writeMode:
// 2 queues controller writes (a pending write of the same variable is
// replaced), 1 only writes the local image.
void BM_SetRegisterData(benchmark::State& state) {
    bench::ResetDriver();
    bench::Settings().writeMode = static_cast<int>(state.range(0));
    const int count = static_cast<int>(state.range(1));
    QByteArray values(2 * count, '\x5A');
    int result = 0;
    for (auto _ : state) {
        result =
            SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:0"), 1, &values, count, 3, 0);
        benchmark::DoNotOptimize(result);
    }
    if (result <= 0) state.SkipWithError("SetRegisterData refused the write");
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_SetRegisterData)
    ->ArgNames({"writeMode", "count"})
    ->Args({1, 10})
    ->Args({2, 10})
    ->Args({2, 100});

// CheckGetData on a 250-byte reply: 110 words, one of them 0x0010, whose
// doubled DLE makes the reply 250 bytes long.
void BM_CheckGetData_250(benchmark::State& state) {
    bench::ResetDriver();
    RW_VAR var;
    var.dataType = ABCL_WORD_B;
    var.address = 7 * 256;
    var.count = 110;
    ReadAnalog(&var);  // the request the reply answers (reply kind: data)
    std::vector<uint16_t> words(110, 0x2345);
    words[50] = 0x0010;
    const QByteArray reply = replies::WordReadReply(bench::kTns, words);
    int check = 0;
    for (auto _ : state) {
        check = CheckGetData(reply, reply.size());
        benchmark::DoNotOptimize(check);
    }
    if (reply.size() != 250 || check != 1) state.SkipWithError("the reply was not judged good");
    state.SetBytesProcessed(state.iterations() * reply.size());
}
BENCHMARK(BM_CheckGetData_250);

}  // namespace

BENCHMARK_MAIN();
