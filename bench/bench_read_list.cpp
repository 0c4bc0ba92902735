// Cost of rebuilding the cyclic read list: parsing, splitting, sorting and
// merging a panel's variables. A project with thousands of variables rebuilds
// the list when a screen changes, so the rebuild has to stay in milliseconds.
#include "bench_support.h"

#include "Func_Initi.h"

#include <QtCore/QList>
#include <QtCore/QString>

#include <vector>

namespace {

void BM_ReCreatReadVarList(benchmark::State& state) {
    bench::ResetDriver(32);
    const bench::HostVariables vars =
        bench::RandomVariables(static_cast<int>(state.range(0)), 20240611u);
    QList<ReadVarItem*> list = vars.list;
    int requests = 0;
    for (auto _ : state) {
        requests = ReCreatReadVarList(&list);
        benchmark::DoNotOptimize(requests);
    }
    if (requests <= 0) state.SkipWithError("the rebuild produced no request");
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["requests"] = requests;
}
BENCHMARK(BM_ReCreatReadVarList)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// One address text through the parser; range(0) is the data type.
void BM_StringAddressToInt(benchmark::State& state) {
    const int dataType = static_cast<int>(state.range(0));
    const QString text = dataType <= ABCL_BIT_B ? QStringLiteral("7:10/3") : QStringLiteral("7:10");
    const int expected = dataType <= ABCL_BIT_B ? 28835 : 1802;
    int packed = 0;
    for (auto _ : state) {
        packed = StringAddressToInt(dataType, text);
        benchmark::DoNotOptimize(packed);
    }
    if (packed != expected) state.SkipWithError("wrong packed address");
}
BENCHMARK(BM_StringAddressToInt)->ArgName("type")->Arg(ABCL_BIT_A)->Arg(ABCL_WORD_B);

// `n` cyclic requests with random word addresses over a whole area, as a
// working list holds them before the merge.
QList<RW_VAR> RandomRequests(int n, bool sorted) {
    std::mt19937 rng(7u);
    std::uniform_int_distribution<int> address(0, 65535);
    std::uniform_int_distribution<int> count(1, 32);
    QList<RW_VAR> list;
    for (int i = 0; i < n; ++i) {
        RW_VAR v;
        v.dataType = ABCL_WORD_B;
        v.address = sorted ? i * 4 : address(rng);
        v.count = count(rng);
        v.addrText = QStringLiteral("7:%1").arg(i % 256);
        list.append(v);
    }
    return list;
}

// Bubble_Sort alone; range(1) is 1 for input that is already in order.
void BM_Bubble_Sort(benchmark::State& state) {
    const QList<RW_VAR> input =
        RandomRequests(static_cast<int>(state.range(0)), state.range(1) != 0);
    QList<RW_VAR> work;
    for (auto _ : state) {
        state.PauseTiming();
        work = input;
        work.detach();  // the sort's own detach is then free, as in the rebuild
        state.ResumeTiming();
        Bubble_Sort(&work);
        benchmark::DoNotOptimize(work.first().address);
    }
    for (int i = 1; i < work.size(); ++i)
        if (work.at(i).address < work.at(i - 1).address) state.SkipWithError("not sorted");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Bubble_Sort)
    ->ArgNames({"n", "sorted"})
    ->Args({10000, 0})
    ->Args({10000, 1})
    ->Unit(benchmark::kMillisecond);

// For comparison: the adjacent-swap sort taken literally (n - 1 passes, each
// carrying the smallest remaining address down to its place), swapping list
// nodes only. This is what a quadratic sort would cost the rebuild.
void AdjacentSwapSort(QList<RW_VAR>* list) {
    const int n = list->size();
    for (int i = 0; i + 1 < n; ++i)
        for (int j = n - 1; j > i; --j)
            if (list->at(j).address < list->at(j - 1).address) list->swapItemsAt(j, j - 1);
}

void BM_AdjacentSwapSortForComparison(benchmark::State& state) {
    const QList<RW_VAR> input = RandomRequests(static_cast<int>(state.range(0)), false);
    QList<RW_VAR> work;
    for (auto _ : state) {
        state.PauseTiming();
        work = input;
        work.detach();
        state.ResumeTiming();
        AdjacentSwapSort(&work);
        benchmark::DoNotOptimize(work.first().address);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_AdjacentSwapSortForComparison)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
