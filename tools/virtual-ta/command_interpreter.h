// The command interpreter of an adapter: runs one command line ("AT" and what
// follows) against the adapter's settings, and tells the exchange what is left
// for it to do: a result code to give, a dial, an answer, a hang-up.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "virtual-ta/port.h"

namespace kb::virtual_ta {

struct CommandOutcome {
    enum class FinalCode {
        Ok,      // "OK"
        Error,   // "ERROR"
        Silent,  // no result code (a 3Com speed command)
        Dial,    // ATD: the exchange places the call, and a call result follows
        Answer,  // ATA
        Online,  // ATO
    };
    FinalCode Final = FinalCode::Ok;
    std::string Info;  // information text, framed as the family frames it
    std::string Dial;  // what followed the D
    bool HangUp = false;
    bool SpeedChange = false;  // after the result, run at FixedSpeed
    uint32_t FixedSpeed = 0;
};

// Runs the commands that follow "AT" (body). Commands before an unknown one
// keep their effect, as on a real adapter; the result is then ERROR.
CommandOutcome InterpretCommand(Adapter& adapter, std::string_view body);

// Frames lines of information text, the answer to one command, as the
// adapter's family does with its V setting.
std::string FrameInfo(const Adapter& adapter, const std::vector<std::string>& lines);

// True if the text is a command line that moves the adapter's port speed
// such that it would understand its port at portSpeed.
bool IsSpeedCommandFor(const Adapter& adapter, std::string_view text, uint32_t portSpeed);

// Whether the adapter understands its port at this speed, with the given
// fixed speed (see Adapter::FixedSpeed).
bool Understands(const Adapter& adapter, uint32_t portSpeed, uint32_t fixedSpeed);

}  // namespace kb::virtual_ta
