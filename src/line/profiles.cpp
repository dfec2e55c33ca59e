#include "line/profiles.h"

#include <cctype>
#include <cstring>
#include <string_view>

#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/control_model.h"
#include "platform/event_loop.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/preferences.h"
#include "stores/status_log.h"

std::atomic<uint16_t> RateEstimate{0};
char LocalNumber[32];

namespace {

// Protocols, as IncomingProtocol numbers them.
constexpr int ProtocolV120 = 0;
constexpr int ProtocolAimux = 1;
constexpr int ProtocolX75 = 2;

constexpr const char* ProtocolNames[] = {"V.120", "AIMUX", "X.75"};

// Which set-up a profile is for; the first words of its log line.
enum class Setup { FirstIncoming, LaterIncoming, Outgoing };

constexpr int16_t DrainQuietMs = 100;
constexpr uint32_t HotFolderPeriodMs = 15000;
constexpr const char* NumberCaption = "Your ISDN Number: ";

int16_t Model() {
    return ThePreferences.AdapterModel;
}

// Whether the adapter in hand offers the protocol: every family speaks
// V.120; AIMUX needs a BitSURFR or an AdTran on a port above 57600 bps; X.75
// is the ZyXELs', all but the Omni.net.
bool ProtocolOffered(int protocol) {
    switch (protocol) {
        case ProtocolV120:
            return true;
        case ProtocolAimux:
            return (Model() == ModelBitSURFR || Model() == ModelAdTran) && SpeedClass.load() >= 2;
        case ProtocolX75:
            return Model() == ModelZyXEL && ThePreferences.AdapterVariant != 2;
        default:
            return false;
    }
}

// The profile's slot in the family's ten strings.
int SlotFor(int protocol, bool at56k) {
    const int base = protocol == ProtocolAimux ? 2 : protocol == ProtocolX75 ? 6 : 0;
    return base + (at56k ? 0 : 1);
}

// Loads the profile of the protocol and rate, logs the set-up, sets
// RateEstimate and, on a ZyXEL, appends the channel options of the side. A
// protocol the adapter does not offer is taken as V.120, the one they all
// speak, so that the family's table is never read where it has no profile.
std::string BuildProfile(int protocol, bool at56k, Setup setup) {
    if (!ProtocolOffered(protocol)) {
        protocol = ProtocolV120;
    }
    std::string command(LoadResourceString(ProfileStringBase + Model() + SlotFor(protocol, at56k)));
    const char* opening = setup == Setup::FirstIncoming   ? "Initializing Incoming: "
                          : setup == Setup::LaterIncoming ? "Reinitializing Incoming: "
                                                          : "Initializing Outgoing: ";
    AddLogLine(std::string(opening) + ProtocolNames[protocol] + (at56k ? " - 56K" : " - 64K"));
    // 56K lines carry 7000 bytes a second, 64K lines 8000, and AIMUX bundles
    // two of them.
    uint16_t rate = at56k ? 7000 : 8000;
    if (protocol == ProtocolAimux) {
        rate *= 2;
    }
    RateEstimate.store(rate);
    if (Model() == ModelZyXEL) {
        AppendChannelOptions(command, setup == Setup::Outgoing ? 0 : 1);
    }
    return command;
}

std::string IncomingProfile(Setup setup) {
    return BuildProfile(ThePreferences.IncomingProtocol, ThePreferences.Incoming56K != 0, setup);
}

// The protocol a row of a protocol list stands for; none selected is V.120,
// the row every list starts with.
int ProtocolOfRow(const std::string& text) {
    for (int protocol = ProtocolV120; protocol <= ProtocolX75; ++protocol) {
        if (text == ProtocolNames[protocol]) {
            return protocol;
        }
    }
    return ProtocolV120;
}

// Keeps the number within LocalNumber's 31 characters, with zeros behind it:
// a retrieve request carries all 32 bytes. A longer number keeps its first
// 31 characters, and the window shows what LocalNumber holds.
void StoreLocalNumber(std::string_view number) {
    std::memset(LocalNumber, 0, sizeof LocalNumber);
    const size_t length =
        number.size() < sizeof LocalNumber - 1 ? number.size() : sizeof LocalNumber - 1;
    std::memcpy(LocalNumber, number.data(), length);
}

// The text behind the first "\r\n" up to the next CR, as the AdTran and the
// 3Com answer a query of a register. False when no CR closes it.
bool NumberOnSecondLine(std::string_view reply, std::string_view& number) {
    const size_t lineEnd = reply.find("\r\n");
    if (lineEnd == std::string_view::npos) {
        return false;
    }
    const size_t start = lineEnd + 2;
    const size_t end = reply.find('\r', start);
    if (end == std::string_view::npos) {
        return false;
    }
    number = reply.substr(start, end - start);
    return true;
}

// The decimal digits that end two bytes before "OK": the BitSURFR puts its
// number on the line in front of the OK. Empty when there are none.
std::string_view DigitsBeforeOk(std::string_view reply) {
    const size_t ok = reply.find("OK");
    if (ok == std::string_view::npos || ok < 3) {
        return {};
    }
    size_t first = ok - 2;
    while (first > 0 && std::isdigit(static_cast<unsigned char>(reply[first - 1])) != 0) {
        --first;
    }
    return reply.substr(first, ok - 2 - first);
}

// What follows "MultiAuto):(" up to the next ")". False when the ZyXEL's reply
// has no such bracket.
bool NumberInBrackets(std::string_view reply, std::string_view& number) {
    constexpr std::string_view Mark = "MultiAuto):(";
    const size_t found = reply.find(Mark);
    if (found == std::string_view::npos) {
        return false;
    }
    const size_t start = found + Mark.size();
    const size_t end = reply.find(')', start);
    if (end == std::string_view::npos) {
        return false;
    }
    number = reply.substr(start, end - start);
    return true;
}

const char* ZyxelLabel(int16_t variant) {
    switch (variant) {
        case 1:
            return "     ZyXEL Elite 2864i";
        case 2:
            return "     ZyXEL Omni.net";
        case 3:
            return "     ZyXEL Omni TA128";
        default:
            return "";
    }
}

// Removes a protocol's row from both protocol lists.
void RemoveProtocol(int protocol) {
    Controls().DeleteRowWithText(IDC_PROTOCOL, ProtocolNames[protocol]);
    Controls().DeleteRowWithText(IDC_IN_PROTOCOL, ProtocolNames[protocol]);
}

int RowOfProtocol(int id, int protocol) {
    const std::vector<ListRow> rows = Controls().Rows(id);
    for (size_t row = 0; row < rows.size(); ++row) {
        if (rows[row].Text == ProtocolNames[protocol]) {
            return static_cast<int>(row);
        }
    }
    return 0;
}

}  // namespace

