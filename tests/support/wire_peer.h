// A far end that speaks the transfer protocol itself, over a terminal
// adapter's port: the records, the sections and their checksums are written
// here afresh from the protocol's description, apart from the program's
// engine, so that a test can talk to a station as another implementation
// would, and can also send it anything at all.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace peer {

// Records and data as the wire carries them; integers high byte first.
std::string Header(uint32_t fileCount, uint32_t totalBytes, uint32_t magic = 0xFFAA5500u);
std::string Entry(const std::string& name, int32_t kind, uint32_t totalLength, uint32_t dataLength);
// The 80-byte body behind FILERECOVR and FILERESTA3: where a receiver of a
// stream of dataLength bytes (checksums included) stands at the start of
// section `section`, with receiveRemaining bytes of its list still to come.
std::string RecoveryBody(uint32_t dataLength, uint32_t section, uint32_t receiveRemaining);
// A file's bytes cut into sections, each behind its checksum.
std::string Stream(const std::string& fileBytes);
uint32_t StreamLength(size_t fileSize);

struct File {
    std::string Name;
    std::string Bytes;
    int32_t Kind = 0;  // 2 for a program file
};

// The port of a virtual adapter, raw, at 115200 bits per second.
class Port {
public:
    explicit Port(const std::string& path);
    // A descriptor already open, such as a pseudo-terminal's own end, used as
    // it is set up.
    explicit Port(int fd);
    ~Port();
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    void Send(const std::string& bytes);
    // Exactly count bytes, or what came before the time ran out.
    std::string Receive(size_t count, int timeoutMs);
    // Everything up to and including the marker; what came if it did not.
    std::string ReceiveUntil(const std::string& marker, int timeoutMs);
    // Everything up to and including the first of the markers to come; what
    // came if none did.
    std::string ReceiveUntilAny(const std::vector<std::string>& markers, int timeoutMs);
    // What comes within the time.
    std::string ReceiveFor(int timeoutMs);

    // Command mode: the command and CR; true if OK came back.
    bool Command(const std::string& command);
    // Dials and waits for CONNECT.
    bool Dial(const std::string& number);
    // Waits for RING, answers, waits for CONNECT.
    bool Answer(int timeoutMs);
    // Escape and ATH; true once the adapter is back on hook.
    bool HangUp();

private:
    int fd_ = -1;
    std::string pending_;
    std::chrono::steady_clock::time_point lastSend_ = std::chrono::steady_clock::now();
};

// The whole of a session as the sending side, after CONNECT as the caller:
// SYNCON, the list, the data, the ACKs. Returns "" or what went wrong.
std::string SendSession(Port& port, const std::vector<File>& files, const std::string& folder = "");
// The whole of a session as the receiving side, after CONNECT as the
// answerer: the files that arrive go to files, and the name of a folder marker
// at the head of the list to folder. Returns "" or what went wrong. With a
// pause, each token the peer sends goes in two pieces that far apart.
std::string ReceiveSession(Port& port, std::vector<File>& files, std::string* folder = nullptr,
                           int tokenPauseMs = 0);

}  // namespace peer
