// The receiving side of a session: the tokens from SYNCON to the first file's
// data, and the admission of a list.
//
// Admission trusts nothing of what the far end announces. Names are made
// safe before they touch the disk, so that nothing is written outside the
// receive folder; counts and lengths that the lists and block counters cannot
// hold refuse the list; and an existing file is never overwritten.

#include <array>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/call_end.h"
#include "engine/display.h"
#include "engine/pickup.h"
#include "engine/receiving_session_test_hooks.h"
#include "engine/recovery.h"
#include "engine/resume_record.h"
#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

namespace {

constexpr int16_t TokenLineLimitMs = 500;
constexpr int16_t HeaderLimitMs = 500;
constexpr int16_t ListLimitMs = 1000;
constexpr size_t NameLimit = 31;
// A suffix such as "-A".
constexpr size_t SuffixLength = 2;
// A tail behind the last dot longer than this, dot included, is part of the
// name rather than what a program recognises the file by; the sending side
// keeps extensions of the same length when it shortens a name.
constexpr size_t ExtensionMaxLength = 10;

uint64_t FreeSpace(TransferEngine& engine) {
    std::lock_guard<std::mutex> guard(engine.FreeSpace.Lock);
    if (engine.FreeSpace.Query) {
        return engine.FreeSpace.Query();
    }
    // The volume that the files go to, which need not be the installation's.
    return FreeDiskSpace(engine.Stores().Paths.IncomingPath);
}

// What has come in behind a refused list is thrown away. Only the input goes:
// a purge of both queues would throw the refusal itself away with it, before
// it has left.
void DiscardInput(TransferEngine& engine) {
    uint8_t scratch[1024];
    uint32_t waiting = engine.Line->PortQueueCount(PortQueue::Input);
    while (waiting != 0) {
        const uint32_t chunk = waiting < sizeof scratch ? waiting : sizeof scratch;
        static_cast<void>(engine.Line->ReadBlock(scratch, chunk, 0));  // thrown away
        waiting -= chunk;
    }
}

// A refusal after the header: the far end is told, and what it sends behind
// the list is thrown away.
AdmitResult Refuse(TransferEngine& engine, const std::string& logLine) {
    engine.Stores().Log.Add(logLine);
    SendToken(engine, TokenNak4);
    DiscardInput(engine);
    return AdmitRefused;
}

// A file of the list cannot be made: the line saying so has gone to the log,
// and the far end is asked to stop, as when a section cannot be written.
AdmitResult AbortAdmission(TransferEngine& engine) {
    engine.Stores().Log.Add("Sending disconnect...");
    SendToken(engine, TokenAbort);
    engine.Call.ReceiveCount = 0;
    engine.Call.ReceiveListSize = 0;
    engine.Call.LastRxTime = engine.Clock.NowMs();
    return AdmitRefused;
}

// A data length that some file has: a whole number of sections, or a last
// section that holds its checksum and at least one byte.
bool DataLengthOfAFile(uint32_t dataLength) {
    return DataLengthFits(dataLength) && dataLength % SectionWireBytes != 1 &&
           dataLength % SectionWireBytes != 2;
}

// Too little room for the list: the far end is told, and its list thrown
// away.
AdmitResult RefuseForSpace(TransferEngine& engine) {
    engine.Stores().Log.Add("Not enough free space on volume.");
    SendToken(engine, TokenNak3);
    DiscardInput(engine);
    return AdmitRefused;
}

FileKind KindOf(const WireFileEntry& entry) {
    return static_cast<FileKind>(
        static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(entry.EntryKind))));
}

// The announced name as the entry's name fields hold it.
std::string AnnouncedName(const WireFileEntry& entry) {
    const std::string_view name = entry.Name.View();
    return std::string(name.substr(0, WholeCharactersWithin(name, NameLimit)));
}

// A folder's name taken already gets a letter behind it, the name cut so
// that the whole stays within the limit.
std::string SuffixedFolderName(const std::string& name, char letter) {
    return name.substr(0, WholeCharactersWithin(name, NameLimit - SuffixLength)) + "-" + letter;
}

