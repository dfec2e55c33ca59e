#include "line/port_speed.h"

#include <string>

#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/control_model.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/preferences.h"
#include "stores/status_log.h"

namespace {

constexpr int TestRounds = 5;
constexpr int16_t SpeedChangeQuietMs = 10;

constexpr const char* TopSpeed115200 =
    "Your maximum port speed is 115200 bps.\r  You will be able to use both the V.120 and AIMUX "
    "protocols for sending and receiving files.\r  Your throughput with AIMUX, however, will be "
    "limited to 115200 kbps.";

int16_t Model() {
    return ThePreferences.AdapterModel;
}

// Five "AT" in a row, each answered with OK; the first silence fails it.
bool TestAtThisSpeed() {
    for (int round = 0; round < TestRounds; ++round) {
        if (!SendAndWaitOk("AT")) {
            return false;
        }
    }
    return true;
}

void CheckSpeedItem(int command) {
    Controls().CheckMenuItem(ID_PORT_SPEED_115200, command == ID_PORT_SPEED_115200);
    Controls().CheckMenuItem(ID_PORT_SPEED_230400, command == ID_PORT_SPEED_230400);
}

}  // namespace

void QualifyPortSpeed() {
    if (Model() == ModelAdTran && ThePreferences.SelectedPortSpeed == 230400) {
        return;
    }
    // The speed commands and the changes of speed bring garbage and stray
    // replies; the whole ladder is one conversation, so none of it reaches
    // another reader.
    PortConversation conversation;
    if (!SendAndWaitOk("ATE1V1")) {
        ShowMessageBox(NoAdapterMessage);
        return;
    }

    AddLogLine("Testing 57600 bps...");
    if (!SetPortSpeed(57600)) {
        ThePreferences.MaxPortSpeed = 9600;
        ShowMessageBox(
            "Could not set your serial port to 57600 bps.  Please attach your ISDN TA to a "
            "faster serial port.");
        return;
    }
    if (!TestAtThisSpeed()) {
        ThePreferences.MaxPortSpeed = 9600;
        ShowMessageBox("Error testing connection at 57600 bps.");
        return;
    }

    SpeedClass.store(1);
    ThePreferences.MaxPortSpeed = 57600;
    AddLogLine("Testing 115200 bps...");
    if (!SetPortSpeed(115200)) {
        ShowMessageBox(
            "Your maximum port speed is 57600 bps.\r  You will only be able to use the V.120 "
            "protocol for sending and receiving files");
        SetPortSpeed(57600);
        return;
    }
    if (!TestAtThisSpeed()) {
        ShowMessageBox("Error testing connection at 115200 bps.");
        return;
    }
    SpeedClass.store(2);

    if (Model() == ModelAdTran) {
        // Only the switch on the adapter's back moves it to 230400, so the
        // port is merely asked whether it could follow.
        const bool portCan230400 = SetPortSpeed(230400);
        if (!portCan230400) {
            ShowMessageBox(TopSpeed115200);
        }
        SetPortSpeed(115200);
        AddLogLine("Test Successful through 115200 bps.");
        if (portCan230400) {
            ThePreferences.MaxPortSpeed = 230400;
            ThePreferences.SelectedPortSpeed = 115200;
        } else {
            ThePreferences.MaxPortSpeed = 115200;
        }
        return;
    }

    AddLogLine("Testing 230400 bps...");
    if (!SetPortSpeed(230400)) {
        ShowMessageBox(TopSpeed115200);
        SetPortSpeed(115200);
        ThePreferences.MaxPortSpeed = 115200;
        return;
    }
    if (Model() == ModelBitSURFR) {
        SetPortSpeed(115200);
        SendAndWaitOk("AT@P2=230400");
        SetPortSpeed(230400);
    } else if (Model() == Model3Com) {
        SetPortSpeed(115200);
        SendCommand("AT$B230400");
        SetPortSpeed(230400);
        DrainInput(SpeedChangeQuietMs);
    }
    if (TestAtThisSpeed()) {
        AddLogLine("Test Successful through 230400 bps.");
        ThePreferences.MaxPortSpeed = 230400;
        return;
    }
    ShowMessageBox("Error testing connection at 230400 bps.");
    if (Model() == ModelBitSURFR) {
        SendAndWaitOk("AT@P2=115200");
    } else if (Model() == Model3Com) {
        SendCommand("AT$B0");
    }
    SetPortSpeed(115200);
    ThePreferences.MaxPortSpeed = 115200;
    SpeedClass.store(2);
}

void ResumeTopSpeed() {
    PortConversation conversation;
    if (Model() == ModelBitSURFR) {
        SetPortSpeed(115200);
        SendAndWaitOk("AT@P2=230400");
    } else if (Model() == Model3Com) {
        SetPortSpeed(115200);
        SendCommand("AT$B230400");
        SetPortSpeed(230400);
        return;
    }
    SetPortSpeed(230400);
    SendAndWaitOk("AT");
}

void SwitchUpTo230400() {
    // The move is one conversation, the user's answer to the AdTran's message
    // included: while port and adapter may disagree on the speed, what comes
    // in is garbage that no other reader should see.
    PortConversation conversation;
    if (Model() == Model3Com) {
        SendCommand("AT$B230400");
        SetPortSpeed(230400);
        return;
    }
    if (Model() == ModelBitSURFR) {
        SendAndWaitOk("AT@P2=230400");
    }
    SetPortSpeed(230400);
    if (Model() == ModelAdTran) {
        ShowMessageBox(
            "Please move DIP switch 1 to the OFF (up) position\ron the back of the AdTran ISDN "
            "Terminal Adapter.");
    }
    SendAndWaitOk("AT");
}

void SwitchDownTo115200() {
    PortConversation conversation;
    if (Model() == Model3Com) {
        SendCommand("AT$B0");
        SetPortSpeed(115200);
        return;
    }
    if (Model() == ModelBitSURFR) {
        SendAndWaitOk("AT@P2=115200");
    }
    SetPortSpeed(115200);
    if (Model() == ModelAdTran) {
        ShowMessageBox(
            "Please move DIP switch 1 to the ON (down) position\ron the back of the AdTran ISDN "
            "Terminal Adapter.");
    }
    SendAndWaitOk("AT");
}

void OnPortSpeed115200() {
    SwitchDownTo115200();
    CheckSpeedItem(ID_PORT_SPEED_115200);
    ThePreferences.SelectedPortSpeed = 115200;
    AddLogLine("Port speed changed to 115200 bps.");
}

void OnPortSpeed230400() {
    SwitchUpTo230400();
    CheckSpeedItem(ID_PORT_SPEED_230400);
    ThePreferences.SelectedPortSpeed = 230400;
    AddLogLine("Port speed changed to 230400 bps.");
}
