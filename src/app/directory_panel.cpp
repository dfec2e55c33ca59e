#include "app/directory_panel.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/chosen_call.h"
#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/pickup.h"
#include "engine/wire.h"
#include "line/adapter_family.h"
#include "line/profiles.h"
#include "platform/desktop.h"
#include "platform/files.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/folder_tree.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

namespace {

// clang-format off
constexpr int DirectoryControls[] = {
    IDC_LABEL_DIRECTORY, IDC_DIRECTORY_LIST,
    // The form of one record, with its outgoing settings.
    IDC_FORM, IDC_NAME, IDC_NUMBER, IDC_LABEL_ISDN, IDC_LABEL_TELEPHONE,
    IDC_LABEL_PROTOCOL, IDC_PROTOCOL, IDC_LABEL_CARRIER, IDC_CARRIER, IDC_56K, IDC_2B, IDC_V42,
    IDC_ADD, IDC_CHANGE, IDC_DELETE, IDC_NEW,
    // Its pick-up folder, and the hot folders of all.
    IDC_MAKE_FOLDER, IDC_FOLDER_EMPTY, IDC_FOLDER_FILLED, IDC_HOT_EMPTY, IDC_HOT_FILLED,
    IDC_HOT_RETRIEVE, IDC_HOT_SEND, IDC_IGNORE_HOT,
};
// clang-format on
constexpr int FolderButtons[] = {IDC_MAKE_FOLDER, IDC_FOLDER_EMPTY, IDC_FOLDER_FILLED,
                                 IDC_HOT_EMPTY, IDC_HOT_FILLED};
constexpr uint8_t ExportedEntryMagic[4] = {'K', 'B', 'D', 'e'};

bool InRange(int16_t index) {
    return index >= 0 && index < DirectorySlots;
}

void ShowOnlyFolderButton(int shown) {
    for (int id : FolderButtons) {
        Controls().Show(id, id == shown);
    }
}

void ShowForm(bool firm) {
    Controls().Show(IDC_LABEL_ISDN, firm);
    Controls().Show(IDC_LABEL_TELEPHONE, !firm);
}

// The row of the outgoing protocol list that names the record's protocol.
// A protocol that the list does not offer (AIMUX on a ZyXEL, or on a port
// too slow for it) shows as V.120, the first row, as a saved incoming
// protocol does: shown by its number, a ZyXEL's AIMUX would land on the row
// that says X.75, and a Change would store X.75 in its place.
int RowNamingProtocol(int32_t protocol) {
    if (protocol >= ProtocolV120 && protocol <= ProtocolX75) {
        const std::vector<ListRow> rows = Controls().Rows(IDC_PROTOCOL);
        for (size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].Text == ProtocolNames[protocol]) {
                return static_cast<int>(i);
            }
        }
    }
    return 0;
}

uint32_t Swapped(int32_t value) {
    uint32_t raw = static_cast<uint32_t>(value);
    SwapLong(&raw);
    return raw;
}

constexpr const char* PickUpFolderRefusal =
    "Could not create a new pick up directory for this correspondent.\r  Please check to see "
    "that you do not already have a directory\r in your Pick Up folder by this name.";

// Whether a record other than `except` bears the name as its firm name.
bool NameInDirectory(const CorrespondentDirectory& directory, std::string_view name,
                     int16_t except = -1) {
    const int16_t count = directory.Count.load();
    for (int16_t i = 0; i < count; ++i) {
        if (i != except && FieldText(directory[i].FirmName) == name) {
            return true;
        }
    }
    return false;
}

// A file dropped on the directory list that is no entry is named, so that a
// drop aimed at the file list, or a damaged entry, does not pass unnoticed.
void ShowNoEntryMessage(const std::string& path) {
    ShowMessageBox("This file is no exported directory entry and was not added:\r" + path);
}

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

