// Pieces both memory programs use: the process's resident size, a
// controller answering in this process, and a panel's cyclic list.
#ifndef ABCL_BENCH_MEMORY_SUPPORT_H
#define ABCL_BENCH_MEMORY_SUPPORT_H

#include "ab_controllogix_compactlogix.h"
#include "linked_controller.h"
#include "peer/controller.h"
#include "peer/host_loop.h"
#include "peer/tag_memory.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace bench {

// VmRSS of this process, in KiB.
inline int64_t ResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atoll(line.c_str() + 6);
    return -1;
}

// A controller in this process, answering each request frame at once.
class Controller {
public:
    Controller() : memory_(peer::TagMemory::DefaultLayout()), controller_(memory_) {}
    void dropEvery(uint32_t n) {
        peer::FaultPlan plan;
        plan.drop.every = n;
        controller_.setFaults(plan);
    }
    QByteArray answer(const QByteArray& frame) { return replies::AnswerOf(controller_, frame); }

private:
    peer::TagMemory memory_;
    peer::Controller controller_;
};

// One exchange through the entry points; false when there was nothing to send.
inline bool Exchange(const peer::PluginApi& api, Controller& controller) {
    Protocol* p = api.ComCommunication();
    if (!p) return false;
    const QByteArray reply = controller.answer(p->frame);
    api.DataCom(reply, reply.size());
    return true;
}

// A panel's cyclic list: four variables of words, bits and REAL values.
inline QList<ReadVarItem*> PanelList(std::vector<ReadVarItem>& storage) {
    storage.resize(4);
    const struct {
        int type;
        const char* text;
        int count;
    } vars[] = {{ABCL_WORD_B, "7:0", 10},
                {ABCL_WORD_B, "7:40", 4},
                {ABCL_BIT_A, "3:0/0", 16},
                {ABCL_REAL, "8:0", 4}};
    QList<ReadVarItem*> list;
    for (int i = 0; i < 4; ++i) {
        storage[i].dataType = static_cast<uint8_t>(vars[i].type);
        storage[i].addrText = QString::fromLatin1(vars[i].text);
        storage[i].count = vars[i].count;
        list.append(&storage[i]);
    }
    return list;
}

}  // namespace bench

#endif
