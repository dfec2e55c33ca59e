// The two sides of a session on the data channel: the token handlers, the
// offer of a list, its admission on the far side, and the step from one file
// to the next. All of it runs on the communications thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// ---- Sending side ----

// Reads one token line and acts on it; the communications thread calls it
// while WeSend is set and a call is up.
void OnSenderInput();
// Offers the list: H100, the header and the file list.
void StartSendSession();
// Fills the header and the wire list from SendList.
void BuildSessionRecords();
// Takes the finished entry off the top of SendList.
void DropFirstSendEntry();
// The far end wants the next file.
void BeginNextFile();
// Puts SendList[0] back to the start of its file and sums the list again.
void ResetSendPosition();

// ---- Receiving side ----

// Reads one token line and acts on it; the communications thread calls it
// while WeSend is clear in LinkConnected and LinkRecovery.
void OnReceiverInput();

// What admission made of a list.
enum AdmitResult : int16_t {
    AdmitRefused = 0,
    AdmitAccepted = 1,
    AdmitRecovered = 2,         // the first file goes on from where a former call left it
    AdmitNothingToReceive = 3,  // every file of the list was empty and has been made
};

// Judges the list behind the header just read into InHeader, chooses names,
// creates the files and fills ReceiveList.
[[nodiscard]] AdmitResult AdmitFileList();

// A received name made safe to use as one name in the receive folder: "/",
// "\" and control characters become "_", and an empty name, "." and ".."
// become "_".
std::string SafeReceivedName(std::string_view announced);

// ---- Both ----

// Length that the partial file of a receive entry has on disk: every section
// before NextBlock, complete.
int64_t PartialFileLength(int16_t nextBlock);
// True if the file that SavedEntry names is there with exactly the bytes of
// its completed sections.
bool SavedPartialIntact();
// Deletes the partial file that SavedEntry names, if it is still the one this
// program left, and empties SavedEntry: the file can no longer be resumed.
void EndRecoveryCandidacy();
