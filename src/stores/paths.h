// Where an installation keeps what it owns.
//
// Every store file and folder lies directly below the folder in which the
// program was started, so two copies started in two folders are two separate
// installations. The paths are built once at start, before any other thread
// runs, and do not change afterwards; everyone else reads them only.
#pragma once

#include <string>

// Names below the installation's folder.
inline constexpr const char* PrefsFileName = "kestrelbound_prefs";
inline constexpr const char* DirectoryFileName = "kestrelbound_directory";
inline constexpr const char* LogFileName = "kestrelbound_log";
inline constexpr const char* ResumeFileName = "kestrelbound_resume";
inline constexpr const char* IncomingFolderName = "Incoming Files";
inline constexpr const char* PickUpFolderName = "Pick Up";
inline constexpr const char* HelpPageName = "Kestrelbound_Manual/Start_Here.html";

// The installation's folder, as it was given to BuildPaths.
extern const std::string& RootDirectory;
// The preferences file.
extern const std::string& PrefsPath;
// The correspondent directory file.
extern const std::string& DirectoryPath;
// The status log file.
extern const std::string& LogPath;
// The folder that received files go into.
extern const std::string& IncomingPath;
// The folder that holds a pick-up folder per correspondent.
extern const std::string& PickUpPath;
// The start page of the manual.
extern const std::string& HelpPath;
// The record of a received file that a cut-off call left for a resume.
std::string ResumeRecordPath();

// Builds every path from the installation's folder. An empty root, which is
// what is left when the current folder cannot be found, puts the paths at the
// root of the file system ("/kestrelbound_prefs"). A root that ends in "/"
// does not get a second one.
void BuildPaths(const std::string& root);