// The first name free in the folder, the plain name or a suffix from -A to
// -Z; empty when all 27 are taken. A name planned for an earlier entry of the
// same list counts as taken, and so does anything at all on the disk under
// that name.
std::string FreeName(const std::string& folder, const std::string& name,
                     const std::set<std::string>& planned) {
    const auto isFree = [&](const std::string& candidate) {
        return planned.count(candidate) == 0 && !PathExists(folder + "/" + candidate);
    };
    if (isFree(name)) {
        return name;
    }
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const std::string candidate = SuffixedFileName(name, letter);
        if (isFree(candidate)) {
            return candidate;
        }
    }
    return {};
}

// The folder that a list opening with a marker gets: the plain name, or the
// first of -A to -Z that is free. Empty if none is.
std::string FreeFolderName(TransferEngine& engine, const std::string& name) {
    if (!PathExists(engine.Stores().Paths.IncomingPath + "/" + name)) {
        return name;
    }
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const std::string candidate = SuffixedFolderName(name, letter);
        if (!PathExists(engine.Stores().Paths.IncomingPath + "/" + candidate)) {
            return candidate;
        }
    }
    return {};
}

// Whether the list's first file takes up the file that a former call left:
// the same name, byte for byte, the same length, and the partial file still
// there as it was left.
bool ResumesSavedEntry(TransferEngine& engine, const std::string& announced, uint32_t dataLength) {
    const FileEntry& saved = engine.SavedEntry;
    return !saved.WireName.IsEmpty() && announced == saved.WireName.View() &&
           dataLength == saved.DataLength && SavedPartialIntact(engine);
}

// An empty file has arrived whole with the list. False, with the reason
// logged, if it cannot be made; whatever stands at the path stays.
bool MakeEmptyFile(TransferEngine& engine, const std::string& folder, const std::string& name) {
    File file;
    if (!file.Open(folder + "/" + name, File::Mode::CreateNew)) {
        LogCannotWrite(engine, name, file.OutOfSpace());
        return false;
    }
    engine.FiledFolder.Set(folder);
    return true;
}

// One file of the list as admission means to make it.
struct PlannedFile {
    int WireIndex = 0;
    std::string NameInUse;
    bool Recovered = false;
};

// A list on its way through admission. Each step either takes it further or
// refuses it, leaving in Result what AdmitFileList answers.
struct Admission {
    int Count = 0;
    bool Marker = false;     // the list opens with a folder marker
    std::string FolderName;  // the folder made for the marker's files
    std::string Folder;      // where the files go
    std::vector<PlannedFile> Plan;
    bool Recovered = false;  // the first file takes up a former call's
    AdmitResult Result = AdmitRefused;
};

// Step 1: the header and the entries, as far as they can be believed: the
// magic, a count the list can hold, whole entries, a marker only at the head,
// lengths a file can have, and room on the volume for both the header's total
// and the entries' sum, which a false total would otherwise hide.
bool ReadAndCheckList(TransferEngine& engine, Admission& list) {
    SessionHeader& header = engine.Call.InHeader;
    SwapSessionHeader(header);
    if (header.Magic != SessionMagic) {
        EndCall(engine, CallEnd::Fault);
        return false;
    }
    // In 64 bits: a volume with more than 4 GB free has room for any list.
    const uint64_t freeSpace = FreeSpace(engine);
    if (freeSpace < header.TotalBytes) {
        list.Result = RefuseForSpace(engine);
        return false;
    }
    if (header.FileCount > static_cast<uint32_t>(ListCapacity)) {
        list.Result = Refuse(engine, "Corrupted file list.");
        return false;
    }
    list.Count = static_cast<int>(header.FileCount);
    WireFileEntry* wire = engine.WireList.get();
    const uint32_t listBytes = static_cast<uint32_t>(list.Count) * sizeof(WireFileEntry);
    if (list.Count > 0 && engine.Line->ReadBlock(wire, listBytes, ListLimitMs) < listBytes) {
        list.Result = Refuse(engine, "Corrupted file list.");
        return false;
    }
    uint64_t announcedData = 0;
    for (int i = 0; i < list.Count; ++i) {
        SwapWireFileEntry(wire[i]);
        const FileKind kind = KindOf(wire[i]);
        if (kind == FileKind::FolderMarker ? i != 0 : !DataLengthOfAFile(wire[i].DataLength)) {
            list.Result = Refuse(engine, "Corrupted file list.");
            return false;
        }
        announcedData += kind == FileKind::FolderMarker ? 0 : wire[i].DataLength;
    }
    if (freeSpace < announcedData) {
        list.Result = RefuseForSpace(engine);
        return false;
    }
    list.Marker = list.Count > 0 && KindOf(wire[0]) == FileKind::FolderMarker;
    return true;
}

