#include "app/file_list.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/pickup.h"
#include "engine/transfer_engine.h"
#include "engine/wire.h"
#include "platform/desktop.h"
#include "platform/files.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::engine;
using namespace kb::platform;
using namespace kb::resources;

namespace {

constexpr size_t NameMaxLength = 31;
constexpr size_t PathMaxLength = 511;
// An extension longer than this is not worth keeping when a name is shortened.
constexpr size_t ExtensionKeptMaxLength = 10;

// Removes "/" from the end of a path, but leaves the root alone.
std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

bool IsProgramName(const std::string& name) {
    return name.find(".exe") != std::string::npos || name.find(".EXE") != std::string::npos;
}

constexpr int FileListControls[] = {IDC_LABEL_FILE_LIST, IDC_FILE_LIST,  IDC_FILE_ADD,
                                    IDC_FILE_DELETE,     IDC_FILE_CLEAR, IDC_DIR_SCRATCH};

}  // namespace

std::string FileNameOfPath(const std::string& path) {
    // "/" itself has no name.
    return NameOfPath(WithoutTrailingSlash(path));
}

// The name announced and shown for a file, at most 31 bytes. A longer name
// keeps its extension, so that the far end still knows what kind of file it
// holds: the stem is shortened in front of it.
std::string ShortDisplayName(const std::string& name) {
    if (name.size() <= NameMaxLength) {
        return name;
    }
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0 && name.size() - dot <= ExtensionKeptMaxLength) {
        const std::string extension = name.substr(dot);
        const std::string stem = name.substr(0, dot);
        return stem.substr(0, WholeCharactersWithin(stem, NameMaxLength - extension.size())) +
               extension;
    }
    return name.substr(0, WholeCharactersWithin(name, NameMaxLength));
}

std::span<const int> FileListPanel::ControlIds() const {
    return FileListControls;
}

EventOutcome FileListPanel::OnButton(int id) {
    switch (id) {
        case IDC_FILE_ADD:
            OnFileAdd();
            return {};
        case IDC_FILE_DELETE:
            OnFileDelete();
            return {};
        case IDC_FILE_CLEAR:
            OnFileClear();
            return {};
        default:
            return WindowPanel::OnButton(id);
    }
}

EventOutcome FileListPanel::OnSelection(int id, int row) {
    if (id == IDC_FILE_LIST) {
        OnFileClick(row);
        return {};
    }
    return WindowPanel::OnSelection(id, row);
}

bool FileListPanel::HasFiles() const {
    return !window_.Engine().SendList.IsEmpty();
}

void FileListPanel::ShowPermissions(const Permissions& may) {
    ControlModel& controls = Controls();
    controls.Enable(IDC_FILE_ADD, may.EditFiles);
    controls.Enable(IDC_FILE_CLEAR, may.ClearFiles);
    // Delete takes the row clicked last; adding a file forgets it.
    controls.Enable(IDC_FILE_DELETE, may.ClearFiles && selectedFileRow_.load() != -1);
}

void FileListPanel::OnFileAdd() {
    FileDialogRequest request;
    request.Filter = AllFilesFilter;
    for (const std::string& chosen : TheDesktop().ChooseFiles(request)) {
        // A file of length 0 is accepted here, unlike in a drop.
        AddFileToList(chosen, FileNameOfPath(chosen));
    }
}

void FileListPanel::OnAddFolder() {
    // The menu stays open during a call, when the list takes nothing.
    if (window_.Engine().Call.LinkState.load() != LinkState::Idle) {
        ShowMessageBox(FileListShutMessage);
        return;
    }
    FileDialogRequest request;
    request.For = FileDialogRequest::Purpose::Folder;
    if (const std::optional<std::string> chosen = TheDesktop().ChooseFile(request)) {
        OnDropFiles({*chosen});
    }
}

