// Where an installation keeps what it owns.
//
// Every store file and folder lies directly below the folder in which the
// program was started, so two copies started in two folders are two separate
// installations.
#pragma once

#include <string>

namespace kb::stores {

// Names below the installation's folder.
inline constexpr const char* PrefsFileName = "kestrelbound_prefs";
inline constexpr const char* DirectoryFileName = "kestrelbound_directory";
inline constexpr const char* LogFileName = "kestrelbound_log";
inline constexpr const char* ResumeFileName = "kestrelbound_resume";
inline constexpr const char* WindowPlaceFileName = "kestrelbound_window";
inline constexpr const char* IncomingFolderName = "Incoming Files";
inline constexpr const char* PickUpFolderName = "Pick Up";
inline constexpr const char* HelpPageName = "Kestrelbound_Manual/Start_Here.html";

// Every path of one installation, built once from its folder and not changed
// afterwards, so any thread may read them. An empty root, which is what is
// left when the current folder cannot be found, puts the paths at the root of
// the file system ("/kestrelbound_prefs"). A root that ends in "/" does not
// get a second one.
struct StorePaths {
    explicit StorePaths(const std::string& root);

    // The installation's folder, as it was given.
    std::string RootDirectory;
    // The preferences file.
    std::string PrefsPath;
    // The correspondent directory file.
    std::string DirectoryPath;
    // The status log file.
    std::string LogPath;
    // The folder that received files go into.
    std::string IncomingPath;
    // The folder that holds a pick-up folder per correspondent.
    std::string PickUpPath;
    // The start page of the manual.
    std::string HelpPath;
    // The record of a received file that a cut-off call left for a resume.
    std::string ResumeRecordPath;
    // Where the desktop program keeps its window's size and place.
    std::string WindowPlacePath;
};

}  // namespace kb::stores
