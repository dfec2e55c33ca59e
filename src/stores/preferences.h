// The preferences: what the program has learnt about its line and what the
// user has set for incoming calls.
//
// The record in memory has exactly the layout of the file, so the file is read
// and written as one block. The file has no header or version; it is loaded at
// start and written back only at a clean exit after an adapter was found. While
// the program runs, the record in memory is the truth.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "platform/shared_word.h"

namespace kb::stores {

using platform::SharedWord;

// The file holds its numbers little-endian, and the record is read and written
// as the file's bytes without converting them; a big-endian host would need a
// conversion on load and save.
static_assert(std::endian::native == std::endian::little,
              "the preferences record is stored as the host's bytes, which must be little-endian");

inline constexpr uint32_t PreferencesSize = 1176;
inline constexpr uint32_t DefaultMaxPortSpeed = 9600;

struct Preferences {
    // COM port that holds the adapter; 0 until one was found, which forces a
    // full search.
    SharedWord<int16_t> ComPort;
    int16_t ReservedAfterPort;
    // Highest port speed qualified, in bits per second.
    SharedWord<uint32_t> MaxPortSpeed;
    // Incoming calls: 0 V.120, 1 AIMUX, 2 X.75.
    SharedWord<int16_t> IncomingProtocol;
    // 1: incoming calls at 56K; 0: at 64K.
    SharedWord<int16_t> Incoming56K;
    // Family of the adapter: 0, 10, 20 or 30.
    SharedWord<int16_t> AdapterModel;
    // Command lines of the two external programs, zero-terminated; empty until
    // chosen. Only the main thread touches them.
    char ExternalProgramA[512];
    char ExternalProgramB[512];
    int16_t ReservedAfterPrograms;
    // With MaxPortSpeed 230400, the speed chosen by the user: 115200 or 230400.
    SharedWord<uint32_t> SelectedPortSpeed;
    // Model inside the adapter's family.
    SharedWord<int16_t> AdapterVariant;
    // 1: incoming calls with the 2B option on.
    SharedWord<int16_t> Incoming2B;
    // 1: incoming calls with the V.42bis option on.
    SharedWord<int16_t> IncomingV42;
    // 1: the 15-second tick does not scan the hot folders.
    SharedWord<int16_t> IgnoreHotFolders;
    // Kept as the file holds them, 0 in a new file.
    uint8_t ReservedTail[124];
};

static_assert(std::is_trivially_copyable_v<Preferences>);
static_assert(std::is_standard_layout_v<Preferences>);
static_assert(sizeof(Preferences) == PreferencesSize);
static_assert(offsetof(Preferences, ComPort) == 0);
static_assert(offsetof(Preferences, ReservedAfterPort) == 2);
static_assert(offsetof(Preferences, MaxPortSpeed) == 4);
static_assert(offsetof(Preferences, IncomingProtocol) == 8);
static_assert(offsetof(Preferences, Incoming56K) == 10);
static_assert(offsetof(Preferences, AdapterModel) == 12);
static_assert(offsetof(Preferences, ExternalProgramA) == 14);
static_assert(offsetof(Preferences, ExternalProgramB) == 526);
static_assert(offsetof(Preferences, ReservedAfterPrograms) == 1038);
static_assert(offsetof(Preferences, SelectedPortSpeed) == 1040);
static_assert(offsetof(Preferences, AdapterVariant) == 1044);
static_assert(offsetof(Preferences, Incoming2B) == 1046);
static_assert(offsetof(Preferences, IncomingV42) == 1048);
static_assert(offsetof(Preferences, IgnoreHotFolders) == 1050);
static_assert(offsetof(Preferences, ReservedTail) == 1052);

// Reads the file at path into the record; on the first run creates the file with
// the defaults (MaxPortSpeed 9600, all else 0). A file shorter than the record
// leaves the fields behind its end at 0; of a longer file only the record's
// length is read. True when the record holds a state from a file, read or
// just made; false after the message "Cannot create preferences file.", with
// the record all 0.
bool LoadPreferences(Preferences& record, const std::string& path);

// Writes the record over the start of the existing file at path, without
// cutting the file short and without creating it. False, with no message, if
// the file cannot be opened or written.
bool SavePreferences(const Preferences& record, const std::string& path);

}  // namespace kb::stores
