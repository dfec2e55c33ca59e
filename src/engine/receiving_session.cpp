// The receiving side of a session: the tokens from SYNCON to the first file's
// data, and the admission of a list.
//
// Admission trusts nothing of what the far end announces. Names are made
// safe before they touch the disk, so that nothing is written outside the
// receive folder; counts and lengths that the lists and block counters cannot
// hold refuse the list; and an existing file is never overwritten.

#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/display.h"
#include "engine/pickup.h"
#include "engine/recovery.h"
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
#include "stores/paths.h"
#include "stores/status_log.h"

namespace {

constexpr int16_t TokenLineLimitMs = 500;
constexpr int16_t HeaderLimitMs = 500;
constexpr int16_t ListLimitMs = 1000;
// Characters of a name kept in front of a suffix such as "-A".
constexpr size_t NameStemForSuffix = 29;
constexpr size_t NameLimit = 31;

std::mutex FreeSpaceLock;
FreeSpaceQuery InstalledFreeSpaceQuery;

uint64_t FreeSpace() {
    std::lock_guard<std::mutex> guard(FreeSpaceLock);
    if (InstalledFreeSpaceQuery) {
        return InstalledFreeSpaceQuery();
    }
    return FreeDiskSpace(RootDirectory);
}

void SendToken(const WireToken& token) {
    SendBytes(token.Bytes(), static_cast<int16_t>(token.Length()));
}

// What has come in behind a refused list is thrown away. Only the input goes:
// a purge of both queues would throw the refusal itself away with it, before
// it has left.
void DiscardInput() {
    uint8_t scratch[1024];
    uint32_t waiting = PortQueueCount(1);
    while (waiting != 0) {
        const uint32_t chunk = waiting < sizeof scratch ? waiting : sizeof scratch;
        ReadBlock(scratch, chunk, 0);
        waiting -= chunk;
    }
}

// A refusal after the header: the far end is told, and what it sends behind
// the list is thrown away.
int16_t Refuse(const std::string& logLine) {
    AddLogLine(logLine);
    SendToken(TokenNak4);
    DiscardInput();
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
int16_t RefuseForSpace() {
    AddLogLine("Not enough free space on volume.");
    SendToken(TokenNak3);
    DiscardInput();
    return AdmitRefused;
}

int16_t KindOf(const WireFileEntry& entry) {
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(entry.EntryKind)));
}

// The announced name as the entry's name fields hold it.
std::string AnnouncedName(const WireFileEntry& entry) {
    const std::string_view name = entry.Name.View();
    return std::string(name.substr(0, std::min(name.size(), NameLimit)));
}

std::string Suffixed(const std::string& name, char letter) {
    return name.substr(0, std::min(name.size(), NameStemForSuffix)) + "-" + letter;
}

// One file of the list as admission means to make it.
struct PlannedFile {
    int WireIndex = 0;
    std::string NameInUse;
    bool Recovered = false;
};

// The first name free in the folder, the plain name or a suffix from -A to
// -Z; empty when all 27 are taken. A name planned for an earlier entry of the
// same list counts as taken, and so does anything at all on the disk under
// that name, except the partial file that this admission is about to delete.
std::string FreeName(const std::string& folder, const std::string& name,
                     const std::set<std::string>& planned, const std::string& goingAway) {
    const auto isFree = [&](const std::string& candidate) {
        const std::string path = folder + "/" + candidate;
        return planned.count(candidate) == 0 && (!PathExists(path) || path == goingAway);
    };
    if (isFree(name)) {
        return name;
    }
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const std::string candidate = Suffixed(name, letter);
        if (isFree(candidate)) {
            return candidate;
        }
    }
    return {};
}

// The folder that a list opening with a marker gets: the plain name, or the
// first of -A to -Z that could be made. Empty if none could.
std::string MakeSessionFolder(const std::string& name) {
    if (CreateFolder(IncomingPath + "/" + name)) {
        return name;
    }
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const std::string candidate = Suffixed(name, letter);
        if (CreateFolder(IncomingPath + "/" + candidate)) {
            return candidate;
        }
    }
    return {};
}

