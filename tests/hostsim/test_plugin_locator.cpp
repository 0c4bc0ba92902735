// hostsim's choice of plug-in when --plugin names none: the installed layout
// beside its own program first, then the build tree.
#include "plugin_locator.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

const char kRelative[] = "../lib/plug/libplugin.so";

// A fresh directory tree shaped like an install prefix and a build tree,
// removed again after each test.
class PluginLocatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/plugin_locator_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        for (const char* dir :
             {"/prefix", "/prefix/bin", "/prefix/lib", "/prefix/lib/plug", "/build"})
            ASSERT_EQ(mkdir((root_ + dir).c_str(), 0755), 0) << dir;
        Touch(Exe());
    }
    void TearDown() override {
        const std::string command = "rm -rf '" + root_ + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
    }

    static void Touch(const std::string& path) {
        std::ofstream(path) << "x";
        ASSERT_EQ(access(path.c_str(), F_OK), 0) << path;
    }
    std::string Exe() const { return root_ + "/prefix/bin/hostsim"; }
    std::string Installed() const { return root_ + "/prefix/bin/" + kRelative; }
    std::string Built() const { return root_ + "/build/libplugin.so"; }

    std::string root_;
};

TEST_F(PluginLocatorTest, InstalledLayoutWinsOverTheBuildTree) {
    Touch(Installed());
    Touch(Built());
    EXPECT_EQ(hostsim::LocatePlugin(Exe(), kRelative, Built()), Installed());
}

TEST_F(PluginLocatorTest, BuildTreeWhenNothingIsInstalled) {
    Touch(Built());
    EXPECT_EQ(hostsim::LocatePlugin(Exe(), kRelative, Built()), Built());
}

TEST_F(PluginLocatorTest, BuildTreePathWhenNeitherExists) {
    EXPECT_EQ(hostsim::LocatePlugin(Exe(), kRelative, Built()), Built());
}

TEST_F(PluginLocatorTest, InstallCandidateWhenNoBuildTreeIsKnown) {
    EXPECT_EQ(hostsim::LocatePlugin(Exe(), kRelative, ""), Installed());
}

TEST_F(PluginLocatorTest, ADirectoryIsNotAPlugin) {
    ASSERT_EQ(mkdir(Installed().c_str(), 0755), 0);
    Touch(Built());
    EXPECT_EQ(hostsim::LocatePlugin(Exe(), kRelative, Built()), Built());
}

TEST_F(PluginLocatorTest, UnknownOwnPathFallsBackToTheBuildTree) {
    Touch(Installed());
    Touch(Built());
    EXPECT_EQ(hostsim::LocatePlugin("", kRelative, Built()), Built());
}

TEST_F(PluginLocatorTest, AbsoluteInstallPathIsTakenAsItIs) {
    Touch(Installed());
    EXPECT_EQ(hostsim::LocatePlugin(Exe(), Installed(), Built()), Installed());
}

TEST(SelfExecutablePath, NamesThisTestProgram) {
    const std::string self = hostsim::SelfExecutablePath();
    ASSERT_FALSE(self.empty());
    EXPECT_EQ(self.front(), '/');
    EXPECT_NE(self.find("plugin_locator"), std::string::npos) << self;
    EXPECT_EQ(access(self.c_str(), X_OK), 0);
}

}  // namespace
