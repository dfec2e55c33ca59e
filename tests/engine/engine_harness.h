// An engine that runs as in the program, on a real pseudo-terminal, with the
// test playing the adapter and the far end's program byte for byte. The far
// end's records and data streams come from the independent peer in
// tests/support, not from the engine's own code.
//
// The communications thread runs, an adapter counts as found and polling is
// on. The window does what the program's window does with the engine's state
// and keeps the names of the calls that tests wait for.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "engine/display.h"
#include "engine/sessions.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/thread.h"
#include "support/far_end.h"
#include "support/temp_folder.h"
#include "support/test_data.h"
#include "support/wire_peer.h"

class RecordingWindow : public NoWindow {
public:
    void RecomputeSendTotal() override;
    void AddFolderToSendList(const std::string& path, const std::string& name) override;
    int ImportDirectoryEntry(const std::string&) override { return 1; }

    // "RecomputeSendTotal" or "AddFolderToSendList(path,name)" has been made.
    bool Called(const std::string& call) const;

private:
    void Note(const std::string& call);

    mutable std::mutex lock_;
    std::vector<std::string> calls_;
};

// Letters only, so that a hang-up's "+++" cannot be mistaken in the data.
std::string LetterBytes(size_t size);
// "H100" and the list of the files, as a peer sends it.
std::string ListFor(const std::vector<peer::File>& files);
// A recovery body naming the start of section `section` of a file whose
// stream is dataLength bytes long.
std::string BodyAt(uint32_t dataLength, int16_t section, uint32_t receiveRemaining);

class EngineHarness : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // ---- What the engine wrote to its port ----
    // Exactly count bytes, or fewer if the time ran out.
    std::string Take(size_t count, int timeoutMs = 5000) { return line_.Receive(count, timeoutMs); }
    // Everything up to and including the marker, or what came in the time.
    std::string TakeUntil(const std::string& marker, int timeoutMs = 5000) {
        return line_.ReceiveUntil(marker, timeoutMs);
    }
    // Whatever comes within the time.
    std::string TakeFor(int ms) { return line_.ReceiveFor(ms); }
    // An AT command, up to its CR; the adapter answers OK. Returns the
    // command without the CR.
    std::string AnswerCommand(int timeoutMs = 6000);
    // The incoming profile that goes to the adapter after a call, found
    // behind whatever data was still on its way; answered OK.
    bool AnswerProfile(int timeoutMs = 6000);
    // The hang-up of a sender: "+++" then "ATH", both answered, and the
    // incoming profile that follows.
    void AnswerHangUp();
    // Sends bytes to the engine.
    void Send(const std::string& bytes) { far_.Send(bytes); }

    // ---- The engine ----
    bool WaitForState(int16_t state, int timeoutMs = 5000) const;
    // Runs f with the port's read side in hand, so that the communications
    // thread is between two passes: what f reads of the engine's lists was
    // written before, in a pass that has ended.
    template <class F>
    static auto Inspect(F f) {
        PortConversation conversation;
        return f();
    }
    // Waits until the condition holds; false if it did not within the time.
    static bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 5000);
    bool WaitForLog(const std::string& line, int timeoutMs = 5000);
    std::vector<std::string> Log() const;
    bool Logged(const std::string& line) const;
    // The engine answers a call: RING, ATA, CONNECT.
    void ConnectAsAnswerer();
    // Answered, and the far end's SYNCON has had its RCVCON.
    void ConnectAsReceiver();
    // The engine has dialled and the far end answers: CONNECT, SYNCON.
    void ConnectAsCaller();
    // Called, RCVCON sent, and the list of that many entries taken.
    void ConnectAndTakeList(size_t entries);
    // A file in the installation, and its entry at the end of SendList.
    std::string MakeFile(const std::string& name, const std::string& bytes);
    void AddToSendList(const std::string& path, const std::string& name);
    std::string Incoming(const std::string& name) const;

    TempFolder root_;
    FarEnd far_;
    // The reading side of far.
    peer::Port line_{far_.Master()};
    RecordingWindow window_;

private:
    ThreadHandle commThread_;
    mutable std::mutex logLock_;
    std::condition_variable logged_;
    std::vector<std::string> log_;
};
