// The two sides of a session on the data channel: the token handlers, the
// offer of a list, its admission on the far side, and the step from one file
// to the next. All of it runs on the communications thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "engine/file_entry.h"

namespace kb::engine {

struct TransferEngine;

// ---- Sending side ----

// Reads one token line and acts on it; the communications thread calls it
// while this end is the sender and a call is up.
void OnSenderInput(TransferEngine& engine);
// Offers the list: H100, the header and the file list.
void StartSendSession(TransferEngine& engine);
// Fills the header and the wire list from SendList.
void BuildSessionRecords(TransferEngine& engine);
// Takes the finished entry off the top of SendList.
void DropFirstSendEntry(TransferEngine& engine);
// The far end wants the next file.
void BeginNextFile(TransferEngine& engine);
// Puts SendList[0] back to the start of its file and sums the list again.
void ResetSendPosition(TransferEngine& engine);

// ---- Receiving side ----

// Reads one token line and acts on it; the communications thread calls it
// while this end is the receiver in LinkState::Connected and LinkState::Recovery.
void OnReceiverInput(TransferEngine& engine);

// What admission made of a list.
enum AdmitResult : int16_t {
    AdmitRefused = 0,
    AdmitAccepted = 1,
    AdmitRecovered = 2,         // the first file goes on from where a former call left it
    AdmitNothingToReceive = 3,  // every file of the list was empty and has been made
};

// Judges the list behind the header just read into InHeader, chooses names,
// creates the files and fills ReceiveList.
[[nodiscard]] AdmitResult AdmitFileList(TransferEngine& engine);

// A received name made safe to use as one name in the receive folder: "/",
// "\" and control characters become "_", and an empty name, "." and ".."
// become "_".
std::string SafeReceivedName(std::string_view announced);

// The name that a file arriving under a name taken already tries, for the
// letter A to Z: the letter goes in front of the extension, so that programs
// still know the file ("report.pdf", "report-A.pdf"). A name without one
// ("notes", ".profile", "file.") takes it at the end ("notes-A"), and so does
// one whose tail behind its last dot is too long to be an extension; only the
// last dot counts ("a.tar.gz", "a.tar-A.gz"). The stem is cut, between two
// characters, so that the name stays within 31 bytes.
[[nodiscard]] std::string SuffixedFileName(std::string_view name, char letter);

// What a received file carries behind its name until it is complete.
inline constexpr std::string_view PartMarker = ".part";

// A received file is under its own name only once it is complete. Until then
// its bytes go to a part beside it, "NAME.part" (or "NAME.A.part" and so on,
// where that is taken), made when the file's data becomes due, so that files
// of a list that have not begun have nothing on the disk.
//
// Makes the part of the entry, a file about to be received, in ReceiveFolder
// and puts its path in FilePath. False, with "Cannot write file: " logged, if
// it cannot be made.
[[nodiscard]] bool BeginReceivedFile(TransferEngine& engine, FileEntry& entry);
// Gives the complete file of the entry its own name: DisplayName, or, if that
// has been taken meanwhile, the first free of the announced name and its
// suffixes. DisplayName and FilePath follow. False, with "Cannot write file: "
// logged, if no name could be given; the part then stays as it is.
[[nodiscard]] bool PublishReceivedFile(TransferEngine& engine, FileEntry& entry);
// Logs that the file of that name cannot be written, "Cannot write file: ",
// and when the volume is full, "Not enough free space on volume." behind it.
// The caller ends the session.
void LogCannotWrite(TransferEngine& engine, const std::string& name, bool outOfSpace);

// ---- Both ----

// Deletes the partial file that SavedEntry names, if it is still the one this
// program left, and empties SavedEntry: the file can no longer be resumed.
void EndRecoveryCandidacy(TransferEngine& engine);

// Moves a file that has been sent into "Sent Files" beside it, under its own
// name, replacing an older file of that name there; a file that cannot be
// moved is deleted, so that it does not go out again.
void MoveToSentFiles(const std::string& path);

}  // namespace kb::engine
