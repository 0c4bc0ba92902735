#include "plugin_locator.h"

#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace hostsim
