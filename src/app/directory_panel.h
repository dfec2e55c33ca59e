// The directory panel: the list of correspondents, the form that shows and
// edits one record with its outgoing settings, its pick-up folder, and
// exported records going out and coming in.
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

// The outgoing line that the form sets up, as the estimate of a batch's time
// counts it.
struct OutgoingLine {
    bool At56k = false;
    bool TwoChannels = false;
};

class DirectoryPanel final : public WindowPanel {
public:
    DirectoryPanel(MainWindow& window, Installation& stores) : window_(window), stores_(stores) {}

    [[nodiscard]] std::span<const int> ControlIds() const override;
    EventOutcome OnButton(int id) override;
    EventOutcome OnSelection(int id, int row) override;
    EventOutcome OnBoxClicked(int id, bool checked) override;
    EventOutcome OnTextEdited(int id) override;

    void FillDirectoryList();
    void ShowCorrespondent(int16_t index);
    void SelectCorrespondent(int16_t index);
    void ShowSelectedCorrespondent();
    void ReadCorrespondentForm(int16_t index);
    void OnDirectorySelect();
    void OnDirectoryAdd();
    void OnDirectoryChange();
    void OnDirectoryDelete();
    void OnDirectoryNew();
    void OnFormChange();
    void OnEntryEdited();
    // Enters an exported record: 1 if a record was added. An entry that came
    // in a call may not bear the name of a record that is there already.
    enum class EntrySource { Dropped, Received };
    bool ImportDirectoryEntry(const std::string& path, EntrySource source = EntrySource::Dropped);
    // Items dropped on the directory list: an exported entry, the first item.
    void OnDropFiles(const std::vector<std::string>& paths);
    // The menu's "Export Directory Entry...": the record on show, to a file
    // chosen in a save dialog.
    EventOutcome OnExportEntry();
    [[nodiscard]] int16_t CurrentEntry() const { return currentEntry_.load(); }

    // After the adapter search: the outgoing protocols lose what the adapter
    // cannot do, its options show if it has them, and the form starts on the
    // first protocol and carrier.
    void OfferAdapter(const std::vector<std::string>& protocolsNotOffered, bool channelOptions);
    [[nodiscard]] OutgoingLine EstimatedLine() const;

    // Makes record index's folder below "Pick Up"; false after the message
    // when it exists already or cannot be made.
    bool CreatePickUpFolder(int16_t index);
    void OnCreatePickUpFolder();
    // The folder buttons: the folder of the record on show, or with Ctrl held
    // the folder of all pick-up folders.
    void OpenFolderInShell();
    void SelectSendMode();
    void SelectRetrieveMode();

private:
    // Trims the form's name and number, and says why a record of them
    // cannot be stored: no name, a number that cannot be dialled, or the
    // name of another record than the one being replaced (-1 for none).
    [[nodiscard]] bool FormCanBeStored(int16_t replacing);
    // Selects the record that carries SelectMark, shows it and makes it the
    // current one.
    void ShowMarkedRecord();

    MainWindow& window_;
    Installation& stores_;
    std::atomic<int16_t> currentEntry_{-1};
};

}  // namespace kb::app