// Step 2: a name for the marker's folder and for every file, none of them
// taken on the disk or by an earlier file of the list. The list's first file
// with data may take up the file that a former call left; otherwise that
// file's chance has gone, and its name is free for this list.
bool PlanNames(TransferEngine& engine, Admission& list) {
    const WireFileEntry* wire = engine.WireList.get();
    list.Folder = engine.Stores().Paths.IncomingPath;
    if (list.Marker) {
        const std::string name = SafeReceivedName(AnnouncedName(wire[0]));
        list.FolderName = FreeFolderName(engine, name);
        if (list.FolderName.empty()) {
            list.Result = Refuse(engine, "Too many files named " + name);
            return false;
        }
        list.Folder = engine.Stores().Paths.IncomingPath + "/" + list.FolderName;
    }
    std::set<std::string> planned;
    bool firstFile = true;
    for (int i = list.Marker ? 1 : 0; i < list.Count; ++i) {
        const std::string announced = AnnouncedName(wire[i]);
        PlannedFile file;
        file.WireIndex = i;
        if (firstFile && wire[i].DataLength != 0) {
            firstFile = false;
            if (!list.Marker && ResumesSavedEntry(engine, announced, wire[i].DataLength)) {
                file.Recovered = list.Recovered = true;
                // Its own name is not on the disk until it is complete, and
                // no other file of the list may take it meanwhile.
                planned.insert(std::string(engine.SavedEntry.DisplayName.View()));
                list.Plan.push_back(file);
                continue;
            }
        }
        const std::string name = SafeReceivedName(announced);
        file.NameInUse = FreeName(list.Folder, name, planned);
        if (file.NameInUse.empty()) {
            list.Result = Refuse(engine, "Too many files named " + name);
            return false;
        }
        planned.insert(file.NameInUse);
        list.Plan.push_back(file);
    }
    return true;
}

// Step 3: the marker's folder, and every empty file, which has arrived whole
// with the list. A file with data has nothing on the disk until its turn
// comes (ReceiveList[0]). A part that a former call left goes unless this
// list takes it up.
bool MakeFilesAndFolders(TransferEngine& engine, Admission& list) {
    if (list.Marker) {
        if (!CreateFolder(list.Folder)) {
            list.Result = Refuse(engine, "Too many files named " + list.FolderName);
            return false;
        }
        engine.Stores().Log.Add("Created new folder: " + list.FolderName);
    }
    if (!list.Recovered) {
        EndRecoveryCandidacy(engine);
    }
    for (const PlannedFile& file : list.Plan) {
        if (!file.Recovered && engine.WireList[file.WireIndex].DataLength == 0 &&
            !MakeEmptyFile(engine, list.Folder, file.NameInUse)) {
            list.Result = AbortAdmission(engine);
            return false;
        }
    }
    return true;
}

