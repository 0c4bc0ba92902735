// hostsim's choice of plug-in when --plugin names none: the installed layout
// beside its own program first, then the build tree.
#include "plugin_locator.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
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

// A file holding `bytes`, removed when the test ends.
class PluginFile : public ::testing::Test {
protected:
    std::string write(const std::string& bytes) {
        path_ = "/tmp/plugin_build_" + std::to_string(getpid()) + ".so";
        std::ofstream(path_, std::ios::binary) << bytes;
        return path_;
    }
    void TearDown() override { std::remove(path_.c_str()); }

private:
    std::string path_;
};

TEST_F(PluginFile, VersionTextWithoutABuildNameIsTheDefaultBuild) {
    const std::string bytes = std::string(
                                  "\x7f"
                                  "ELF junk\0",
                                  10) +
                              std::string("AB_ControlLogix_CompactLogix 1.2.3\0tail", 40);
    EXPECT_EQ(hostsim::PluginBuildText(write(bytes)), "1.2.3, default build");
}

TEST_F(PluginFile, HardenedAfterTheVersionIsTheHardenedBuild) {
    const std::string bytes = std::string("AB_ControlLogix_CompactLogix 10.0.1 hardened\0", 45);
    EXPECT_EQ(hostsim::PluginBuildText(write(bytes)), "10.0.1, hardened build");
}

TEST_F(PluginFile, TheNameWithoutAVersionIsPassedOver) {
    // A class name in a symbol or message, then the version text itself.
    const std::string bytes = std::string("AB_ControlLogix_CompactLogix object\0", 36) +
                              std::string("AB_ControlLogix_CompactLogix 2.0 something\0", 43) +
                              std::string("AB_ControlLogix_CompactLogix 2.0 hardened\0", 42);
    EXPECT_EQ(hostsim::PluginBuildText(write(bytes)), "2.0, hardened build");
}

TEST_F(PluginFile, NoVersionTextOrNoFileIsSaid) {
    EXPECT_EQ(hostsim::PluginBuildText(write("nothing here")), "no version text");
    EXPECT_EQ(hostsim::PluginBuildText("/nonexistent/libplugin.so"), "no version text");
}

TEST(SelfExecutablePath, NamesThisTestProgram) {
    const std::string self = hostsim::SelfExecutablePath();
    ASSERT_FALSE(self.empty());
    EXPECT_EQ(self.front(), '/');
    EXPECT_NE(self.find("plugin_locator"), std::string::npos) << self;
    EXPECT_EQ(access(self.c_str(), X_OK), 0);
}

}  // namespace
