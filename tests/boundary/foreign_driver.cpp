// A stand-in for another vendor's driver in the same panel runtime: it
// exports the same 13 entry points with the same signatures, and counts every
// call that reaches it. Loaded first and globally, it is the first candidate
// for any call made through those names.
#include "ab_controllogix_compactlogix.h"

#include <atomic>

namespace {
std::atomic<int> g_calls{0};
// Values no call of the real driver returns where they appear.
constexpr int kForeignCount = 4242;
}  // namespace

extern "C" {

__attribute__((visibility("default"))) int ForeignDriverCalls() {
    return g_calls.load();
}

int FlashLocalRegister(void*, void*, void*) {
    ++g_calls;
    return kForeignCount;
}
void SetComInfo(ComInfo*) {
    ++g_calls;
}
void RegistCallBackFuncIntf(CallBackFunc, int) {
    ++g_calls;
}
int QueryFinishFlag() {
    ++g_calls;
    return kForeignCount;
}
Protocol* ComCommunication() {
    ++g_calls;
    return nullptr;
}
RW_VAR* DataCom(QByteArray, int) {
    ++g_calls;
    return nullptr;
}
int PLCAddressChangeIntef(int, QString) {
    ++g_calls;
    return kForeignCount;
}
int AddListReadVar(RW_VAR*) {
    ++g_calls;
    return kForeignCount;
}
int ReCreatReadVarList(QList<ReadVarItem*>*) {
    ++g_calls;
    return kForeignCount;
}
int AddListWriteVar(RW_VAR*, int) {
    ++g_calls;
    return kForeignCount;
}
int AddListOnceReadVar(RW_VAR*, int) {
    ++g_calls;
    return kForeignCount;
}
int GetRegisterData(int, int, QString, int, QByteArray*, int) {
    ++g_calls;
    return kForeignCount;
}
int SetRegisterData(QString, int, QString, int, QByteArray*, int, int, int) {
    ++g_calls;
    return kForeignCount;
}

}  // extern "C"
