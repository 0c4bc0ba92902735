// What the driver costs in memory:
//
//   memory entries           heap bytes per queued entry of each kind
//   memory soak [N]          N exchanges (default 1,000,000) in this process
//                            against a controller that drops 1% of the
//                            replies, with writes and one-shot reads mixed
//                            in; heap in use every tenth of the run
//
// Heap figures are the C library's bytes in use (mallinfo2), read in this
// process, so nothing else on the machine changes them. The plug-in's resident
// cost: memory_resident. bench/memory.sh runs them all.
#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"
#include "fresh_driver.h"
#include "memory_support.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

int64_t HeapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<int64_t>(info.uordblks + info.hblkhd);
}

peer::PluginApi LinkedApi() {
    peer::PluginApi api;
#define ABCL_LINK_ENTRY_POINT(name) api.name = &::name;
    PEER_PLUGIN_ENTRY_POINTS(ABCL_LINK_ENTRY_POINT)
#undef ABCL_LINK_ENTRY_POINT
    return api;
}

int OnceReadDone(int, int, int, int) {
    return 0;
}

// A screen's one-shot read and a write, as the panel's screens hand them in.
void ScreenCalls(const peer::PluginApi& api, int64_t exchange, const QByteArray& values) {
    if (exchange % 10 == 0)
        api.SetRegisterData(QString(), ABCL_WORD_B, QStringLiteral("7:60"), 1,
                            const_cast<QByteArray*>(&values), 2, 5, 0);
    if (exchange % 50 == 0) {
        RW_VAR var;
        var.varId = 9;
        var.dataType = ABCL_WORD_B;
        var.addrText = QStringLiteral("7:80");
        var.count = 3;
        api.AddListOnceReadVar(&var, 0);
    }
}

int Soak(int64_t exchanges) {
    static ComInfo info;
    WireFreshDriver(info, 32);
    const peer::PluginApi api = LinkedApi();
    api.RegistCallBackFuncIntf(&OnceReadDone, 0);
    std::vector<ReadVarItem> storage;
    QList<ReadVarItem*> list = bench::PanelList(storage);
    api.ReCreatReadVarList(&list);
    bench::Controller controller;
    controller.dropEvery(100);  // 1% of the replies never come
    const QByteArray values("\x34\x12\x78\x56", 4);

    const int64_t tenth = exchanges / 10;
    std::printf("| exchanges | heap in use (bytes) |\n|---:|---:|\n");
    std::printf("| 0 | %lld |\n", static_cast<long long>(HeapInUse()));
    int64_t atFirstTenth = 0;
    int64_t highest = 0;
    int64_t done = 0;
    while (done < exchanges) {
        ScreenCalls(api, done, values);
        if (!bench::Exchange(api, controller)) continue;
        ++done;
        if (done % tenth != 0) continue;
        const int64_t heap = HeapInUse();
        if (done == tenth) atFirstTenth = heap;
        if (done > tenth && heap > highest) highest = heap;
        std::printf("| %lld | %lld |\n", static_cast<long long>(done),
                    static_cast<long long>(heap));
    }
    std::printf("\nhighest after the first tenth minus the first tenth: %lld bytes\n",
                static_cast<long long>(highest - atFirstTenth));
    return 0;
}

// Heap bytes per entry: n entries added by `add`, the difference divided.
template <typename Add>
double BytesPerEntry(int n, Add add) {
    const int64_t before = HeapInUse();
    for (int i = 0; i < n; ++i) add(i);
    return static_cast<double>(HeapInUse() - before) / n;
}

int Entries() {
    static ComInfo info;
    std::printf("| entry | heap bytes each |\n|---|---:|\n");

    WireFreshDriver(info, 32);
    const QString text = QStringLiteral("7:0");
    const double cyclic = BytesPerEntry(10000, [&text](int i) {
        RW_VAR var;
        var.dataType = ABCL_WORD_B;
        var.address = i;
        var.count = 10;
        var.addrText = text;
        AddListReadVar(&var);
    });
    std::printf("| cyclic request (`readList`) | %.0f |\n", cyclic);

    WireFreshDriver(info, 32);
    std::vector<QByteArray> arrays(1000, QByteArray("\x34\x12", 2));
    std::vector<QString> texts;
    for (int i = 0; i < 1000; ++i) texts.push_back(QStringLiteral("7:%1").arg(i));
    const double write = BytesPerEntry(1000, [&](int i) {
        SetRegisterData(QString(), ABCL_WORD_B, texts[i], 1, &arrays[i], 1, 3, 0);
    });
    std::printf(
        "| write of one word (`writeList`; value bytes shared with the host's array) "
        "| %.0f |\n",
        write);

    WireFreshDriver(info, 32);
    const double once = BytesPerEntry(1000, [&](int i) {
        RW_VAR var;
        var.dataType = ABCL_WORD_B;
        var.addrText = texts[i];
        var.count = 4;
        AddListOnceReadVar(&var, 0);
    });
    std::printf("| one-shot read (`onceReadList`) | %.0f |\n", once);

    WireFreshDriver(info, 32);
    RW_VAR read;
    read.dataType = ABCL_WORD_B;
    read.address = 7 * 256;
    read.count = 10;
    read.addrText = text;
    AddListReadVar(&read);
    const double protocol = BytesPerEntry(1, [](int) { ComCommunication(); });
    std::printf("| queued `Protocol` of a ten-word read (45-byte frame) | %.0f |\n", protocol);
    return 0;
}

int Usage() {
    std::fprintf(stderr, "usage: memory entries | memory soak [N]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return Usage();
    const std::string mode = argv[1];
    if (mode == "entries" && argc == 2) return Entries();
    if (mode == "soak" && argc <= 3) {
        const int64_t n = argc == 3 ? std::atoll(argv[2]) : 1000000;
        if (n < 10) return Usage();
        return Soak(n);
    }
    return Usage();
}
