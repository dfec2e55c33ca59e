#include "stores/paths.h"

#include <gtest/gtest.h>

TEST(PathsTest, EveryPathLiesDirectlyBelowTheRoot) {
    BuildPaths("/home/ann/kb");
    EXPECT_EQ(RootDirectory, "/home/ann/kb");
    EXPECT_EQ(PrefsPath, "/home/ann/kb/kestrelbound_prefs");
    EXPECT_EQ(DirectoryPath, "/home/ann/kb/kestrelbound_directory");
    EXPECT_EQ(LogPath, "/home/ann/kb/kestrelbound_log");
    EXPECT_EQ(IncomingPath, "/home/ann/kb/Incoming Files");
    EXPECT_EQ(PickUpPath, "/home/ann/kb/Pick Up");
    EXPECT_EQ(HelpPath, "/home/ann/kb/Kestrelbound_Manual/Start_Here.html");
}

TEST(PathsTest, AnEmptyRootPutsThePathsAtTheTopOfTheFileSystem) {
    BuildPaths("");
    EXPECT_EQ(RootDirectory, "");
    EXPECT_EQ(PrefsPath, "/kestrelbound_prefs");
    EXPECT_EQ(LogPath, "/kestrelbound_log");
    EXPECT_EQ(PickUpPath, "/Pick Up");
    EXPECT_EQ(HelpPath, "/Kestrelbound_Manual/Start_Here.html");

    // The top of the file system as a root gives the same paths, not "//".
    BuildPaths("/");
    EXPECT_EQ(PrefsPath, "/kestrelbound_prefs");
    BuildPaths("/srv/kb/");
    EXPECT_EQ(IncomingPath, "/srv/kb/Incoming Files");
}
