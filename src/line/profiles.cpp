#include "line/profiles.h"

#include <cctype>
#include <cstring>
#include <string_view>

#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/line.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/installation.h"

namespace kb::line {

using namespace kb::platform;
using namespace kb::resources;

namespace {

// Which set-up a profile is for; the first words of its log line.
enum class Setup { FirstIncoming, LaterIncoming, Outgoing };

constexpr int16_t DrainQuietMs = 100;
constexpr const char* NumberCaption = "Your ISDN Number: ";

// The profile's slot in the family's ten strings.
int SlotFor(LineProtocol protocol, bool at56k) {
    const int base = protocol == ProtocolAimux ? 2 : protocol == ProtocolX75 ? 6 : 0;
    return base + (at56k ? 0 : 1);
}

// Appends the 2B and V.42bis options to a profile of a family that has them,
// logging each; each doubles the rate expected.
void AppendChannelOptions(Line& line, std::string& command, bool twoChannels, bool compression) {
    if (twoChannels) {
        command += "&J3";
        line.Stores.Log.Add("2B channel connection ON");
        line.RateEstimate.store(static_cast<uint16_t>(line.RateEstimate.load() * 2));
    } else {
        command += "&J0";
        line.Stores.Log.Add("2B channel connection OFF");
    }
    if (compression) {
        command += "&K44";
        line.Stores.Log.Add("V.42bis compression ON");
        line.RateEstimate.store(static_cast<uint16_t>(line.RateEstimate.load() * 2));
    } else {
        command += "&K00";
        line.Stores.Log.Add("V.42bis compression OFF");
    }
}

// Loads the profile of the protocol and rate, logs the set-up, sets
// RateEstimate and, on a family that has them, appends the channel options. A
// protocol the adapter does not offer is taken as V.120, the one they all
// speak, so that the family's table is never read where it has no profile.
std::string BuildProfile(Line& line, LineProtocol protocol, bool at56k, bool twoChannels,
                         bool compression, Setup setup) {
    if (!line.ProtocolOffered(protocol)) {
        protocol = ProtocolV120;
    }
    const AdapterFamily& family = CurrentFamily(line.Stores.Prefs);
    std::string command(
        LoadResourceString(ProfileStringBase + family.Model + SlotFor(protocol, at56k)));
    const char* opening = setup == Setup::FirstIncoming   ? "Initializing Incoming: "
                          : setup == Setup::LaterIncoming ? "Reinitializing Incoming: "
                                                          : "Initializing Outgoing: ";
    line.Stores.Log.Add(std::string(opening) + ProtocolNames[protocol] +
                        (at56k ? " - 56K" : " - 64K"));
    // 56K lines carry 7000 bytes a second, 64K lines 8000, and AIMUX bundles
    // two of them.
    uint16_t rate = at56k ? 7000 : 8000;
    if (protocol == ProtocolAimux) {
        rate *= 2;
    }
    line.RateEstimate.store(rate);
    if (family.HasChannelOptions) {
        AppendChannelOptions(line, command, twoChannels, compression);
    }
    return command;
}

std::string IncomingProfile(Line& line, Setup setup) {
    const LineProtocol protocol =
        line.Stores.Prefs.IncomingProtocol == ProtocolAimux ? ProtocolAimux
        : line.Stores.Prefs.IncomingProtocol == ProtocolX75 ? ProtocolX75
                                                            : ProtocolV120;
    return BuildProfile(line, protocol, line.Stores.Prefs.Incoming56K != 0,
                        line.Stores.Prefs.Incoming2B != 0, line.Stores.Prefs.IncomingV42 != 0,
                        setup);
}

// Keeps the number within LocalNumber's 31 characters, with zeros behind it:
// a retrieve request carries all 32 bytes. A longer number keeps its first
// 31 characters, and the window shows what LocalNumber holds.
void StoreLocalNumber(Line& line, std::string_view number) {
    std::memset(line.LocalNumber, 0, sizeof line.LocalNumber);
    const size_t length =
        number.size() < sizeof line.LocalNumber - 1 ? number.size() : sizeof line.LocalNumber - 1;
    std::memcpy(line.LocalNumber, number.data(), length);
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

// Asks the adapter for its own number and takes it out of the reply into
// LocalNumber. False when the adapter did not answer, or answered without a
// number in the form its family gives it.
bool ReadLocalNumber(Line& line) {
    // The reply is taken apart in TokenBuffer, so the communications thread
    // stays off the port, and out of the buffer, until that is done.
    PortConversation conversation(line);
    std::memset(line.TokenBuffer, 0, TokenBufferSize);
    if (!line.SendAndWaitOk(CurrentProduct(line.Stores.Prefs).NumberQuery)) {
        return false;
    }
    std::string_view number;
    switch (CurrentFamily(line.Stores.Prefs).Number) {
        case NumberReply::DigitsBeforeOk:
            number = DigitsBeforeOk(line.TokenBuffer);
            break;
        case NumberReply::SecondLine:
            if (!NumberOnSecondLine(line.TokenBuffer, number)) {
                return false;
            }
            break;
        case NumberReply::InBrackets:
            if (!NumberInBrackets(line.TokenBuffer, number)) {
                return false;
            }
            break;
    }
    StoreLocalNumber(line, number);
    return true;
}

}  // namespace

std::string Line::OwnNumberCaption() const {
    if (ownNumberLabel_ == nullptr) {
        return {};
    }
    return std::string(NumberCaption) + LocalNumber + ownNumberLabel_;
}

bool Line::InitializeIncoming() {
    ownNumberLabel_ = ReadLocalNumber(*this) ? CurrentProduct(Stores.Prefs).Label : nullptr;
    // A protocol saved while another adapter was attached, or one that this
    // port is too slow for, goes back to V.120, so that the window shows
    // what the incoming profile really is.
    const int16_t saved = Stores.Prefs.IncomingProtocol;
    if (saved < ProtocolV120 || saved > ProtocolX75 ||
        !ProtocolOffered(static_cast<LineProtocol>(saved))) {
        Stores.Prefs.IncomingProtocol = ProtocolV120;
    }
    const std::string command = IncomingProfile(*this, Setup::FirstIncoming);
    bool accepted = false;
    {
        PortConversation conversation(*this);
        DrainInput(DrainQuietMs);
        accepted = SendAndWaitOk(command.c_str());
    }
    if (!accepted) {
        ShowMessageBox("Communications read time out during Startup.");
    }
    return accepted;
}

void Line::ReinitializeIncoming() {
    // Without an adapter no profile ever went out, and none goes now: a
    // command to a port where nothing answers would only hold the caller
    // for the whole time limit.
    if (!AdapterFound.load()) {
        return;
    }
    Stores.Log.Add("------------------------------");
    const std::string command = IncomingProfile(*this, Setup::LaterIncoming);
    PortConversation conversation(*this);
    DrainInput(DrainQuietMs);
    // An adapter that refuses it keeps the profile it had; the next call's
    // end, or the user's next change of a setting, sends it again.
    static_cast<void>(SendAndWaitOk(command.c_str()));
}

void Line::InitializeOutgoing(const OutgoingSettings& settings) {
    const std::string command =
        BuildProfile(*this, settings.Protocol, settings.At56k, settings.TwoChannels,
                     settings.Compression, Setup::Outgoing);
    // An adapter that refuses the profile keeps the one it had; the dial goes
    // on, and its result tells how the call went.
    static_cast<void>(SendAndWaitOk(command.c_str()));
}

void Line::SendClosingCommand() {
    if (!AdapterFound.load()) {
        return;
    }
    const AdapterFamily& family = CurrentFamily(Stores.Prefs);
    const std::string command(LoadResourceString(ProfileStringBase + family.Model + 5));
    if (family.AnswersClosingCommand) {
        // The program leaves whatever the adapter says.
        static_cast<void>(SendAndWaitOk(command.c_str()));
    } else {
        SendCommand(command.c_str());
    }
}

}  // namespace kb::line