// Step 4: ReceiveList and the wire list hold the files that have data to
// come, under the names in use; the bytes still to come are counted.
void FillReceiveList(TransferEngine& engine, const Admission& list) {
    WireFileEntry* wire = engine.WireList.get();
    engine.ReceiveFolder.Set(list.Folder);
    uint32_t kept = 0;
    for (const PlannedFile& file : list.Plan) {
        const WireFileEntry announced = wire[file.WireIndex];
        FileEntry& entry = engine.ReceiveList[kept];
        if (file.Recovered) {
            entry = engine.SavedEntry;
            entry.EntryComplete = 0;
            entry.StartTime = 0;
            wire[kept++] = announced;
            continue;
        }
        if (announced.DataLength == 0) {
            continue;
        }
        entry = FileEntry{};
        entry.WireName.Set(AnnouncedName(announced));
        // Its name in the folder; its path stays empty until its part is made.
        entry.DisplayName.Set(file.NameInUse);
        entry.EntryKind = KindOf(announced);
        SetEntryLengths(entry, announced.DataLength);
        entry.AuxLength = announced.AuxLength;
        entry.CreatorCode = announced.CreatorCode;
        entry.TypeCode = announced.TypeCode;
        wire[kept] = announced;
        wire[kept].Name.Set(file.NameInUse);
        ++kept;
    }
    engine.Call.ReceiveCount = kept;
    engine.Call.ReceiveListSize = static_cast<int16_t>(kept);
    if (list.Recovered) {
        engine.Call.ReceiveRemaining =
            RecoveryPositionOf(engine.RecoveryRecord.Body).ReceiveRemaining;
    } else if (list.Marker) {
        // A marker's list counts by its files: the marker itself brings no
        // data, whatever the header's total made of it.
        uint32_t total = 0;
        for (uint32_t i = 0; i < kept; ++i) {
            total += engine.ReceiveList[i].TotalLength;
        }
        engine.Call.ReceiveRemaining = total;
    } else {
        engine.Call.ReceiveRemaining = engine.Call.InHeader.TotalBytes;
    }
}

// Step 5: the first file's data is awaited.
void StartReceiving(TransferEngine& engine, const Admission& list) {
    EngineWindow& display = Display(engine);
    display.ListIncomingFiles();
    display.ShowBatchEstimate(engine.Call.ReceiveRemaining.load());
    engine.Call.ExpectedBlock = list.Recovered
                                    ? RecoveryPositionOf(engine.RecoveryRecord.Body).ExpectedBlock
                                    : ExpectedBlockOf(engine.ReceiveList[0]);
    SnapshotSection(engine);
    engine.Call.LinkState = LinkState::Transfer;
    engine.Call.BlockIndex = 0;
    engine.Stores().Log.Add(std::string(list.Recovered ? "Recovering File: " : "Receiving File: ") +
                            std::string(engine.ReceiveList[0].DisplayName.View()));
    display.ShowTransferDisplay(true);
    engine.Call.LastRxTime = engine.Clock.NowMs();
}

Dispatch OnListOffered(TransferEngine& engine) {
    if (engine.Call.LinkState.load() != LinkState::Connected) {
        return Dispatch::Next;
    }
    if (engine.Line->ReadBlock(&engine.Call.InHeader, sizeof(SessionHeader), HeaderLimitMs) <
        sizeof(SessionHeader)) {
        return Dispatch::Next;
    }
    switch (AdmitFileList(engine)) {
        case AdmitAccepted:
            SendToken(engine, TokenAck3);
            break;
        case AdmitRecovered:
            std::memcpy(engine.RecoveryRecord.Token, TokenFileResta3.Bytes(),
                        TokenFileResta3.Length());
            engine.Line->SendBytes(&engine.RecoveryRecord, sizeof(RecoveryMessage));
            std::memcpy(engine.RecoveryRecord.Token, TokenFileRecovr.Bytes(),
                        TokenFileRecovr.Length());
            break;
        case AdmitNothingToReceive:
            // Every file of the list was empty and stands on the disk already.
            SendToken(engine, TokenAck2);
            engine.Stores().Log.Add("All files received.");
            engine.Call.LastRxTime = engine.Clock.NowMs();
            return Dispatch::Next;
        default:
            // A list that could not be believed has ended the call.
            return engine.Call.LinkState.load() == LinkState::Idle ? Dispatch::Stop
                                                                   : Dispatch::Next;
    }
    engine.Call.BlockIndex = 0;
    engine.Call.TransferStartTime = WallSeconds();
    return Dispatch::Next;
}