// Whether the list's first file takes up the file that a former call left:
// the same name, byte for byte, the same length, and the partial file still
// there as it was left.
bool ResumesSavedEntry(const std::string& announced, uint32_t dataLength) {
    const FileEntry& saved = TheEngine.SavedEntry;
    return !saved.WireName.IsEmpty() && announced == saved.WireName.View() &&
           dataLength == saved.DataLength && SavedPartialIntact();
}

void MakeEmptyFile(const std::string& path) {
    File file;
    file.Open(path, File::Mode::CreateReadWrite);
    file.Close();
}

void OnListOffered() {
    if (ReadBlock(&TheEngine.InHeader, sizeof(SessionHeader), HeaderLimitMs) <
        sizeof(SessionHeader)) {
        return;
    }
    switch (AdmitFileList()) {
        case AdmitAccepted:
            SendToken(TokenAck3);
            break;
        case AdmitRecovered:
            std::memcpy(TheEngine.RecoveryRecord.Token, TokenFileResta3.Bytes(),
                        TokenFileResta3.Length());
            SendBytes(&TheEngine.RecoveryRecord, sizeof(RecoveryMessage));
            std::memcpy(TheEngine.RecoveryRecord.Token, TokenFileRecovr.Bytes(),
                        TokenFileRecovr.Length());
            break;
        case AdmitNothingToReceive:
            // Every file of the list was empty and stands on the disk already.
            SendToken(TokenAck2);
            AddLogLine("All files received.");
            TheEngine.LastRxTime = NowMs();
            return;
        default:
            return;
    }
    TheEngine.BlockIndex = 0;
    TheEngine.TransferStartTime = WallSeconds();
}

void OnReceiverCarrierLost() {
    ForgetUnfinishedLine();
    AddLogLine("Disconnected");
    Display().LogElapsedTime();
    SleepMs(50);
    ReinitializeIncoming();
    if (TheEngine.WeSend.load() == 0) {
        EndOfCallCleanup();
    }
    TheEngine.WeSend = 0;
    Display().ShowTransferDisplay(false);
    TheEngine.RetrievePending = 0;
    ClearSessionFlags();
    ReturnToIdle();
}

// The holder's answer to a retrieve request came: there is nothing to fetch.
void OnNothingToRetrieve(const char* logLine) {
    if (TheEngine.RetrievePending.load() == 0) {
        return;  // this end asked for nothing
    }
    AddLogLine(logLine);
    TheEngine.WeSend = 1;
    HangUp();
}

}  // namespace

