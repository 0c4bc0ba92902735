// AddListReadVar appends to the cyclic read list without taking the list lock:
// it is a start-up call, made before communication begins, and ReCreatReadVarList
// (which holds the lock) is the way to change the list later. This program
// breaks that rule on purpose. A screen thread keeps appending while the
// communication thread serves the list through ComCommunication and DataCom,
// which rotate and read it under the lock; the append's growth and writes
// are not ordered with those reads.
//
// Built only with ThreadSanitizer. The run is expected to end in a data race
// report naming AddListReadVar; if both threads finish without one, the
// program says so and fails.
#include "ab_controllogix_compactlogix.h"
#include "fresh_driver.h"
#include "linked_controller.h"

#include <QtCore/QList>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

int main() {
    ComInfo info;
    WireFreshDriver(info);
    replies::LinkedController model;
    const peer::PluginApi api = replies::LinkedDriverApi();

    std::vector<ReadVarItem> items(2);
    items[0].dataType = ABCL_WORD_B;
    items[0].addrText = "7:0";
    items[0].count = 10;
    items[1].dataType = ABCL_REAL;
    items[1].addrText = "8:0";
    items[1].count = 4;
    QList<ReadVarItem*> list;
    for (ReadVarItem& item : items) list.append(&item);
    if (ReCreatReadVarList(&list) != 2) {
        std::fprintf(stderr, "the cyclic list was not built\n");
        return 2;
    }

    std::atomic<bool> screensDone{false};
    std::thread communication([&] {
        for (long i = 0; i < 2000000 && !screensDone.load(); ++i) replies::TurnLoop(api, model);
    });
    std::thread screens([&] {
        RW_VAR var;
        var.dataType = ABCL_WORD_B;
        var.address = 0x700;
        var.count = 1;
        var.station = 1;
        for (int i = 0; i < 20000; ++i) AddListReadVar(&var);
        screensDone = true;
    });
    screens.join();
    communication.join();

    std::printf("no race was reported: is this a ThreadSanitizer build?\n");
    return 1;
}
