// The plug-in's name and version as plain text inside the file, so an
// integrator can tell which build sits on a panel with `strings` alone,
// without loading it; the hardened build says so after the version. Internal
// linkage: the exports stay the 13 entry points.
#ifndef ABCL_VERSION
#error "ABCL_VERSION must come from the build (project(VERSION ...))"
#endif

#if ABCL_HARDENED
#define ABCL_BUILD_NAME " hardened"
#else
#define ABCL_BUILD_NAME ""
#endif

namespace {

// "used": nothing refers to the text, and it must still reach the file.
__attribute__((used)) const char kVersionText[] =
    "AB_ControlLogix_CompactLogix " ABCL_VERSION ABCL_BUILD_NAME;

}  // namespace
