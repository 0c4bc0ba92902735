// Where hostsim finds the plug-in when --plugin does not name one: beside its
// own program in the installed layout, else where the build tree put it. An
// installed hostsim must not depend on a build directory that may be gone.
#ifndef HOSTSIM_PLUGIN_LOCATOR_H
#define HOSTSIM_PLUGIN_LOCATOR_H

#include <string>

namespace hostsim {

// The running program's own path (/proc/self/exe), empty if it cannot be read.
std::string SelfExecutablePath();

// The first existing file of: the directory of selfExe joined with
// installRelative (such as "../lib/<folder>/libX.so"), then buildTreePath.
// When neither exists the build-tree path is returned (or, without one, the
// install candidate), so the loader's error names a path that was tried.
std::string LocatePlugin(const std::string& selfExe, const std::string& installRelative,
                         const std::string& buildTreePath);

// Which build a plug-in file is, read from the version text it carries
// ("AB_ControlLogix_CompactLogix <version>", then " hardened" for the
// hardened build), without loading it: "1.0.0, default build",
// "1.0.0, hardened build", or "no version text" when the file has none.
std::string PluginBuildText(const std::string& pluginPath);

}  // namespace hostsim

#endif  // HOSTSIM_PLUGIN_LOCATOR_H