CallRequest ChosenCall() {
    ControlModel& controls = Controls();
    CallRequest call;
    call.Number = controls.Text(IDC_NUMBER);
    call.Name = controls.Text(IDC_NAME);
    call.CarrierRow = controls.Selection(IDC_CARRIER);
    call.Line.Protocol =
        ProtocolNamed(controls.RowText(IDC_PROTOCOL, controls.Selection(IDC_PROTOCOL)));
    call.Line.At56k = controls.Checked(IDC_56K);
    call.Line.TwoChannels = controls.Checked(IDC_2B);
    call.Line.Compression = controls.Checked(IDC_V42);
    return call;
}

bool NumberCanBeDialled(const std::string& number) {
    bool digits = false;
    for (const char c : number) {
        if (c >= '0' && c <= '9') {
            digits = true;
        } else if (std::string_view(" -()/.+&").find(c) == std::string_view::npos) {
            return false;
        }
    }
    return digits;
}

std::string UndiallableNumberMessage(const std::string& number) {
    return "The ISDN number \"" + number +
           "\" cannot be dialled.\rPlease use digits; spaces and + & - ( ) / . may stand "
           "between them.";
}

std::span<const int> DirectoryPanel::ControlIds() const {
    return DirectoryControls;
}

EventOutcome DirectoryPanel::OnButton(int id) {
    switch (id) {
        case IDC_ADD:
            OnDirectoryAdd();
            return {};
        case IDC_CHANGE:
            OnDirectoryChange();
            return {};
        case IDC_DELETE:
            OnDirectoryDelete();
            return {};
        case IDC_NEW:
            OnDirectoryNew();
            // The form is empty for a new record, whose name comes first.
            Controls().RequestFocus(IDC_NAME);
            return {};
        case IDC_MAKE_FOLDER:
            OnCreatePickUpFolder();
            return {};
        case IDC_FOLDER_EMPTY:
        case IDC_FOLDER_FILLED:
        case IDC_HOT_EMPTY:
        case IDC_HOT_FILLED:
            OpenFolderInShell();
            return {};
        default:
            return WindowPanel::OnButton(id);
    }
}

EventOutcome DirectoryPanel::OnSelection(int id, int row) {
    Controls().Select(id, row);
    switch (id) {
        case IDC_DIRECTORY_LIST:
            OnDirectorySelect();
            break;
        case IDC_FORM:
            OnFormChange();
            break;
        case IDC_PROTOCOL:
            window_.Display().RecomputeSendTotal();
            break;
        default:
            // The carrier: the choice itself is all there is.
            break;
    }
    return {};
}

EventOutcome DirectoryPanel::OnBoxClicked(int id, bool checked) {
    switch (id) {
        case IDC_HOT_SEND:
            SelectSendMode();
            break;
        case IDC_HOT_RETRIEVE:
            SelectRetrieveMode();
            break;
        case IDC_56K:
        case IDC_2B:
        case IDC_V42:
            window_.Display().RecomputeSendTotal();
            break;
        case IDC_IGNORE_HOT:
            // Takes effect at the next tick of the hot folder timer.
            stores_.Prefs.IgnoreHotFolders = checked ? 1 : 0;
            break;
        default:
            break;
    }
    return {};
}

EventOutcome DirectoryPanel::OnTextEdited(int /*id*/) {
    OnEntryEdited();
    return {};
}

void DirectoryPanel::OfferAdapter(const std::vector<std::string>& protocolsNotOffered,
                                  bool channelOptions) {
    ControlModel& controls = Controls();
    for (const std::string& protocol : protocolsNotOffered) {
        controls.DeleteRowWithText(IDC_PROTOCOL, protocol);
    }
    if (channelOptions) {
        controls.Show(IDC_2B, true);
        controls.Show(IDC_V42, true);
    }
    controls.Select(IDC_PROTOCOL, 0);
    controls.Select(IDC_CARRIER, 0);
    controls.Check(IDC_IGNORE_HOT, stores_.Prefs.IgnoreHotFolders != 0);
}

