#include "plugin_locator.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <iterator>
#include <vector>

namespace hostsim {

namespace {

bool IsFile(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// installRelative joined to the directory holding selfExe; empty when either
// is missing, as a bare relative path would depend on the working directory.
std::string InstallCandidate(const std::string& selfExe, const std::string& installRelative) {
    const auto slash = selfExe.rfind('/');
    if (installRelative.empty() || slash == std::string::npos) return {};
    if (installRelative.front() == '/') return installRelative;
    return selfExe.substr(0, slash + 1) + installRelative;
}

}  // namespace

std::string SelfExecutablePath() {
    std::vector<char> buffer(4096);
    const ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (n <= 0) return {};
    return std::string(buffer.data(), static_cast<std::size_t>(n));
}

std::string LocatePlugin(const std::string& selfExe, const std::string& installRelative,
                         const std::string& buildTreePath) {
    const std::string installed = InstallCandidate(selfExe, installRelative);
    if (IsFile(installed)) return installed;
    if (IsFile(buildTreePath)) return buildTreePath;
    return buildTreePath.empty() ? installed : buildTreePath;
}

namespace {

constexpr char kVersionPrefix[] = "AB_ControlLogix_CompactLogix ";
constexpr char kHardenedSuffix[] = " hardened";

// The version digits and dots at `at`; empty when there are none.
std::string VersionAt(const std::string& bytes, std::size_t at) {
    std::size_t end = at;
    while (end < bytes.size() &&
           (std::isdigit(static_cast<unsigned char>(bytes[end])) || bytes[end] == '.'))
        ++end;
    return bytes.substr(at, end - at);
}

}  // namespace

std::string PluginBuildText(const std::string& pluginPath) {
    std::ifstream file(pluginPath, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    const std::size_t prefixLength = sizeof kVersionPrefix - 1;
    for (std::size_t at = bytes.find(kVersionPrefix); at != std::string::npos;
         at = bytes.find(kVersionPrefix, at + 1)) {
        const std::string version = VersionAt(bytes, at + prefixLength);
        if (version.empty()) continue;
        // The text ends at its NUL; the build's name, if any, comes first.
        const std::size_t after = at + prefixLength + version.size();
        const std::size_t nul = bytes.find('\0', after);
        const std::string rest = bytes.substr(after, nul == std::string::npos ? 0 : nul - after);
        if (rest == kHardenedSuffix) return version + ", hardened build";
        if (rest.empty()) return version + ", default build";
    }
    return "no version text";
}

}  // namespace hostsim
