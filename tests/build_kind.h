// Which plug-in a test program checks: the default one, which reads the line
// as the protocol's own description does, or the hardened one (ABCL_HARDENED
// 1), which matches every reply to its request and refuses input that builds
// no sound frame. The definition comes with the driver's library, and for the
// programs that only load the plug-in, from their own build.
//
// A test that pins a behaviour only one of the two builds has begins with one
// of these macros, saying why the other build differs; in the other build it
// is reported as skipped with that reason.
#ifndef ABCL_TESTS_BUILD_KIND_H
#define ABCL_TESTS_BUILD_KIND_H

#include <gtest/gtest.h>

#ifndef ABCL_HARDENED
#error "ABCL_HARDENED must come from the build: 1 for the hardened plug-in, 0 for the default one"
#endif

// True in the hardened build.
constexpr bool kHardenedBuild = ABCL_HARDENED != 0;

// The default build's behaviour, which the hardened build deliberately changes.
#define ABCL_DEFAULT_BUILD_ONLY(why)                                       \
    do {                                                                   \
        if (kHardenedBuild) GTEST_SKIP() << "default build only: " << why; \
    } while (false)

// The hardened build's behaviour, where the default one does otherwise.
#define ABCL_HARDENED_BUILD_ONLY(why)                                        \
    do {                                                                     \
        if (!kHardenedBuild) GTEST_SKIP() << "hardened build only: " << why; \
    } while (false)

#endif
