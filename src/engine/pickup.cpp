// The buttons that start a call, and the pick-up folders: fetched by their
// correspondent calling in, or sent by themselves once they stop changing.

#include "engine/pickup.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/comm_pass.h"
#include "engine/dialing.h"
#include "engine/display.h"
#include "engine/sessions.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/files.h"
#include "stores/directory.h"
#include "stores/folder_tree.h"

namespace kb::engine {

using namespace kb::platform;
using namespace kb::stores;

namespace {

constexpr int16_t RequestLimitMs = 500;
// A request with fewer digits would be found inside nearly any stored number.
constexpr int RequestMinDigits = 4;
// Entries of a pick-up folder looked at, "." and ".." among them.
constexpr size_t ScannedEntries = 100;

// Zeroes the pick-up counters when a clear has been asked for since the last
// one served (engine.Clears).
void ServeHotFolderClears(TransferEngine& engine) {
    const uint32_t asked = engine.Clears.Asked.load();
    if (asked == engine.Clears.Served) {
        return;
    }
    engine.Clears.Served = asked;
    for (int i = 0; i <= engine.Stores().Directory.Count.load() && i < DirectorySlots; ++i) {
        if (engine.Stores().Directory[i].HotSend != 0) {
            engine.Stores().Directory[i].HotBytes = 0;
        }
    }
}

bool ValidIndex(int16_t index) {
    return index >= 0 && index < DirectorySlots;
}

// The digits of a stored number up to a second number behind "+" or "&".
std::string FirstNumberDigits(const std::string& stored) {
    std::string digits;
    for (const char c : stored) {
        if (c == '+' || c == '&') {
            break;
        }
        if (c >= '0' && c <= '9') {
            digits += c;
        }
    }
    return digits;
}

}  // namespace

void ClearHotFolderCounters(TransferEngine& engine) {
    engine.Clears.Asked.fetch_add(1);
    if (!OnCommThread(engine)) {
        ServeHotFolderClears(engine);
    }
}

std::optional<int16_t> ScanPickUpFolder(TransferEngine& engine, int16_t index, uint32_t& total) {
    total = 0;
    if (!ValidIndex(index)) {
        return std::nullopt;
    }
    const std::string folder =
        PickUpFolderOf(engine.Stores().Paths.PickUpPath, engine.Stores().Directory[index]);
    std::vector<FolderEntry> entries;
    if (folder.empty() || !ListFolder(folder, entries)) {
        return std::nullopt;
    }
    int16_t count = 0;
    for (size_t i = 0; i < entries.size() && i < ScannedEntries; ++i) {
        // Subfolders, and whatever is no plain file, neither count nor go;
        // nor does a file too large to send, so that a folder holding only
        // such a file neither dials nor is offered empty, again and again.
        if (entries[i].IsFile && FileSizeCanBeSent(entries[i].Size)) {
            ++count;
            total += static_cast<uint32_t>(entries[i].Size);
        }
    }
    return count;
}

void EnsureSentFilesFolder(TransferEngine& engine, int16_t index) {
    if (!ValidIndex(index)) {
        return;
    }
    const std::string folder =
        PickUpFolderOf(engine.Stores().Paths.PickUpPath, engine.Stores().Directory[index]);
    if (!folder.empty()) {
        // A folder that is there already serves as well.
        static_cast<void>(CreateFolder(folder + "/Sent Files"));
    }
}

std::optional<RetrieveFolder> FindRetrieveFolder(TransferEngine& engine,
                                                 const std::string& number) {
    for (int i = 0; i <= engine.Stores().Directory.Count.load() && i < DirectorySlots; ++i) {
        const Correspondent& record = engine.Stores().Directory[i];
        // A record whose name cannot be a folder has no folder to give.
        if (FirstNumberDigits(FieldText(record.IsdnNumber)).find(number) == std::string::npos ||
            record.HasPickUp == 0 ||
            PickUpFolderOf(engine.Stores().Paths.PickUpPath, record).empty()) {
            continue;
        }
        uint32_t total = 0;
        const auto index = static_cast<int16_t>(i);
        // A folder that has gone is answered as found, and yields its marker
        // alone.
        const std::optional<int16_t> files = ScanPickUpFolder(engine, index, total);
        return RetrieveFolder{index, !files || *files != 0};
    }
    return std::nullopt;
}

void LoadPickUpFolder(TransferEngine& engine, int16_t index) {
    if (!ValidIndex(index)) {
        return;
    }
    const std::string folder =
        PickUpFolderOf(engine.Stores().Paths.PickUpPath, engine.Stores().Directory[index]);
    if (!folder.empty()) {
        Display(engine).AddFolderToSendList(folder,
                                            FieldText(engine.Stores().Directory[index].FirmName));
    }
}

void AnswerRetrieveRequest(TransferEngine& engine) {
    RetrieveRequest request;
    if (engine.Line->ReadBlock(&request, sizeof request, RequestLimitMs) < sizeof request) {
        return;  // no answer; the caller's watchdog ends the call
    }
    const std::string number(request.LocalNumber.View());
    const auto digits =
        std::count_if(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; });
    // A short number is answered as one that no record knows.
    const std::optional<RetrieveFolder> found =
        digits < RequestMinDigits ? std::nullopt : FindRetrieveFolder(engine, number);
    if (!found) {
        engine.Stores().Log.Add("Retrieve request from " + number);
        SendToken(engine, TokenNoFileDir);
        engine.Stores().Log.Add("No retrieve folder found.");
        return;
    }
    if (!found->HasFiles) {
        engine.Stores().Log.Add("Retrieve request from " + number);
        SendToken(engine, TokenNoFileAvail);
        engine.Stores().Log.Add("No files to be retrieved.");
        return;
    }
    const int16_t index = found->Index;
    engine.Stores().Log.Add("Retrieve request from " +
                            FieldText(engine.Stores().Directory[index].FirmName));
    engine.Stores().Log.Add("at " + number);
    Display(engine).SelectCorrespondent(index);
    engine.Call.Role = Role::Sender;
    engine.PickupSend = true;
    EnsureSentFilesFolder(engine, index);
    LoadPickUpFolder(engine, index);
    StartSendSession(engine);
}

std::optional<int16_t> HotFolderDue(TransferEngine& engine) {
    if (engine.Call.LinkState.load() != LinkState::Idle) {
        return std::nullopt;
    }
    ServeHotFolderClears(engine);
    for (int i = 0; i <= engine.Stores().Directory.Count.load() && i < DirectorySlots; ++i) {
        Correspondent& record = engine.Stores().Directory[i];
        if (record.HotSend == 0) {
            continue;
        }
        uint32_t total = 0;
        const std::optional<int16_t> files =
            ScanPickUpFolder(engine, static_cast<int16_t>(i), total);
        if (!files || *files == 0) {
            continue;
        }
        if (total == 0) {
            record.HotBytes = 0;
            continue;
        }
        if (total != record.HotBytes) {
            record.HotBytes = total;
            continue;
        }
        // Unchanged since the last look: it goes out now.
        record.HotBytes = 0;
        return static_cast<int16_t>(i);
    }
    return std::nullopt;
}

}  // namespace kb::engine
