// The plug-in's resident cost, loaded as a panel runtime loads it:
//
//   memory_resident PLUGIN
//
// prints the process's resident size (VmRSS) before loading, once loaded,
// after a working cycle against a controller in this process, and with every
// element of the local image written. Qt Core is in the process before the
// plug-in is loaded, as it is in a panel runtime.
#include "fresh_driver.h"
#include "memory_support.h"

#include <cstdio>

namespace {

int Resident(const char* pluginPath) {
    // The controller's own memory is part of the process before loading.
    bench::Controller controller;
    const int64_t before = bench::ResidentKiB();
    peer::Plugin plugin;
    std::string error;
    if (!plugin.load(pluginPath, &error)) {
        std::fprintf(stderr, "memory: %s\n", error.c_str());
        return 1;
    }
    const int64_t loaded = bench::ResidentKiB();
    const peer::PluginApi& api = plugin.api();
    static ComInfo info;
    DefaultSettings(info, 32);
    api.SetComInfo(&info);
    std::vector<ReadVarItem> storage;
    QList<ReadVarItem*> list = bench::PanelList(storage);
    api.ReCreatReadVarList(&list);
    for (int i = 0; i < 1000; ++i) bench::Exchange(api, controller);
    const int64_t working = bench::ResidentKiB();
    // Every element of the three areas written: the image at its largest.
    info.writeMode = 1;
    QByteArray words(2 * 256, '\x55');
    for (int file = 0; file < 256; ++file) {
        const QString address = QStringLiteral("%1:0").arg(file);
        api.SetRegisterData(QString(), ABCL_WORD_A, address, 1, &words, 256, 0, 0);
        api.SetRegisterData(QString(), ABCL_WORD_B, address, 1, &words, 256, 0, 0);
        api.SetRegisterData(QString(), ABCL_REAL, address, 1, &words, 256, 0, 0);
    }
    const int64_t full = bench::ResidentKiB();
    std::printf("| state | VmRSS (KiB) | more than before loading |\n|---|---:|---:|\n");
    const struct {
        const char* state;
        int64_t kib;
    } rows[] = {{"before loading (Qt Core already in the process)", before},
                {"plug-in loaded", loaded},
                {"after 1,000 exchanges of a four-variable cyclic list", working},
                {"whole local image written", full}};
    for (const auto& row : rows)
        std::printf("| %s | %lld | %lld |\n", row.state, static_cast<long long>(row.kib),
                    static_cast<long long>(row.kib - before));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: memory_resident PLUGIN\n");
        return 2;
    }
    return Resident(argv[1]);
}
