// An adapter: its pseudo-terminal, the link through which a program reaches
// it, and all the state that the adapter keeps. The exchange drives it; the
// command interpreter reads and changes its settings.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/pseudo_terminal.h"
#include "virtual-ta/deadline.h"
#include "virtual-ta/family.h"
#include "virtual-ta/options.h"

namespace kb::virtual_ta {

using platform::PseudoTerminal;

struct Call;

enum class AdapterMode {
    Command,        // idle or ringing: command lines are read
    Dialling,       // after ATD until a result: any byte breaks the dial off
    Data,           // in a call: bytes go over the line
    OnlineCommand,  // in a call after the escape: command lines are read
};

struct Adapter {
    AdapterSetting Given;  // as the command line gave it
    PseudoTerminal Pty;
    std::string Who;  // how the trace names it: its number

    Settings Registers;
    uint32_t FixedSpeed = 0;    // 230400 when told to run there only; 0 follows the port
    uint32_t PortSpeed = 0;     // the port's speed when last read
    uint32_t TalkSpeed = 9600;  // the speed at which it last understood its port

    // The programs that have the port open, the tool's own hold on it aside,
    // as the port's watch counts them; WatchId names the port to the watch.
    int WatchId = -1;
    int Openers = 0;

    // DTR, watched during a call: the port's speed at 0, or nobody having
    // the port open, is DTR down, as a pseudo-terminal shows it. DtrLow is
    // how it was when last looked at.
    bool DtrLow = false;
    uint64_t NextDtrLookAt = Never;

    // The command line being typed, from its "A".
    bool InLine = false;
    std::string Line;
    std::string LastLine;  // what "A/" repeats
    // Bytes read while the port's speed was one it does not understand.
    std::string Misheard;
    // Bytes read with a command line that belong to the mode it went into,
    // such as data behind "ATO": they are taken before the port's next bytes.
    std::string Pushback;

    AdapterMode Mode = AdapterMode::Command;
    Call* InCall = nullptr;  // the call it makes, answers or rings for

    // Bytes for the port that it has not taken yet: echo, replies, and at the
    // end of a call the data that came before NO CARRIER.
    std::string Out;
    size_t OutHead = 0;

    // Watching the port in data mode, for the silence around "+++". The port
    // is known empty since EmptySince when KnownEmpty; while Blind the tool
    // was not reading it (the line could take nothing more) since BlindSince.
    bool KnownEmpty = true;
    uint64_t EmptySince = 0;
    bool Blind = false;
    uint64_t BlindSince = 0;
    int EscapeCount = 0;  // escape characters held at the end of the line, 0 when none
    uint64_t EscapeDeadline = Never;

    [[nodiscard]] size_t PendingOut() const { return Out.size() - OutHead; }
    int Setting(const char* name) const;
};

// Points a link at the target, replacing an old link. False with a reason if
// the path is taken by something else or the link cannot be made.
bool MakeLink(const std::string& path, const std::string& target, std::string& error);
// Removes the link if it still points at the target.
void RemoveLink(const std::string& path, const std::string& target);

// Whether the program holding the port has dropped DTR by setting the port's
// speed to 0 (what "stty 0" and a terminal program's hang-up do).
bool DtrIsDown(const Adapter& adapter);

// The tool keeps the port's program side open all the time (the
// pseudo-terminal's SlaveKeeper), so that a port nobody has open keeps its
// settings and takes replies, and its hardware side never sees a hang-up.
// It therefore learns of programs opening and closing the port from the
// system's notes on the device's opens and closes (inotify), which a killed
// program's closing gives as well: the port watch, one for all ports.
// OpenPortWatch gives its descriptor, -1 if it cannot be had; WatchPort
// starts watching the adapter's port, false if it cannot.
int OpenPortWatch();
bool WatchPort(int watch, Adapter& adapter);
// A program opened, or closed, the port that the watch knows as WatchId.
struct PortNote {
    int WatchId;
    bool Opened;
};
// What the watch has noted since it was last asked, in order.
std::vector<PortNote> TakePortNotes(int watch);
// Clears the exclusive mode that a program which ended without closing the
// port properly left on it: a serial port drops it at its last close, a
// pseudo-terminal keeps it, so that only a privileged process could open it.
// True if it was set.
bool ClearLeftExclusiveMode(Adapter& adapter);
// Throws away what the program left unread in the port.
void EmptyPort(Adapter& adapter);

// The port is read in packet mode, so that the tool hears when the program
// purges its output: a real port's driver then throws away what it had not
// yet sent, and the pseudo-terminal keeps it unless the tool does so. False
// if the mode cannot be set.
bool HearPurges(int fd);
// Reads what the port has, up to count bytes: the count, 0 if nothing waits.
// With purged given, a read stops at the program's purge of its output and
// says so (the count is then 0); without it, the purge is passed over.
size_t ReadPort(int fd, void* buffer, size_t count, bool* purged = nullptr);
// Throws away what the program wrote that the tool has not read yet.
void DiscardPortInput(int fd);
// Writes as much as the port takes: the count written; blocked tells that the
// port took less than all.
size_t WritePort(int fd, const void* bytes, size_t count, bool& blocked);
// Bytes waiting to be read from the port.
size_t BytesWaiting(int fd);

}  // namespace kb::virtual_ta