// AIMUX always takes two channels. With no row selected, which is the case
// until the adapter is known, the line is that of the first row, V.120, the
// protocol that the panel then selects.
OutgoingLine DirectoryPanel::EstimatedLine() const {
    ControlModel& controls = Controls();
    OutgoingLine line;
    line.At56k = controls.Checked(IDC_56K);
    const bool aimux =
        ProtocolOfRow(stores_.Prefs, controls.Selection(IDC_PROTOCOL)) == ProtocolAimux;
    line.TwoChannels = aimux || controls.Checked(IDC_2B);
    return line;
}

void DirectoryPanel::OnDropFiles(const std::vector<std::string>& paths) {
    if (paths.empty()) {
        return;
    }
    const std::string& first = paths.front();
    const bool exported = first.size() >= 4 && (first.compare(first.size() - 4, 4, ".KBE") == 0 ||
                                                first.compare(first.size() - 4, 4, ".kbe") == 0);
    if (exported) {
        ImportDirectoryEntry(first);
    } else {
        ShowNoEntryMessage(first);
    }
}

void DirectoryPanel::FillDirectoryList() {
    ControlModel& controls = Controls();
    controls.ClearRows(IDC_DIRECTORY_LIST);
    const int16_t count =
        std::clamp<int16_t>(stores_.Directory.Count.load(), 0, DirectoryMaxRecords);
    for (int16_t i = 0; i < count; ++i) {
        controls.AddRow(IDC_DIRECTORY_LIST,
                        ListRow{FieldText(stores_.Directory[i].FirmName), "", 0});
    }
}

void DirectoryPanel::ShowCorrespondent(int16_t index) {
    if (!InRange(index)) {
        return;
    }
    ControlModel& controls = Controls();
    Correspondent& record = stores_.Directory[index];
    controls.Select(IDC_FORM, 0);
    ShowForm(true);
    controls.SetText(IDC_NAME, FieldText(record.FirmName));
    controls.SetText(IDC_NUMBER, FieldText(record.IsdnNumber));
    // Putting text into the fields is an edit of them, as the user's is.
    OnEntryEdited();

    controls.Select(IDC_PROTOCOL, RowNamingProtocol(record.Protocol));
    controls.Select(IDC_CARRIER, record.Carrier);
    controls.Check(IDC_56K, record.Use56K != 0);
    controls.Check(IDC_2B, record.Use2B != 0);
    controls.Check(IDC_V42, record.UseV42 != 0);

    std::optional<int16_t> files;
    if (record.HasPickUp != 0) {
        uint32_t bytes = 0;
        files = ScanPickUpFolder(window_.Engine(), index, bytes);
        if (!files) {
            // The folder has gone; the record has none from now on.
            record.HasPickUp = 0;
        }
    }
    if (record.HasPickUp == 0) {
        ShowOnlyFolderButton(IDC_MAKE_FOLDER);
        controls.Show(IDC_HOT_SEND, false);
        controls.Show(IDC_HOT_RETRIEVE, false);
    } else {
        const bool hot = record.HotSend != 0;
        if (files == 0) {
            ShowOnlyFolderButton(hot ? IDC_HOT_EMPTY : IDC_FOLDER_EMPTY);
        } else {
            ShowOnlyFolderButton(hot ? IDC_HOT_FILLED : IDC_FOLDER_FILLED);
        }
        controls.Show(IDC_HOT_SEND, true);
        controls.Show(IDC_HOT_RETRIEVE, true);
        controls.Check(IDC_HOT_SEND, hot);
        controls.Check(IDC_HOT_RETRIEVE, !hot);
        EnsureSentFilesFolder(window_.Engine(), index);
    }
    window_.UpdateActionButtons();
}

