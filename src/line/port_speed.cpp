#include "line/port_speed.h"

#include <string>

#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/line.h"
#include "platform/message_box.h"
#include "stores/installation.h"

namespace kb::line {

using namespace kb::platform;
using namespace kb::stores;

namespace {

constexpr int TestRounds = 5;
constexpr int16_t SpeedChangeQuietMs = 10;

constexpr const char* TopSpeed115200 =
    "Your maximum port speed is 115200 bps.\r  You will be able to use both the V.120 and AIMUX "
    "protocols for sending and receiving files.\r  Your throughput with AIMUX, however, will be "
    "limited to 115200 kbps.";

// Five "AT" in a row, each answered with OK; the first silence fails it.
bool TestAtThisSpeed(Line& line) {
    for (int round = 0; round < TestRounds; ++round) {
        if (!line.SendAndWaitOk("AT")) {
            return false;
        }
    }
    return true;
}

// The adapter's side of a change of speed, as its family does it. The port
// follows separately; an adapter that follows by itself, or only by its
// switch, is told nothing.
void TellAdapterSpeed(Line& line, uint32_t bitsPerSecond) {
    const AdapterFamily& family = CurrentFamily(line.Stores.Prefs);
    const char* command =
        bitsPerSecond == 230400 ? family.SpeedCommandTo230400 : family.SpeedCommandTo115200;
    switch (family.Speed) {
        case SpeedMove::AnsweredCommand:
            // An adapter that did not take it shows in the "AT" at the new
            // speed, which is what every caller tests next.
            static_cast<void>(line.SendAndWaitOk(command));
            break;
        case SpeedMove::SilentCommand:
            line.SendCommand(command);
            break;
        case SpeedMove::PortOnly:
        case SpeedMove::DipSwitch:
            break;
    }
}

bool TakesACommand(const AdapterFamily& family) {
    return family.Speed == SpeedMove::AnsweredCommand || family.Speed == SpeedMove::SilentCommand;
}

// The move of the menu, port and adapter together, as one conversation: the
// user's answer to a message about the switch included, since while port and
// adapter may disagree on the speed, what comes in is garbage that no other
// reader should see.
void MoveToSpeed(Line& line, uint32_t bitsPerSecond) {
    PortConversation conversation(line);
    const AdapterFamily& family = CurrentFamily(line.Stores.Prefs);
    TellAdapterSpeed(line, bitsPerSecond);
    // What the port does not take leaves it at the speed it had; the "AT"
    // below then finds the two apart, as the user will.
    static_cast<void>(line.SetPortSpeed(bitsPerSecond));
    if (family.Speed == SpeedMove::SilentCommand) {
        return;  // it answers nothing at the moment of the change
    }
    if (family.Speed == SpeedMove::DipSwitch) {
        ShowMessageBox(bitsPerSecond == 230400
                           ? "Please move DIP switch 1 to the OFF (up) position\ron the back of "
                             "the AdTran ISDN Terminal Adapter."
                           : "Please move DIP switch 1 to the ON (down) position\ron the back of "
                             "the AdTran ISDN Terminal Adapter.");
    }
    // Whether the adapter answers at the new speed is not looked at: the
    // user has chosen, and the next call shows whether the two agree.
    static_cast<void>(line.SendAndWaitOk("AT"));
}

}  // namespace

void Line::QualifyPortSpeed() {
    const AdapterFamily& family = CurrentFamily(Stores.Prefs);
    if (family.Speed == SpeedMove::DipSwitch && Stores.Prefs.SelectedPortSpeed == 230400) {
        return;
    }
    // The speed commands and the changes of speed bring garbage and stray
    // replies; the whole ladder is one conversation, so none of it reaches
    // another reader.
    PortConversation conversation(*this);
    if (!SendAndWaitOk("ATE1V1")) {
        ShowMessageBox(NoAdapterMessage);
        return;
    }

    Stores.Log.Add("Testing 57600 bps...");
    if (!SetPortSpeed(57600)) {
        Stores.Prefs.MaxPortSpeed = 9600;
        ShowMessageBox(
            "Could not set your serial port to 57600 bps.  Please attach your ISDN TA to a "
            "faster serial port.");
        return;
    }
    if (!TestAtThisSpeed(*this)) {
        Stores.Prefs.MaxPortSpeed = 9600;
        ShowMessageBox("Error testing connection at 57600 bps.");
        return;
    }

    SpeedClass.store(1);
    Stores.Prefs.MaxPortSpeed = 57600;
    Stores.Log.Add("Testing 115200 bps...");
    if (!SetPortSpeed(115200)) {
        ShowMessageBox(
            "Your maximum port speed is 57600 bps.\r  You will only be able to use the V.120 "
            "protocol for sending and receiving files");
        // Back to where the port stood; it took 57600 a moment ago.
        static_cast<void>(SetPortSpeed(57600));
        return;
    }
    if (!TestAtThisSpeed(*this)) {
        ShowMessageBox("Error testing connection at 115200 bps.");
        return;
    }
    SpeedClass.store(2);

    // Only the switch on the adapter's back moves it to 230400, so the port
    // is merely asked whether it could follow.
    if (family.Speed == SpeedMove::DipSwitch) {
        const bool portCan230400 = SetPortSpeed(230400);
        if (!portCan230400) {
            ShowMessageBox(TopSpeed115200);
        }
        static_cast<void>(SetPortSpeed(115200));  // it took 115200 a moment ago
        Stores.Log.Add("Test Successful through 115200 bps.");
        if (portCan230400) {
            Stores.Prefs.MaxPortSpeed = 230400;
            Stores.Prefs.SelectedPortSpeed = 115200;
        } else {
            Stores.Prefs.MaxPortSpeed = 115200;
        }
        return;
    }

    Stores.Log.Add("Testing 230400 bps...");
    if (!SetPortSpeed(230400)) {
        ShowMessageBox(TopSpeed115200);
        static_cast<void>(SetPortSpeed(115200));  // it took 115200 a moment ago
        Stores.Prefs.MaxPortSpeed = 115200;
        return;
    }
    // The port can; a family that is told by a command is told at 115200,
    // and a silent one gets a moment for the garbage of its change.
    if (TakesACommand(family)) {
        static_cast<void>(SetPortSpeed(115200));
        TellAdapterSpeed(*this, 230400);
        static_cast<void>(SetPortSpeed(230400));
        if (family.Speed == SpeedMove::SilentCommand) {
            DrainInput(SpeedChangeQuietMs);
        }
    }
    if (TestAtThisSpeed(*this)) {
        Stores.Log.Add("Test Successful through 230400 bps.");
        Stores.Prefs.MaxPortSpeed = 230400;
        return;
    }
    ShowMessageBox("Error testing connection at 230400 bps.");
    TellAdapterSpeed(*this, 115200);
    static_cast<void>(SetPortSpeed(115200));  // it took 115200 a moment ago
    Stores.Prefs.MaxPortSpeed = 115200;
    SpeedClass.store(2);
}

void Line::ResumeTopSpeed() {
    PortConversation conversation(*this);
    const AdapterFamily& family = CurrentFamily(Stores.Prefs);
    // The port stands at 115200, where a family told by a command hears it.
    if (TakesACommand(family)) {
        static_cast<void>(SetPortSpeed(115200));
        TellAdapterSpeed(*this, 230400);
    }
    // A port that does not take 230400 shows in the "AT" that follows, as
    // in the first call.
    static_cast<void>(SetPortSpeed(230400));
    if (family.Speed == SpeedMove::SilentCommand) {
        return;
    }
    // The adapter's answer is not needed: it was found at this speed before,
    // and the incoming profile that follows tells if it is not there.
    static_cast<void>(SendAndWaitOk("AT"));
}

void Line::ReturnAdapterTo115200() {
    if (TakesACommand(CurrentFamily(Stores.Prefs))) {
        MoveToSpeed(*this, 115200);
    }
}

void Line::ChangePortSpeed(uint32_t bitsPerSecond) {
    MoveToSpeed(*this, bitsPerSecond);
    Stores.Prefs.SelectedPortSpeed = bitsPerSecond;
    Stores.Log.Add("Port speed changed to " + std::to_string(bitsPerSecond) + " bps.");
}

SpeedChoice PortSpeedChoice(const Preferences& prefs) {
    if (prefs.MaxPortSpeed != 230400) {
        return SpeedChoice::None;
    }
    return prefs.SelectedPortSpeed == 230400 ? SpeedChoice::At230400 : SpeedChoice::At115200;
}

}  // namespace kb::line
