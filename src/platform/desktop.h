// What the program hands to the desktop: a folder for the user to look at, a
// page for the web browser, a program to start, and the dialogs in which the
// user picks a file, several files or a folder to open, or a place to save
// one.
//
// The front end installs the desktop it knows, the way it installs the
// message box: a windowed front end its toolkit's services, the station
// program one that prints each hand-off. Without one, the default hands the
// work to the Linux desktop's own handlers (xdg-open, zenity).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kb::platform {

// Linux names files by their whole name, with no extension that the desktop
// needs, so the program's dialogs offer every file.
inline constexpr const char* AllFilesFilter = "All Files (*)|*|";

// One file dialog: to choose an existing file (or several) to open, an
// existing folder, or a path to save to.
struct FileDialogRequest {
    enum class Purpose { Open, Folder, Save };
    Purpose For = Purpose::Open;
    // The file name that a save dialog proposes; "" for none.
    std::string ProposedName;
    // The kinds of file offered, as "Name (*.ext)|*.ext|" pairs.
    std::string Filter;
    // What the dialog is for, as its title says; "" for the desktop's own
    // title of an open or save dialog.
    std::string Title;
};

class Desktop {
public:
    virtual ~Desktop() = default;

    // Opens a window of the desktop's file manager on the folder. Nothing
    // waits for it and nothing is told when it fails.
    virtual void ShowFolder(const std::string& path) = 0;
    // Asks the desktop's web browser to show the page, a file path or a URL.
    // True if a browser took the request; the page need not be shown yet.
    [[nodiscard]] virtual bool OpenInBrowser(const std::string& page) = 0;
    // Brings the browser that took the last page to the front.
    virtual void ActivateBrowser() = 0;
    // Starts the program at the path and returns at once; nothing waits for
    // it and nothing is told when it fails.
    virtual void StartProgram(const std::string& path) = 0;
    // The user's choice in a file dialog: the full path, or nothing when the
    // dialog was cancelled or could not be shown.
    [[nodiscard]] virtual std::optional<std::string> ChooseFile(
        const FileDialogRequest& request) = 0;
    // The user's choice in a dialog that takes several existing files at
    // once: their full paths, or none when the dialog was cancelled or
    // could not be shown.
    [[nodiscard]] virtual std::vector<std::string> ChooseFiles(
        const FileDialogRequest& request) = 0;
};

// The desktop installed, or the default.
Desktop& TheDesktop();
// Installs the front end's desktop; null restores the default. The desktop
// must outlive its installation.
void InstallDesktop(Desktop* desktop);

// The Linux desktop's own handlers, the default: xdg-open for folders and
// pages, the program itself for a program, zenity for the file dialogs. A
// page counts as taken when xdg-open accepts it (or is still busy handing it
// over after PageHandOffMs); with no graphical session, or without xdg-open,
// nothing takes it.
class LinuxDesktop : public Desktop {
public:
    static constexpr int PageHandOffMs = 2000;

    void ShowFolder(const std::string& path) override;
    [[nodiscard]] bool OpenInBrowser(const std::string& page) override;
    void ActivateBrowser() override;
    void StartProgram(const std::string& path) override;
    [[nodiscard]] std::optional<std::string> ChooseFile(const FileDialogRequest& request) override;
    [[nodiscard]] std::vector<std::string> ChooseFiles(const FileDialogRequest& request) override;
};

}  // namespace kb::platform
