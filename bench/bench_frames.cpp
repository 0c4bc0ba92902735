// Cost of building each kind of request frame and queuing it as a Protocol.
// Every iteration also empties the queue again, as the reply handling does.
#include "bench_support.h"

#include "Func_Read.h"
#include "Func_Remote.h"
#include "Func_Write.h"

namespace {

RW_VAR WordVariable(int dataType, int count) {
    RW_VAR v;
    v.dataType = dataType;
    v.address = 7 * 256 + 2;  // file 7, element 2
    v.count = count;
    v.station = 1;
    v.addrText = QStringLiteral("7:2");
    return v;
}

// Values without a DLE byte, so the frame has its plain length.
QByteArray Values(int bytes) {
    QByteArray data(bytes, '\0');
    for (int i = 0; i < bytes; ++i) data[i] = static_cast<char>(0x20 + i % 0x50);
    return data;
}

template <void (*Builder)(RW_VAR*)>
void BuildFrames(benchmark::State& state, RW_VAR var, int expectedLength) {
    bench::ResetDriver();
    int length = 0;
    for (auto _ : state) {
        Builder(&var);
        length = PLC_driver.protocolList.first().frameLen;
        PLC_driver.protocolList.clear();
        benchmark::DoNotOptimize(length);
    }
    if (length != expectedLength) state.SkipWithError("unexpected frame length");
    state.counters["frame_bytes"] = length;
    state.SetBytesProcessed(state.iterations() * length);
}

void BM_ReadAnalog(benchmark::State& state) {
    BuildFrames<ReadAnalog>(state, WordVariable(ABCL_WORD_B, 10), 45);
}
BENCHMARK(BM_ReadAnalog);

void BM_ReadAnalog_F(benchmark::State& state) {
    RW_VAR v = WordVariable(ABCL_REAL, 11);
    BuildFrames<ReadAnalog_F>(state, v, 45);
}
BENCHMARK(BM_ReadAnalog_F);

void BM_WriteBool(benchmark::State& state) {
    RW_VAR v = WordVariable(ABCL_BIT_A, 1);
    v.address = 3 * 4096 + 10 * 16 + 5;  // file 3, element 10, bit 5
    v.data = QByteArray(1, '\x01');
    BuildFrames<WriteBool>(state, v, 45);
}
BENCHMARK(BM_WriteBool);

// range(0) 16-bit values.
void BM_WriteAnalog(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    RW_VAR v = WordVariable(ABCL_WORD_B, count);
    v.data = Values(2 * count);
    BuildFrames<WriteAnalog>(state, v, 45 + 2 * count);
}
BENCHMARK(BM_WriteAnalog)->Arg(10)->Arg(100);

// range(0) REAL values (the record counts them in 16-bit words).
void BM_WriteAnalog_F(benchmark::State& state) {
    const int values = static_cast<int>(state.range(0));
    RW_VAR v = WordVariable(ABCL_REAL, 2 * values);
    v.data = Values(4 * values);
    BuildFrames<WriteAnalog_F>(state, v, 45 + 4 * values);
}
BENCHMARK(BM_WriteAnalog_F)->Arg(1)->Arg(10);

void BM_Remote_ReadVar(benchmark::State& state) {
    RW_VAR v = WordVariable(ABCL_WORD_B, 10);
    v.varId = 0x101;
    v.linkNo = 1;
    v.station = 2;
    BuildFrames<Remote_ReadVar>(state, v, 22);
}
BENCHMARK(BM_Remote_ReadVar);

}  // namespace

BENCHMARK_MAIN();