bool FileListPanel::AddFileToList(const std::string& path, const std::string& name) {
    SendList& list = window_.Engine().SendList;
    const int16_t count = list.Count();
    // SendList has ListCapacity slots and the wire list no more; an entry
    // beyond them is refused, and the user is told in the log.
    if (list.IsFull()) {
        stores_.Log.Add("File list is full: " + name + " was not added.");
        return false;
    }
    if (path.size() > PathMaxLength) {
        stores_.Log.Add("Path too long: " + name + " was not added.");
        return false;
    }
    File file;
    if (!file.Open(path, File::Mode::Read)) {
        ShowMessageBox("Cannot open file.  It may be in use by another application.");
        return false;
    }
    const std::optional<int64_t> length = file.Length();
    file.Close();
    // The sending side's block counters cannot count a longer file; it is
    // refused here, before any call, and never fails in the middle of one.
    // A file whose length cannot be told is refused the same way, since
    // nothing can be promised about it.
    if (!length || !FileSizeCanBeSent(static_cast<uint64_t>(*length))) {
        stores_.Log.Add("File too large to send: " + name);
        return false;
    }
    const uint64_t dataLength = DataLengthForSize(static_cast<uint64_t>(*length));

    FileEntry entry;
    entry.FilePath.Set(path);
    const std::string shown = ShortDisplayName(name);
    entry.DisplayName.Set(shown);
    entry.EntryKind = IsProgramName(name) ? FileKind::ProgramFile : FileKind::PlainFile;
    SetEntryLengths(entry, static_cast<uint32_t>(dataLength));
    entry.CreatorCode = DefaultCreatorCode;
    entry.TypeCode = DefaultTypeCode;
    if (!list.Add(entry)) {
        return false;  // refused as full above; the list changes on no other thread now
    }
    // The size shown is the file's, without the checksum bytes of the wire.
    Controls().InsertRow(IDC_FILE_LIST, count,
                         ListRow{shown, std::to_string(*length), KindNumber(entry.EntryKind)});
    selectedFileRow_.store(-1);
    Controls().Select(IDC_FILE_LIST, -1);
    window_.UpdateActionButtons();
    window_.Display().ShowBatchEstimate(list.Remaining());
    return true;
}

void FileListPanel::AddFolderToSendList(const std::string& path, const std::string& name) {
    // A folder replaces whatever the list held, so that several folders in
    // one drop leave only the last.
    ClearFileList();
    const std::string folder = WithoutTrailingSlash(path);

    FileEntry marker;
    marker.FilePath.Set(folder);
    const std::string shown = ShortDisplayName(name);
    marker.DisplayName.Set(shown);
    marker.EntryKind = FileKind::FolderMarker;
    marker.CreatorCode = DefaultCreatorCode;
    marker.TypeCode = DefaultTypeCode;
    Controls().InsertRow(IDC_FILE_LIST, 0, ListRow{shown, "", KindNumber(FileKind::FolderMarker)});
    window_.Engine().SendList.StartFolder(marker);

    // The folder is read by its full path, so the process's current folder
    // never changes. A folder that cannot be read leaves the marker alone.
    std::vector<FolderEntry> entries;
    if (!ListFolder(folder, entries)) {
        return;
    }
    // Only the plain files directly inside travel, in the order the file
    // system lists them; subfolders, "Sent Files" among them, stay behind.
    std::vector<std::string> files;
    for (const FolderEntry& item : entries) {
        // A FIFO, device or socket stays behind with the subfolders.
        if (item.IsFile) {
            files.push_back(item.Name);
        }
    }
    const std::string base = folder == "/" ? folder : folder + "/";
    for (size_t i = 0; i < files.size(); ++i) {
        if (window_.Engine().SendList.IsFull()) {
            stores_.Log.Add("File list is full: " + std::to_string(files.size() - i) +
                            " files of " + name + " were not added.");
            break;
        }
        // Files of length 0 are taken too, unlike in a drop.
        AddFileToList(base + files[i], files[i]);
    }
}

void FileListPanel::ClearFileList() {
    ControlModel& controls = Controls();
    controls.ClearRows(IDC_FILE_LIST);
    controls.Enable(IDC_FILE_DELETE, false);
    controls.Enable(IDC_FILE_CLEAR, false);
    window_.Engine().SendList.Clear();
    selectedFileRow_.store(-1);
    window_.UpdateActionButtons();
    window_.Display().ShowBatchEstimate(0);
}