namespace {

// Asks the adapter for its own number and takes it out of the reply into
// LocalNumber. The label names the model. False when the adapter did not
// answer, or answered without a number in the form its family gives it.
bool ReadLocalNumber(const char*& label) {
    // The reply is taken apart in TokenBuffer, so the communications thread
    // stays off the port, and out of the buffer, until that is done.
    PortConversation conversation;
    std::memset(TokenBuffer, 0, TokenBufferSize);
    std::string_view number;
    switch (Model()) {
        case ModelBitSURFR:
            if (!SendAndWaitOk("AT!N1?")) {
                return false;
            }
            number = DigitsBeforeOk(TokenBuffer);
            label = "     BitSURFR Pro";
            break;
        case ModelAdTran: {
            const bool xrt = ThePreferences.AdapterVariant == 1;
            if (!SendAndWaitOk(xrt ? "ATSS63?" : "ATSS62?") ||
                !NumberOnSecondLine(TokenBuffer, number)) {
                return false;
            }
            label = xrt ? "     AdTran Express XRT" : "     AdTran Express XR";
            break;
        }
        case ModelZyXEL:
            if (!SendAndWaitOk("AT&ZI?") || !NumberInBrackets(TokenBuffer, number)) {
                return false;
            }
            label = ZyxelLabel(ThePreferences.AdapterVariant);
            break;
        case Model3Com:
            if (!SendAndWaitOk("ATS51?") || !NumberOnSecondLine(TokenBuffer, number)) {
                return false;
            }
            label = "     3ComImpact IQ";
            break;
        default:
            return false;
    }
    StoreLocalNumber(number);
    return true;
}

}  // namespace

void ShowLocalNumber() {
    if (AdapterFound.load() == 0) {
        Controls().Enable(IDC_OWN_NUMBER, false);
        return;
    }
    const char* label = "";
    if (!ReadLocalNumber(label)) {
        return;
    }
    Controls().SetText(IDC_OWN_NUMBER, std::string(NumberCaption) + LocalNumber + label);
    Controls().Enable(IDC_OWN_NUMBER, true);
}