void DirectoryPanel::ReadCorrespondentForm(int16_t index) {
    if (!InRange(index)) {
        return;
    }
    ControlModel& controls = Controls();
    Correspondent& record = stores_.Directory[index];
    if (controls.Selection(IDC_FORM) == 1) {
        SetFieldText(record.ContactName, controls.Text(IDC_NAME));
        SetFieldText(record.ContactPhone, controls.Text(IDC_NUMBER));
    } else {
        SetFieldText(record.FirmName, controls.Text(IDC_NAME));
        SetFieldText(record.IsdnNumber, controls.Text(IDC_NUMBER));
    }
    // The protocol the selected row names, as for a call; no row is V.120.
    record.Protocol =
        ProtocolNamed(controls.RowText(IDC_PROTOCOL, controls.Selection(IDC_PROTOCOL)));
    record.Carrier = std::max(controls.Selection(IDC_CARRIER), 0);
    record.Use56K = controls.Checked(IDC_56K) ? 1 : 0;
    record.Use2B = controls.Checked(IDC_2B) ? 1 : 0;
    record.UseV42 = controls.Checked(IDC_V42) ? 1 : 0;
    record.HotSend = controls.Checked(IDC_HOT_SEND) ? 1 : 0;
}

void DirectoryPanel::ShowMarkedRecord() {
    const int16_t count = stores_.Directory.Count.load();
    for (int16_t i = 0; i < count; ++i) {
        if (stores_.Directory[i].SelectMark != 0) {
            Controls().Select(IDC_DIRECTORY_LIST, i);
            currentEntry_.store(i);
            ShowCorrespondent(i);
            return;
        }
    }
}

void DirectoryPanel::OnDirectorySelect() {
    const int row = Controls().Selection(IDC_DIRECTORY_LIST);
    if (row < 0 || row >= stores_.Directory.Count.load()) {
        return;
    }
    currentEntry_.store(static_cast<int16_t>(row));
    for (int id : {IDC_CHANGE, IDC_DELETE, IDC_NEW}) {
        Controls().Enable(id, true);
    }
    ShowCorrespondent(static_cast<int16_t>(row));
    // The estimate follows the settings just shown.
    window_.Display().RecomputeSendTotal();
}

bool DirectoryPanel::FormCanBeStored(int16_t replacing) {
    ControlModel& controls = Controls();
    // Blanks around a name or a number are no part of it, and two records
    // whose names differ only by them would look the same in the list.
    const std::string name = Trimmed(controls.Text(IDC_NAME));
    const std::string number = Trimmed(controls.Text(IDC_NUMBER));
    controls.SetText(IDC_NAME, name);
    controls.SetText(IDC_NUMBER, number);
    if (controls.Selection(IDC_FORM) == 1) {
        return true;  // a contact's name and telephone are only kept
    }
    if (name.empty()) {
        ShowMessageBox("Please type the correspondent's name.");
        return false;
    }
    if (!NumberCanBeDialled(number)) {
        ShowMessageBox(UndiallableNumberMessage(number));
        return false;
    }
    if (NameInDirectory(stores_.Directory, CutToWholeCharacters(name, FirmNameMaxLength),
                        replacing)) {
        ShowMessageBox(name + " is in your Directory already.\rPlease choose another name.");
        return false;
    }
    return true;
}

void DirectoryPanel::OnDirectoryAdd() {
    const int16_t count = stores_.Directory.Count.load();
    if (count >= DirectoryMaxRecords) {
        ShowMessageBox(
            "Directory already has 128 entries.\r  Please delete an entry before adding a new "
            "one.");
        return;
    }
    if (!FormCanBeStored(-1)) {
        return;
    }
    ReadCorrespondentForm(count);
    stores_.Directory.Count.store(static_cast<int16_t>(count + 1));
    for (int16_t i = 0; i <= count; ++i) {
        stores_.Directory[i].SelectMark = 0;
    }
    stores_.Directory[count].SelectMark = 1;
    stores_.Directory[count].HasPickUp = 0;
    SortDirectory(stores_.Directory);
    FillDirectoryList();
    SaveDirectory(stores_.Directory, stores_.Paths.DirectoryPath);
    ShowMarkedRecord();
    // A new record has no pick-up folder until the user makes one.
    Controls().Show(IDC_MAKE_FOLDER, true);
    Controls().Show(IDC_FOLDER_EMPTY, false);
    Controls().Show(IDC_FOLDER_FILLED, false);
    // The new record is on show and chosen, as if clicked in the list.
    for (int id : {IDC_CHANGE, IDC_DELETE, IDC_NEW}) {
        Controls().Enable(id, true);
    }
}