void SetFreeSpaceQuery(FreeSpaceQuery query) {
    std::lock_guard<std::mutex> guard(FreeSpaceLock);
    InstalledFreeSpaceQuery = std::move(query);
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

int64_t PartialFileLength(int16_t nextBlock) {
    return SectionFileOffset(nextBlock);
}

bool SavedPartialIntact() {
    const FileEntry& saved = TheEngine.SavedEntry;
    if (saved.WireName.IsEmpty() || saved.NextBlock < 0 ||
        saved.NextBlock % static_cast<int16_t>(BlocksPerSection) != 0) {
        return false;
    }
    File file;
    if (!file.Open(std::string(saved.FilePath.View()), File::Mode::Read)) {
        return false;
    }
    return file.Length() == PartialFileLength(saved.NextBlock);
}

void EndRecoveryCandidacy() {
    FileEntry& saved = TheEngine.SavedEntry;
    if (saved.WireName.IsEmpty()) {
        return;
    }
    // A file of that name that has another length is no longer the one this
    // program left, and is not touched.
    if (SavedPartialIntact()) {
        DeleteFileAt(std::string(saved.FilePath.View()));
    }
    saved.WireName.Clear();
}

void OnReceiverInput() {
    std::string line;
    if (!ReadTokenLine(TokenLineLimitMs, line)) {
        return;
    }
    if (TheEngine.LinkState.load() == LinkRecovery) {
        if (LineHolds(line, TokenSendRecovr)) {
            ApplyRecoveryAtReceiver();
            TheEngine.LinkState = LinkTransfer;
        }
        return;
    }
    if (LineHolds(line, TokenSyncon)) {
        SendToken(TokenRcvcon);
        TheEngine.LastRxTime = NowMs();
    }
    if (LineHolds(line, TokenH100) && TheEngine.LinkState.load() == LinkConnected) {
        OnListOffered();
    }
    if (LineHolds(line, TextNoCarrier) && TheEngine.LinkState.load() == LinkConnected) {
        OnReceiverCarrierLost();
    }
    if (LineHolds(line, TokenRetrieve) && TheEngine.LinkState.load() == LinkConnected &&
        TheEngine.RetrievePending.load() == 0) {
        AnswerRetrieveRequest();
    }
    if (LineHolds(line, TokenNoFileDir) && TheEngine.LinkState.load() == LinkConnected) {
        OnNothingToRetrieve("No retrieve folder found.");
    }
    if (LineHolds(line, TokenNoFileAvail) && TheEngine.LinkState.load() == LinkConnected) {
        OnNothingToRetrieve("No files to be retrieved.");
    }
}

int16_t AdmitFileList() {
    // A list that the user had prepared here stops counting from now.
    TheEngine.SendCount = 0;
    // A list of this call that was abandoned leaves nothing half made behind
    // when another takes its place.
    DeleteUnfinishedReceives();
    SessionHeader& header = TheEngine.InHeader;
    SwapSessionHeader(header);
    if (header.Magic != SessionMagic) {
        RequestDisconnect();
        return AdmitRefused;
    }
    // In 64 bits: a volume with more than 4 GB free has room for any list.
    const uint64_t freeSpace = FreeSpace();
    if (freeSpace < header.TotalBytes) {
        return RefuseForSpace();
    }
    if (header.FileCount > static_cast<uint32_t>(ListCapacity)) {
        return Refuse("Corrupted file list.");
    }
    const int count = static_cast<int>(header.FileCount);
    WireFileEntry* wire = TheEngine.WireList;
    const uint32_t listBytes = static_cast<uint32_t>(count) * sizeof(WireFileEntry);
    if (count > 0 && ReadBlock(wire, listBytes, ListLimitMs) < listBytes) {
        return Refuse("Corrupted file list.");
    }
    uint64_t announcedData = 0;
    for (int i = 0; i < count; ++i) {
        SwapWireFileEntry(wire[i]);
        const int16_t kind = KindOf(wire[i]);
        // A marker stands only at the head of a list, and a file's length must
        // be one that the block counters can hold and that a file can have.
        if (kind == KindFolderMarker ? i != 0 : !DataLengthOfAFile(wire[i].DataLength)) {
            return Refuse("Corrupted file list.");
        }
        announcedData += kind == KindFolderMarker ? 0 : wire[i].DataLength;
    }
    // A total below what the entries announce would let the files fill the
    // volume past the room that was checked for.
    if (freeSpace < announcedData) {
        return RefuseForSpace();
    }

    const bool marker = count > 0 && KindOf(wire[0]) == KindFolderMarker;
    std::string folder = IncomingPath;
    std::string folderName;
    if (marker) {
        const std::string name = SafeReceivedName(AnnouncedName(wire[0]));
        folderName = MakeSessionFolder(name);
        if (folderName.empty()) {
            return Refuse("Too many files named " + name);
        }
        folder = IncomingPath + "/" + folderName;
    }

    // The list's first file with data may take up a file that a former call
    // left. Otherwise that file's chance has gone, and its name is free for
    // this list.
    std::vector<PlannedFile> plan;
    std::set<std::string> planned;
    bool recovered = false;
    bool firstFile = true;
    const std::string goingAway = TheEngine.SavedEntry.WireName.IsEmpty()
                                      ? std::string()
                                      : std::string(TheEngine.SavedEntry.FilePath.View());
    for (int i = marker ? 1 : 0; i < count; ++i) {
        const std::string announced = AnnouncedName(wire[i]);
        PlannedFile file;
        file.WireIndex = i;
        if (firstFile && wire[i].DataLength != 0) {
            firstFile = false;
            if (!marker && ResumesSavedEntry(announced, wire[i].DataLength)) {
                file.Recovered = recovered = true;
                plan.push_back(file);
                continue;
            }
        }
        const std::string name = SafeReceivedName(announced);
        file.NameInUse = FreeName(folder, name, planned, recovered ? std::string() : goingAway);
        if (file.NameInUse.empty()) {
            if (marker) {
                RemoveFolder(folder);
            }
            return Refuse("Too many files named " + name);
        }
        planned.insert(file.NameInUse);
        plan.push_back(file);
    }

    if (marker) {
        // Only now that the list will be taken: a refused one removes it again.
        AddLogLine("Created new folder: " + folderName);
    }
    if (!recovered) {
        EndRecoveryCandidacy();
    }
    TheEngine.ReceiveFolder.Set(folder);
    RecoveryPosition resumed;
    uint32_t kept = 0;
    for (const PlannedFile& file : plan) {
        const WireFileEntry announced = wire[file.WireIndex];
        FileEntry& entry = TheEngine.ReceiveList[kept];
        if (file.Recovered) {
            entry = TheEngine.SavedEntry;
            entry.EntryComplete = 0;
            entry.StartTime = 0;
            resumed = RecoveryPositionOf(TheEngine.RecoveryRecord.Body);
            wire[kept++] = announced;
            continue;
        }
        const std::string path = folder + "/" + file.NameInUse;
        // An empty file arrives here and now; it has no data to wait for.
        MakeEmptyFile(path);
        if (announced.DataLength == 0) {
            continue;
        }
        entry = FileEntry{};
        entry.WireName.Set(AnnouncedName(announced));
        entry.DisplayName.Set(file.NameInUse);
        entry.FilePath.Set(path);
        entry.EntryKind = KindOf(announced);
        SetEntryLengths(entry, announced.DataLength);
        entry.AuxLength = announced.AuxLength;
        entry.CreatorCode = announced.CreatorCode;
        entry.TypeCode = announced.TypeCode;
        wire[kept] = announced;
        wire[kept].Name.Set(file.NameInUse);
        ++kept;
    }
    TheEngine.ReceiveCount = kept;
    TheEngine.ReceiveListSize = static_cast<int16_t>(kept);
    if (kept == 0) {
        return AdmitNothingToReceive;
    }
    if (recovered) {
        TheEngine.ReceiveRemaining = resumed.ReceiveRemaining;
    } else if (marker) {
        uint32_t total = 0;
        for (uint32_t i = 0; i < kept; ++i) {
            total += TheEngine.ReceiveList[i].TotalLength;
        }
        TheEngine.ReceiveRemaining = total;
    } else {
        TheEngine.ReceiveRemaining = header.TotalBytes;
    }

    EngineWindow& display = Display();
    display.ListIncomingFiles();
    display.ShowBatchEstimate(TheEngine.ReceiveRemaining.load());
    TheEngine.ExpectedBlock =
        recovered ? resumed.ExpectedBlock : ExpectedBlockOf(TheEngine.ReceiveList[0]);
    SnapshotSection();
    TheEngine.LinkState = LinkTransfer;
    TheEngine.BlockIndex = 0;
    AddLogLine(std::string(recovered ? "Recovering File: " : "Receiving File: ") +
               std::string(TheEngine.ReceiveList[0].DisplayName.View()));
    display.ShowTransferDisplay(true);
    TheEngine.LastRxTime = NowMs();
    return recovered ? AdmitRecovered : AdmitAccepted;
}
