// A far end that speaks the transfer protocol itself, over a terminal
// adapter's port (a FarEnd): the records, the sections and their checksums are written
// here afresh from the protocol's description, apart from the program's
// engine, so that a test can talk to a station as another implementation
// would, and can also send it anything at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/far_end.h"

namespace kb::test {

namespace peer {

// The file bytes of a whole section.
constexpr size_t SectionData = 131070;

// What a sender puts on the line ahead of its first file's stream: SYNCON,
// H100, the header and an entry for each file.
constexpr size_t ListBytes(size_t entries) {
    return 8 + 6 + 28 + 56 * entries;
}

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
// A directory entry as a correspondent exports it (".KBE"): name and number,
// carrier and flags as a fresh record has them, and whether a pick-up folder
// goes with it.
std::string DirectoryEntry(const std::string& name, const std::string& number, bool hasPickUp);

struct File {
    std::string Name;
    std::string Bytes;
    int32_t Kind = 0;  // 2 for a program file

    bool operator==(const File&) const = default;
};

// The whole of a session as the sending side, after CONNECT as the caller:
// SYNCON, the list, the data, the ACKs. Returns "" or what went wrong.
std::string SendSession(FarEnd& port, const std::vector<File>& files,
                        const std::string& folder = "");
// The whole of a session as the receiving side, after CONNECT as the
// answerer: the files that arrive go to files, and the name of a folder marker
// at the head of the list to folder. Returns "" or what went wrong. With a
// pause, each token the peer sends goes in two pieces that far apart.
std::string ReceiveSession(FarEnd& port, std::vector<File>& files, std::string* folder = nullptr,
                           int tokenPauseMs = 0);

}  // namespace peer

}  // namespace kb::test
