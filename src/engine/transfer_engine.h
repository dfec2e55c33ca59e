// The transfer engine, the object that holds all its state, and its three
// threads. The program makes one and hands it to every engine function; a
// test makes as many as it likes.
//
// The engine owns the call once the adapter has reported CONNECT: the link's
// state, the two file lists and the buffers. Its threads are the
// communications thread, which lives as long as the program and is the only
// reader of the port during a call; the section feeder, which exists during a
// send and decides when the next block goes out; and the block writer, which
// writes one block at a time.
//
// Every word that two threads share is atomic. The lists and buffers are
// handed from thread to thread by the orderings of the protocol: a thread
// touches SendList[0] only while LinkState and the feeder's park say that it
// may, and the main thread edits SendList only while no link is up. The send
// list keeps its own count and total (engine/send_list.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/call.h"
#include "engine/engine_window.h"
#include "engine/file_entry.h"
#include "engine/link_state.h"
#include "engine/send_list.h"
#include "engine/session_threads.h"
#include "engine/token_lines.h"
#include "engine/wire.h"
#include "line/line.h"
#include "platform/clock.h"
#include "platform/thread.h"
#include "stores/installation.h"

namespace kb::engine {

using line::Line;
using platform::ThreadHandle;
using stores::Installation;

// Which thread is the communications thread and which is inside one of its
// passes, so that a message box asked for inside a pass waits until the pass
// has let go of the port. Each id is set and cleared by the thread it names,
// and compared by any thread with its own: a thread that is neither always
// sees another's id or none.
struct CommThreadMarks {
    std::atomic<std::thread::id> CommThread;
    std::atomic<std::thread::id> InsidePass;
    // Messages held back until the pass has let go of the port; only the
    // thread that runs the pass touches them, in it and just after.
    std::vector<std::string> HeldMessages;
};

// Clears of the pick-up folders' byte counts. Each clear asked for bumps the
// count; the main thread zeroes the counters when it sees a count it has not
// yet served.
struct HotFolderClears {
    std::atomic<uint32_t> Asked{0};
    uint32_t Served = 0;  // main thread only
};

// The free bytes that admission compares with a list's total: the query a
// test or a fuzz target installs (receiving_session_test_hooks.h), or, while
// none is, the incoming folder's volume. The receiving side asks it on the
// communications thread while the installing thread may change it.
struct FreeSpaceSource {
    std::mutex Lock;
    std::function<uint64_t()> Query;
};

struct TransferEngine {
    // An engine that stamps and pauses on the clock, which outlives it.
    explicit TransferEngine(const platform::Clock& clock) : Clock(clock) {}

    // The clock of every stamp, time limit and pause of the engine's
    // threads; the program's line runs on the same one. The type is named
    // with its namespace, since the field bears its name.
    const platform::Clock& Clock;
    // The installation the engine serves, given by EngineStartup: its paths,
    // preferences, directory and log.
    Installation* Installed = nullptr;
    Installation& Stores() const { return *Installed; }
    // The call in progress, or the idle link between calls.
    ActiveCall Call;
    // The communications thread runs while this is set.
    std::atomic<bool> CommThreadRun{true};

    std::atomic<bool> FeederRun{false};
    std::atomic<ThreadHandle> FeederThread;
    std::atomic<bool> WriterRun{false};
    std::atomic<ThreadHandle> WriterThread;
    // The writer holds no block and the next one may be handed to it.
    std::atomic<bool> WriterIdle{false};
    std::atomic<const uint8_t*> WriteBlock{nullptr};
    std::atomic<int16_t> WriteBlockLength{0};
    // The feeder is to read the next section into StagedSection.
    std::atomic<bool> SectionWanted{false};
    std::atomic<uint32_t> StagedLength{0};

    std::atomic<bool> SendDisplayDirty{false};
    std::atomic<bool> ReceiveDisplayDirty{false};
    // The send list came out of a pick-up folder.
    std::atomic<bool> PickupSend{false};

    // The files to send, entry 0 the file in hand, with their count and the
    // wire bytes still to send. The type is named with its namespace, since
    // the field bears its name.
    engine::SendList SendList;

    SessionHeader OutHeader;
    // The position of the section being received, ready to send; "FILERECOVR\r\n"
    // in front of the body at rest. It outlives the call.
    RecoveryMessage RecoveryRecord;
    // Copy of ReceiveList[0] at each section start; an empty WireName means
    // there is nothing to recover. It outlives the call, and with the resume
    // record (engine/resume_record.h) the program too.
    FileEntry SavedEntry;
    // Where this session's files go: the incoming folder, or a folder made for
    // it.
    FixedText<512> ReceiveFolder;
    // The folder in which this call's latest file was filed, whole; empty
    // while none has been. The end of the call tells the user where to look.
    FixedText<512> FiledFolder;

    // The line the engine works on, from SetEngineLine on: the port, and the
    // token buffer, which AT replies share with wire tokens. Every engine
    // thread reaches it here. The type is named with its namespace, as for
    // SendList.
    line::Line* Line = nullptr;

    // The window that Display() (engine/display.h) reaches while it exists,
    // set and cleared by the window's thread and read by every engine thread;
    // the one that shows nothing stands in before and after.
    std::atomic<EngineWindow*> Window{nullptr};
    NoWindow Windowless{Call};

    // The handshake of a send's threads.
    SessionThreads Threads;

    CommThreadMarks Marks;
    HotFolderClears Clears;
    FreeSpaceSource FreeSpace;

    // Buffers, made by EngineStartup and freed by EngineShutdown, or with the
    // engine by a program that never shut it down.
    std::unique_ptr<WireFileEntry[]> WireList;  // ListCapacity entries
    std::unique_ptr<FileEntry[]> ReceiveList;   // ListCapacity entries
    std::unique_ptr<uint8_t[]> WorkingSection;  // a section going out or coming in
    std::unique_ptr<uint8_t[]> StagedSection;   // the next section, read ahead
};

// Gives the engine the line it works on, before anything of the engine runs:
// also where the port record could not be made and the engine never starts,
// since a call the user asks for then still looks at the line for its
// adapter. The line outlives every engine thread.
void SetEngineLine(TransferEngine& engine, line::Line& line);
// Allocates the buffers, fills OutHeader's magic, and takes up the candidate
// for a resume that an earlier run left on the disk, or none. Called on the
// main thread before the communications thread starts.
void EngineStartup(TransferEngine& engine, Installation& stores);
// Frees the buffers, after every engine thread has stopped.
void EngineShutdown(TransferEngine& engine);

// Starts the communications thread, which runs until StopCommThread; null
// if it could not be made.
ThreadHandle StartCommThread(TransferEngine& engine);
// Asks the communications thread to leave its loop at the end of the pass it
// is in; the caller then wakes its port wait and joins it.
void StopCommThread(TransferEngine& engine);
// The wall clock second at which the transfer began, taken and cleared in one
// step, so that a second look in the same session, from whichever thread,
// finds 0.
[[nodiscard]] std::time_t TakeTransferStart(TransferEngine& engine);

// The thread functions; their parameter is the engine they work for.
unsigned CommThread(void* parameter);
unsigned SectionFeeder(void* parameter);
unsigned BlockWriter(void* parameter);

// Stops the sending session's threads however far they have got: the feeder
// leaves its loop, a block still being written is cut off, and when this
// returns the feeder and its writer have both returned. Does nothing when no
// feeder runs. Any thread but those two may call it; the program's exit does,
// after the communications thread has left its loop.
void StopFeeder(TransferEngine& engine);

}  // namespace kb::engine