// The holder's answer to a retrieve request came: there is nothing to fetch.
Dispatch OnNothingToRetrieve(TransferEngine& engine, CallEnd end) {
    if (engine.Call.LinkState.load() != LinkState::Connected ||
        !engine.Call.RetrievePending.load()) {
        return Dispatch::Next;  // this end asked for nothing
    }
    EndCall(engine, end);
    return Dispatch::Stop;
}

// What the receiving side hears outside a repair, in the order a line is
// looked at.
constexpr std::array<TokenRow, 6> ReceiverTokens{{
    {TokenSyncon.Text(),
     {},
     [](TransferEngine& engine) {
         SendToken(engine, TokenRcvcon);
         // A caller says once that it is there. One that says it again and
         // again, and nothing else, would otherwise hold the line for ever:
         // only the first renews the limit on silence.
         if (!engine.Call.Session.SynconHeard.exchange(true)) {
             engine.Call.LastRxTime = engine.Clock.NowMs();
         }
         return Dispatch::Next;
     }},
    {TokenH100.Text(), {}, OnListOffered},
    {TextNoCarrier,
     {},
     [](TransferEngine& engine) {
         if (engine.Call.LinkState.load() != LinkState::Connected) {
             return Dispatch::Next;
         }
         EndCall(engine, CallEnd::ReceiverLostLine);
         return Dispatch::Stop;
     }},
    {TokenRetrieve.Text(),
     {},
     [](TransferEngine& engine) {
         if (engine.Call.LinkState.load() == LinkState::Connected &&
             !engine.Call.RetrievePending.load()) {
             AnswerRetrieveRequest(engine);
         }
         return Dispatch::Next;
     }},
    {TokenNoFileDir.Text(),
     {},
     [](TransferEngine& engine) { return OnNothingToRetrieve(engine, CallEnd::NoRetrieveFolder); }},
    {TokenNoFileAvail.Text(),
     {},
     [](TransferEngine& engine) {
         return OnNothingToRetrieve(engine, CallEnd::NoFilesToRetrieve);
     }},
}};

}  // namespace

void SetFreeSpaceQuery(TransferEngine& engine, FreeSpaceQuery query) {
    std::lock_guard<std::mutex> guard(engine.FreeSpace.Lock);
    engine.FreeSpace.Query = std::move(query);
}

std::string SafeReceivedName(std::string_view announced) {
    std::string name(announced);
    for (char& c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || c == '\\' || byte < 0x20 || byte == 0x7F) {
            c = '_';
        }
    }
    if (name.empty() || name == "." || name == "..") {
        name = "_";
    }
    return name;
}

std::string SuffixedFileName(std::string_view name, char letter) {
    const size_t dot = name.rfind('.');
    const bool extension = dot != std::string_view::npos && dot > 0 && dot + 1 < name.size() &&
                           name.size() - dot <= ExtensionMaxLength;
    const std::string_view tail = extension ? name.substr(dot) : std::string_view();
    const std::string_view stem = name.substr(0, name.size() - tail.size());
    const size_t kept = WholeCharactersWithin(stem, NameLimit - SuffixLength - tail.size());
    return std::string(stem.substr(0, kept)) + "-" + letter + std::string(tail);
}

