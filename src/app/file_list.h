// The file list: the list control headed "File List", its buttons, and the
// engine's SendList behind it. Row n of the control is entry n of SendList
// while this end prepares to send; during a transfer the list shows what
// remains to go or to come.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "app/window_panel.h"

namespace kb::stores {
class Installation;
}  // namespace kb::stores

namespace kb::app {

using stores::Installation;
class MainWindow;
struct Permissions;

// What a drop on the list, or the menu's folder, hears during a call.
inline constexpr const char* FileListShutMessage = "The File List cannot change during a call.";

class FileListPanel final : public WindowPanel {
public:
    FileListPanel(MainWindow& window, Installation& stores) : window_(window), stores_(stores) {}

    [[nodiscard]] std::span<const int> ControlIds() const override;
    EventOutcome OnButton(int id) override;
    EventOutcome OnSelection(int id, int row) override;

    // True while the list holds anything to send.
    [[nodiscard]] bool HasFiles() const;
    // The list's buttons follow what the user may do.
    void ShowPermissions(const Permissions& may);

    // The button Add: the files chosen together in its dialog join the list.
    void OnFileAdd();
    // The File menu's "Add Folder to File List...": the folder chosen in its
    // dialog is taken as a drop of it is.
    void OnAddFolder();
    // Appends one file to SendList and the list. False if it was not added.
    bool AddFileToList(const std::string& path, const std::string& name);
    void AddFolderToSendList(const std::string& path, const std::string& name);
    void ClearFileList();
    void OnFileClear();
    void OnFileDelete();
    // A click on the file list that hit row (-1: no row).
    void OnFileClick(int row);
    // Files and folders dropped on the list or on Send, while no call is up.
    // A folder replaces what the list holds, so the user is asked first;
    // false if the answer kept the list as it was and nothing was taken.
    bool OnDropFiles(const std::vector<std::string>& paths);
    [[nodiscard]] int16_t SelectedFileRow() const { return selectedFileRow_.load(); }

    // During a transfer: the receiving side's list, and a finished file's row
    // leaving it.
    void ListIncomingFiles();
    void RemoveTopFileRow();

private:
    MainWindow& window_;
    Installation& stores_;
    std::atomic<int16_t> selectedFileRow_{-1};
};

}  // namespace kb::app