void FileListPanel::OnFileClear() {
    ClearFileList();
}

void FileListPanel::OnFileDelete() {
    const int16_t row = selectedFileRow_.load();
    if (row == -1) {
        return;
    }
    // A row without an entry behind it leaves the list as it is.
    window_.Engine().SendList.Remove(row);
    Controls().DeleteRow(IDC_FILE_LIST, row);
    selectedFileRow_.store(-1);
    window_.UpdateActionButtons();
    window_.Display().ShowBatchEstimate(window_.Engine().SendList.Remaining());
}

void FileListPanel::OnFileClick(int row) {
    selectedFileRow_.store(static_cast<int16_t>(row < 0 ? -1 : row));
    Controls().Select(IDC_FILE_LIST, row);
    if (window_.Engine().Call.LinkState.load() == LinkState::Idle) {
        Controls().Enable(IDC_FILE_DELETE, row >= 0);
    }
}

bool FileListPanel::OnDropFiles(const std::vector<std::string>& paths) {
    // A folder replaces the list, and of several folders in one drop the
    // last stays: a list that holds anything goes only when the user says so.
    std::string replacing;
    for (const std::string& dropped : paths) {
        const std::string path = WithoutTrailingSlash(dropped);
        std::vector<FolderEntry> entries;
        if (KindOfPath(path) == PathKind::Folder && ListFolder(path, entries)) {
            replacing = FileNameOfPath(path);
        }
    }
    if (!replacing.empty() && HasFiles() &&
        !AskYesNo("The folder \"" + replacing +
                  "\" takes the place of everything in the File List.\rReplace the list?")) {
        return false;
    }
    // What cannot be read is named and left out; the rest of the drop
    // stays. Taken for a folder, it would replace the list with a marker
    // of its own name, and the files dropped with it would be gone
    // without a word.
    std::string unreadable;
    for (const std::string& dropped : paths) {
        const std::string path = WithoutTrailingSlash(dropped);
        const std::string name = FileNameOfPath(path);
        const PathKind kind = KindOfPath(path);
        // A FIFO, device or socket is never opened: it is passed over as
        // a subfolder of a dropped folder would be.
        if (kind == PathKind::Other) {
            continue;
        }
        if (kind == PathKind::Folder) {
            std::vector<FolderEntry> entries;
            if (ListFolder(path, entries)) {
                AddFolderToSendList(path, name);
            } else {
                unreadable += "\r" + path;
            }
            continue;
        }
        File file;
        if (kind == PathKind::File && file.Open(path, File::Mode::Read)) {
            const std::optional<int64_t> length = file.Length();
            file.Close();
            // A dropped file of length 0 is skipped; one whose length cannot
            // be told is passed on, and adding it judges it again.
            if (!length || *length != 0) {
                AddFileToList(path, name);
            }
        } else {
            unreadable += "\r" + path;
        }
    }
    if (!unreadable.empty()) {
        ShowMessageBox("These could not be opened and were not added:" + unreadable);
    }
    return true;
}

void FileListPanel::ListIncomingFiles() {
    const uint32_t count =
        std::min<uint32_t>(window_.Engine().Call.ReceiveCount.load(), ListCapacity);
    for (uint32_t i = 0; i < count; ++i) {
        const FileEntry& entry = window_.Engine().ReceiveList[i];
        // The size here includes the checksum bytes of the wire.
        const std::string size =
            entry.EntryKind == FileKind::FolderMarker ? "" : std::to_string(entry.TotalLength);
        Controls().AddRow(IDC_FILE_LIST, ListRow{std::string(entry.DisplayName.View()), size,
                                                 KindNumber(entry.EntryKind)});
    }
}

void FileListPanel::RemoveTopFileRow() {
    Controls().DeleteRow(IDC_FILE_LIST, 0);
}

}  // namespace kb::app