bool BeginReceivedFile(TransferEngine& engine, FileEntry& entry) {
    const std::string folder(engine.ReceiveFolder.View());
    const std::string name(entry.DisplayName.View());
    // The plain marker, or, where something stands under it already (a part
    // that a crash left, or a file of that name), a letter in front of it.
    File file;
    std::string path = folder + "/" + name + std::string(PartMarker);
    bool made = file.Open(path, File::Mode::CreateNew);
    for (char letter = 'A'; !made && letter <= 'Z' && PathExists(path); ++letter) {
        path = folder + "/" + name + "." + letter + std::string(PartMarker);
        made = file.Open(path, File::Mode::CreateNew);
    }
    if (made && !entry.FilePath.Set(path)) {
        static_cast<void>(DeleteFileAt(path));  // a path the entry cannot hold
        made = false;
    }
    if (!made) {
        entry.FilePath.Clear();
        LogCannotWrite(engine, name, file.OutOfSpace());
    }
    return made;
}

bool PublishReceivedFile(TransferEngine& engine, FileEntry& entry) {
    const std::string part(entry.FilePath.View());
    const std::string folder = FolderOfPath(part);
    const std::string planned(entry.DisplayName.View());
    // The name planned at admission, or, if something has taken it while the
    // file was on its way, the first of the announced name and its suffixes
    // that is free now. Nothing that stands there is ever replaced.
    const std::string announced = SafeReceivedName(entry.WireName.View());
    std::vector<std::string> names{planned, announced};
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        names.push_back(SuffixedFileName(announced, letter));
    }
    for (const std::string& name : names) {
        if (MoveFileNoReplace(part, folder + "/" + name)) {
            entry.DisplayName.Set(name);
            entry.FilePath.Set(folder + "/" + name);
            engine.FiledFolder.Set(folder);
            if (name != planned) {
                engine.Stores().Log.Add("Name taken meanwhile; saved as " + name);
            }
            return true;
        }
    }
    LogCannotWrite(engine, planned, false);
    return false;
}

void LogCannotWrite(TransferEngine& engine, const std::string& name, bool outOfSpace) {
    engine.Stores().Log.Add("Cannot write file: " + name);
    // The far end hears only that the session ends; this side says why.
    if (outOfSpace) {
        engine.Stores().Log.Add("Not enough free space on volume.");
    }
}

void EndRecoveryCandidacy(TransferEngine& engine) {
    FileEntry& saved = engine.SavedEntry;
    if (saved.WireName.IsEmpty()) {
        return;
    }
    // A file of that name that has another length is no longer the one this
    // program left, and is not touched.
    if (SavedPartialIntact(engine)) {
        // A part that will not go stays, as the user sees it.
        static_cast<void>(DeleteFileAt(std::string(saved.FilePath.View())));
    }
    ForgetResumeCandidate(engine);
}

void OnReceiverInput(TransferEngine& engine) {
    std::string line;
    if (!ReadTokenLine(engine, TokenLineLimitMs, line)) {
        return;
    }
    if (engine.Call.LinkState.load() == LinkState::Recovery) {
        if (LineHolds(line, TokenSendRecovr)) {
            ApplyRecoveryAtReceiver(engine);
            engine.Call.LinkState = LinkState::Transfer;
        }
        return;
    }
    DispatchLine(engine, line, ReceiverTokens);
}

AdmitResult AdmitFileList(TransferEngine& engine) {
    // A list that the user had prepared here stops counting from now.
    engine.SendList.Clear();
    // A list of this call that was abandoned leaves nothing half made behind
    // when another takes its place.
    DeleteUnfinishedReceives(engine);
    Admission list;
    if (!ReadAndCheckList(engine, list) || !PlanNames(engine, list) ||
        !MakeFilesAndFolders(engine, list)) {
        return list.Result;
    }
    FillReceiveList(engine, list);
    if (engine.Call.ReceiveCount.load() == 0) {
        return AdmitNothingToReceive;
    }
    if (!list.Recovered && !BeginReceivedFile(engine, engine.ReceiveList[0])) {
        return AbortAdmission(engine);
    }
    StartReceiving(engine, list);
    return list.Recovered ? AdmitRecovered : AdmitAccepted;
}

}  // namespace kb::engine
