// Loading the communication plug-in the way an HMI runtime does: dlopen by
// path and look up each of the 13 entry points by its name.
#ifndef HOSTSIM_PLUGIN_H
#define HOSTSIM_PLUGIN_H

#include "ab_controllogix_compactlogix.h"

#include <string>

namespace hostsim {

struct PluginApi {
    decltype(&::FlashLocalRegister) FlashLocalRegister = nullptr;
    decltype(&::SetComInfo) SetComInfo = nullptr;
    decltype(&::RegistCallBackFuncIntf) RegistCallBackFuncIntf = nullptr;
    decltype(&::QueryFinishFlag) QueryFinishFlag = nullptr;
    decltype(&::ComCommunication) ComCommunication = nullptr;
    decltype(&::DataCom) DataCom = nullptr;
    decltype(&::PLCAddressChangeIntef) PLCAddressChangeIntef = nullptr;
    decltype(&::AddListReadVar) AddListReadVar = nullptr;
    decltype(&::ReCreatReadVarList) ReCreatReadVarList = nullptr;
    decltype(&::AddListWriteVar) AddListWriteVar = nullptr;
    decltype(&::AddListOnceReadVar) AddListOnceReadVar = nullptr;
    decltype(&::GetRegisterData) GetRegisterData = nullptr;
    decltype(&::SetRegisterData) SetRegisterData = nullptr;
};

class Plugin {
public:
    Plugin() = default;
    ~Plugin();
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    // Loads the library and resolves every entry point. False with a reason
    // (the loader's message, or the first entry point that is missing); the
    // library is not kept loaded then.
    bool load(const std::string& path, std::string* error);
    // Unloads the library, which destroys the driver's state.
    void unload();

    const PluginApi& api() const { return api_; }
    const std::string& path() const { return path_; }

private:
    void* handle_ = nullptr;
    std::string path_;
    PluginApi api_;
};

}  // namespace hostsim

#endif