void ApplyAdapterToWindow() {
    ControlModel& controls = Controls();
    // A protocol saved while another adapter was attached, or one that this
    // port is too slow for, goes back to V.120, so that the list shows what
    // the incoming profile really is.
    if (!ProtocolOffered(ThePreferences.IncomingProtocol)) {
        ThePreferences.IncomingProtocol = ProtocolV120;
    }
    switch (Model()) {
        case ModelBitSURFR:
        case ModelAdTran:
            RemoveProtocol(ProtocolX75);
            if (SpeedClass.load() < 2) {
                RemoveProtocol(ProtocolAimux);
            }
            break;
        case ModelZyXEL:
            if (ThePreferences.AdapterVariant == 2) {
                RemoveProtocol(ProtocolX75);
            }
            RemoveProtocol(ProtocolAimux);
            for (int id : {IDC_2B, IDC_V42, IDC_IN_2B, IDC_IN_V42}) {
                controls.Show(id, true);
            }
            break;
        case Model3Com:
        default:
            RemoveProtocol(ProtocolX75);
            RemoveProtocol(ProtocolAimux);
            break;
    }
    controls.Select(IDC_IN_PROTOCOL,
                    RowOfProtocol(IDC_IN_PROTOCOL, ThePreferences.IncomingProtocol));
    controls.Select(IDC_PROTOCOL, 0);
    controls.Select(IDC_CARRIER, 0);
    controls.Check(IDC_IN_56K, ThePreferences.Incoming56K != 0);
    controls.Check(IDC_IN_2B, ThePreferences.Incoming2B != 0);
    controls.Check(IDC_IN_V42, ThePreferences.IncomingV42 != 0);
    controls.Check(IDC_IGNORE_HOT, ThePreferences.IgnoreHotFolders != 0);
}

void InitializeIncoming() {
    ShowLocalNumber();
    ApplyAdapterToWindow();
    const std::string command = IncomingProfile(Setup::FirstIncoming);
    bool accepted = false;
    {
        PortConversation conversation;
        DrainInput(DrainQuietMs);
        accepted = SendAndWaitOk(command.c_str());
    }
    if (!accepted) {
        ShowMessageBox("Communications read time out during Startup.");
        return;
    }
    MainLoop().SetTimer(TimerHotFolders, HotFolderPeriodMs);
}

void ReinitializeIncoming() {
    // Without an adapter no profile ever went out, and none goes now: a
    // command to a port where nothing answers would only hold the caller
    // for the whole time limit.
    if (AdapterFound.load() == 0) {
        return;
    }
    AddLogLine("------------------------------");
    const std::string command = IncomingProfile(Setup::LaterIncoming);
    PortConversation conversation;
    DrainInput(DrainQuietMs);
    SendAndWaitOk(command.c_str());
}

void InitializeOutgoing() {
    const bool at56k = Controls().Checked(IDC_56K);
    const int row = Controls().Selection(IDC_PROTOCOL);
    const int protocol = ProtocolOfRow(Controls().RowText(IDC_PROTOCOL, row));
    const std::string command = BuildProfile(protocol, at56k, Setup::Outgoing);
    SendAndWaitOk(command.c_str());
}

void AppendChannelOptions(std::string& command, int side) {
    const bool twoChannels = Controls().Checked(side != 0 ? IDC_IN_2B : IDC_2B);
    const bool compression = Controls().Checked(side != 0 ? IDC_IN_V42 : IDC_V42);
    if (twoChannels) {
        command += "&J3";
        AddLogLine("2B channel connection ON");
        RateEstimate.store(static_cast<uint16_t>(RateEstimate.load() * 2));
    } else {
        command += "&J0";
        AddLogLine("2B channel connection OFF");
    }
    if (compression) {
        command += "&K44";
        AddLogLine("V.42bis compression ON");
        RateEstimate.store(static_cast<uint16_t>(RateEstimate.load() * 2));
    } else {
        command += "&K00";
        AddLogLine("V.42bis compression OFF");
    }
}

void SendClosingCommand() {
    if (AdapterFound.load() == 0) {
        return;
    }
    const std::string command(LoadResourceString(ProfileStringBase + Model() + 5));
    if (Model() == Model3Com) {
        SendCommand(command.c_str());
    } else {
        SendAndWaitOk(command.c_str());
    }
}