void DirectoryPanel::OnDirectoryChange() {
    const int16_t current = currentEntry_.load();
    const int16_t count = stores_.Directory.Count.load();
    if (current < 0 || current >= count) {
        return;
    }
    if (!FormCanBeStored(current)) {
        return;
    }
    ControlModel& controls = Controls();
    Correspondent& record = stores_.Directory[current];
    const std::string newName(CutToWholeCharacters(controls.Text(IDC_NAME), FirmNameMaxLength));
    if (record.HasPickUp != 0 && controls.Selection(IDC_FORM) == 0 &&
        newName != FieldText(record.FirmName)) {
        // The folder follows the name; a rename that fails shows later as a
        // folder that has gone. A name that cannot be a folder never becomes
        // a path, so the folder stays where it is and the record loses it.
        const std::string folder = PickUpFolderOf(stores_.Paths.PickUpPath, record);
        if (!folder.empty() && NameCanBeFolder(newName)) {
            static_cast<void>(RenamePath(folder, stores_.Paths.PickUpPath + "/" + newName));
        }
    }
    for (int16_t i = 0; i < count; ++i) {
        stores_.Directory[i].SelectMark = 0;
    }
    record.SelectMark = 1;
    ReadCorrespondentForm(current);
    SortDirectory(stores_.Directory);
    FillDirectoryList();
    SaveDirectory(stores_.Directory, stores_.Paths.DirectoryPath);
    ShowMarkedRecord();
}

void DirectoryPanel::OnDirectoryDelete() {
    const int16_t current = currentEntry_.load();
    const int16_t count = stores_.Directory.Count.load();
    if (current < 0 || current >= count) {
        return;
    }
    const Correspondent& record = stores_.Directory[current];
    // A folder that still holds anything keeps its record alive. Its "Sent
    // Files" is made whenever the record is shown, so that one goes with it
    // while empty. A name that cannot be a folder has none to remove.
    const std::string folder = PickUpFolderOf(stores_.Paths.PickUpPath, record);
    if (record.HasPickUp != 0 && !folder.empty()) {
        static_cast<void>(RemoveFolder(folder + "/Sent Files"));
        if (!RemoveFolder(folder)) {
            ShowMessageBox(FieldText(record.FirmName) +
                           " stays in your Directory: its pick-up folder\r" + folder +
                           "\rstill holds files. Please move them elsewhere first.");
            return;
        }
    }
    // The zero slot behind the last record moves down with the others.
    for (int16_t i = current; i < count; ++i) {
        stores_.Directory[i] = stores_.Directory[i + 1];
    }
    stores_.Directory.Count.store(static_cast<int16_t>(count - 1));
    SortDirectory(stores_.Directory);
    SaveDirectory(stores_.Directory, stores_.Paths.DirectoryPath);
    FillDirectoryList();
    currentEntry_.store(-1);
    OnDirectoryNew();
}

void DirectoryPanel::OnDirectoryNew() {
    ControlModel& controls = Controls();
    controls.SetText(IDC_NAME, "");
    controls.SetText(IDC_NUMBER, "");
    controls.Select(IDC_PROTOCOL, 0);
    controls.Select(IDC_CARRIER, 0);
    for (int id : {IDC_56K, IDC_2B, IDC_V42}) {
        controls.Check(id, false);
    }
    for (int id : {IDC_ADD, IDC_CHANGE, IDC_DELETE, IDC_NEW}) {
        controls.Enable(id, false);
    }
    ShowOnlyFolderButton(0);
    controls.Show(IDC_HOT_SEND, false);
    controls.Show(IDC_HOT_RETRIEVE, false);
    controls.Select(IDC_DIRECTORY_LIST, -1);
    controls.Select(IDC_FORM, 0);
    // The labels follow the form chosen, so an empty form never says
    // "Telephone:" over a firm's number.
    ShowForm(true);
    currentEntry_.store(-1);
}

