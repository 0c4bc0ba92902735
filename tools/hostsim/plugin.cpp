#include "plugin.h"

#include <dlfcn.h>

namespace hostsim {

namespace {

template <typename Fn>
bool Resolve(void* handle, const char* name, Fn* fn, std::string* missing) {
    void* symbol = dlsym(handle, name);
    if (!symbol) {
        if (missing->empty()) *missing = name;
        return false;
    }
    *fn = reinterpret_cast<Fn>(symbol);
    return true;
}

}  // namespace

Plugin::~Plugin() {
    unload();
}

void Plugin::unload() {
    if (handle_) dlclose(handle_);
    handle_ = nullptr;
    api_ = PluginApi();
}

bool Plugin::load(const std::string& path, std::string* error) {
    unload();
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        if (error) *error = "cannot load plug-in " + path + ": " + (why ? why : "unknown reason");
        return false;
    }
    PluginApi api;
    std::string missing;
    bool ok = true;
    ok &= Resolve(handle, "FlashLocalRegister", &api.FlashLocalRegister, &missing);
    ok &= Resolve(handle, "SetComInfo", &api.SetComInfo, &missing);
    ok &= Resolve(handle, "RegistCallBackFuncIntf", &api.RegistCallBackFuncIntf, &missing);
    ok &= Resolve(handle, "QueryFinishFlag", &api.QueryFinishFlag, &missing);
    ok &= Resolve(handle, "ComCommunication", &api.ComCommunication, &missing);
    ok &= Resolve(handle, "DataCom", &api.DataCom, &missing);
    ok &= Resolve(handle, "PLCAddressChangeIntef", &api.PLCAddressChangeIntef, &missing);
    ok &= Resolve(handle, "AddListReadVar", &api.AddListReadVar, &missing);
    ok &= Resolve(handle, "ReCreatReadVarList", &api.ReCreatReadVarList, &missing);
    ok &= Resolve(handle, "AddListWriteVar", &api.AddListWriteVar, &missing);
    ok &= Resolve(handle, "AddListOnceReadVar", &api.AddListOnceReadVar, &missing);
    ok &= Resolve(handle, "GetRegisterData", &api.GetRegisterData, &missing);
    ok &= Resolve(handle, "SetRegisterData", &api.SetRegisterData, &missing);
    if (!ok) {
        if (error) *error = "the plug-in " + path + " has no entry point '" + missing + "'";
        dlclose(handle);
        return false;
    }
    handle_ = handle;
    path_ = path;
    api_ = api;
    return true;
}

}  // namespace hostsim