void DirectoryPanel::OnFormChange() {
    const int16_t current = currentEntry_.load();
    if (current < 0 || current >= stores_.Directory.Count.load()) {
        return;
    }
    ControlModel& controls = Controls();
    const Correspondent& record = stores_.Directory[current];
    const bool firm = controls.Selection(IDC_FORM) != 1;
    controls.SetText(IDC_NAME, firm ? FieldText(record.FirmName) : FieldText(record.ContactName));
    controls.SetText(IDC_NUMBER,
                     firm ? FieldText(record.IsdnNumber) : FieldText(record.ContactPhone));
    ShowForm(firm);
    controls.Enable(IDC_ADD, false);
    controls.Enable(IDC_CHANGE, true);
    controls.Enable(IDC_DELETE, firm);
    controls.Enable(IDC_NEW, true);
}

void DirectoryPanel::OnEntryEdited() {
    ControlModel& controls = Controls();
    // Add stores what the form shows as a new record. In the form "Contact:"
    // that record would have no firm name, no list row to show and no number
    // to dial, so Add stays off there.
    const bool firm = controls.Selection(IDC_FORM) != 1;
    const bool filled = !controls.Text(IDC_NAME).empty() && !controls.Text(IDC_NUMBER).empty();
    controls.Enable(IDC_ADD, firm && filled);
}

bool DirectoryPanel::ImportDirectoryEntry(const std::string& path, EntrySource source) {
    const int16_t count = stores_.Directory.Count.load();
    if (count >= DirectoryMaxRecords) {
        ShowMessageBox(
            "Your directory is full.\r Please delete an entry before adding a new entry.");
        return false;
    }
    // What a call brings that is no entry stays an ordinary file; only the
    // user's own drop hears why nothing was added.
    const auto noEntry = [&] {
        if (source == EntrySource::Dropped) {
            ShowNoEntryMessage(path);
        }
        return false;
    };
    File file;
    if (!file.Open(path, File::Mode::Read)) {
        return noEntry();
    }
    // A file whose length cannot be told is not taken for an entry.
    const std::optional<int64_t> length = file.Length();
    if (!length || *length != CorrespondentSize) {
        return noEntry();
    }
    Correspondent record{};
    const uint32_t got = file.Read(&record, CorrespondentSize);
    file.Close();
    if (got != CorrespondentSize) {
        return noEntry();
    }
    record.Protocol = static_cast<int32_t>(Swapped(record.Protocol)) - 1;
    record.Carrier = static_cast<int32_t>(Swapped(record.Carrier)) - 1;
    std::reverse(record.EntryMagic, record.EntryMagic + 4);
    // The magic reads "KBDe" in the file; reversed, as the record keeps it.
    const uint8_t expected[4] = {ExportedEntryMagic[3], ExportedEntryMagic[2],
                                 ExportedEntryMagic[1], ExportedEntryMagic[0]};
    if (std::memcmp(record.EntryMagic, expected, 4) != 0) {
        return noEntry();
    }
    // The name is also a folder name, and comes from someone else.
    const std::string name = FieldText(record.FirmName);
    if (!NameCanBeFolder(name)) {
        stores_.Log.Add("Directory Entry Not Added: its name cannot name a folder.");
        return false;
    }
    // A caller must not take over the record, and with it the pick-up
    // folder, of someone this end knows already.
    if (source == EntrySource::Received && NameInDirectory(stores_.Directory, name)) {
        stores_.Log.Add("Directory Entry Not Added: " + name + " is in the directory already.");
        return false;
    }
    stores_.Directory[count] = record;
    // The record has a pick-up folder only if one was made for it now: a
    // folder that was there before belongs to somebody else.
    if (record.HasPickUp != 0) {
        stores_.Directory[count].HasPickUp = 0;
        CreatePickUpFolder(count);
    }
    for (int16_t i = 0; i < count; ++i) {
        stores_.Directory[i].SelectMark = 0;
    }
    stores_.Directory[count].SelectMark = 1;
    stores_.Directory.Count.store(static_cast<int16_t>(count + 1));
    SortDirectory(stores_.Directory);
    SaveDirectory(stores_.Directory, stores_.Paths.DirectoryPath);
    FillDirectoryList();
    for (int16_t i = 0; i <= count; ++i) {
        if (stores_.Directory[i].SelectMark != 0) {
            Controls().Select(IDC_DIRECTORY_LIST, i);
            break;
        }
    }
    OnDirectorySelect();
    stores_.Log.Add("Directory Entry Added");
    return true;
}

bool DirectoryPanel::CreatePickUpFolder(int16_t index) {
    if (!InRange(index)) {
        return false;
    }
    const std::string folder = PickUpFolderOf(stores_.Paths.PickUpPath, stores_.Directory[index]);
    if (folder.empty() || !CreateFolder(folder)) {
        ShowMessageBox(PickUpFolderRefusal);
        return false;
    }
    stores_.Directory[index].HasPickUp = 1;
    Controls().Show(IDC_MAKE_FOLDER, false);
    Controls().Show(IDC_FOLDER_EMPTY, true);
    Controls().Show(IDC_FOLDER_FILLED, false);
    SaveDirectory(stores_.Directory, stores_.Paths.DirectoryPath);
    return true;
}

void DirectoryPanel::OnCreatePickUpFolder() {
    const int16_t current = currentEntry_.load();
    if (current < 0) {
        return;
    }
    CreatePickUpFolder(current);
    // The rest happens whether the folder was made or not.
    EnsureSentFilesFolder(window_.Engine(), current);
    Controls().Show(IDC_HOT_SEND, true);
    Controls().Show(IDC_HOT_RETRIEVE, true);
    SelectRetrieveMode();
}

void DirectoryPanel::OpenFolderInShell() {
    // With Ctrl held, the folder of all pick-up folders.
    if (KeyIsDown(Key::Control)) {
        TheDesktop().ShowFolder(stores_.Paths.PickUpPath);
        return;
    }
    const int16_t current = currentEntry_.load();
    if (current < 0 || current >= stores_.Directory.Count.load()) {
        return;
    }
    const std::string folder = PickUpFolderOf(stores_.Paths.PickUpPath, stores_.Directory[current]);
    if (!folder.empty()) {
        TheDesktop().ShowFolder(folder);
    }
}

void DirectoryPanel::SelectSendMode() {
    Controls().Check(IDC_HOT_SEND, true);
    Controls().Check(IDC_HOT_RETRIEVE, false);
}

void DirectoryPanel::SelectRetrieveMode() {
    Controls().Check(IDC_HOT_SEND, false);
    Controls().Check(IDC_HOT_RETRIEVE, true);
}

EventOutcome DirectoryPanel::OnExportEntry() {
    const int16_t current = currentEntry_.load();
    if (current < 0 || current >= stores_.Directory.Count.load()) {
        return EventOutcome{false, "no correspondent is on show"};
    }
    Correspondent exported = stores_.Directory[current];
    exported.Protocol = static_cast<int32_t>(Swapped(exported.Protocol + 1));
    exported.Carrier = static_cast<int32_t>(Swapped(exported.Carrier + 1));
    std::memcpy(exported.EntryMagic, ExportedEntryMagic, 4);

    FileDialogRequest request;
    request.For = FileDialogRequest::Purpose::Save;
    request.ProposedName = FieldText(exported.FirmName) + ".KBE";
    request.Filter = AllFilesFilter;
    const std::optional<std::string> chosen = TheDesktop().ChooseFile(request);
    if (!chosen) {
        return {};
    }
    File file;
    if (!file.Open(*chosen, File::Mode::CreateReadWrite) ||
        !file.Write(&exported, CorrespondentSize)) {
        ShowMessageBox("Cannot create exported directory entry file.");
    }
    return {};
}

void DirectoryPanel::SelectCorrespondent(int16_t index) {
    Controls().Select(IDC_DIRECTORY_LIST, index);
    ShowCorrespondent(index);
}

void DirectoryPanel::ShowSelectedCorrespondent() {
    ShowCorrespondent(static_cast<int16_t>(Controls().Selection(IDC_DIRECTORY_LIST)));
}

}  // namespace kb::app
