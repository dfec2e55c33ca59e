// What sets the families of terminal adapters apart, in one table: how a
// family's port reaches 230400 bps, which protocols it offers and in which
// row of the window's lists, how it tells its own number, whether it answers
// its last command, and how long it needs before an escape. Everything of the
// program that depends on the family reads it here; the rest of the line
// treats every adapter alike.
#pragma once

#include <cstdint>
#include <string_view>

#include "stores/preferences.h"

namespace kb::line {

using stores::Preferences;

// Values of AdapterModel, which are also offsets into the string table of AT
// profiles.
enum AdapterModelValue : int16_t {
    ModelBitSURFR = 0,
    ModelAdTran = 10,
    ModelZyXEL = 20,
    Model3Com = 30,
};

// The protocols of a call, numbered as the incoming setting and the
// directory's records keep them.
enum LineProtocol : int16_t {
    ProtocolV120 = 0,
    ProtocolAimux = 1,
    ProtocolX75 = 2,
};
// Their names, as the window's protocol lists and the log show them.
inline constexpr const char* ProtocolNames[] = {"V.120", "AIMUX", "X.75"};
// The protocol a name stands for; V.120, the one every adapter speaks, for a
// name that is none of them (a list with no row selected).
LineProtocol ProtocolNamed(std::string_view name);

// How a family's adapter follows its port to 230400 bps and back to 115200.
enum class SpeedMove {
    PortOnly,         // it follows the port by itself
    AnsweredCommand,  // a command at the old speed, answered with OK, then the port moves
    SilentCommand,    // a command with no answer at all; the port moves at once
    DipSwitch,        // only the switch on its back moves it; the user is asked to
};

// Where a family's adapter puts its own number in the reply to its query.
enum class NumberReply {
    DigitsBeforeOk,  // on the line in front of the OK
    SecondLine,      // on the line after the echoed query
    InBrackets,      // behind "MultiAuto):(", up to the next ")"
};

// One product of a family, by its AdapterVariant.
struct AdapterProduct {
    int16_t Variant = 0;
    const char* Label = "";        // what follows the number in the window
    const char* NumberQuery = "";  // the command that asks for its own number
    bool OffersX75 = false;
};

struct AdapterFamily {
    AdapterModelValue Model = ModelBitSURFR;
    SpeedMove Speed = SpeedMove::PortOnly;
    // The commands of an AnsweredCommand or SilentCommand family.
    const char* SpeedCommandTo230400 = "";
    const char* SpeedCommandTo115200 = "";
    // AIMUX bundles two channels, and needs a port above 57600 bps for them.
    bool OffersAimux = false;
    // Row 1 of a protocol list, after V.120 in row 0; a list without the
    // protocol ends at row 0.
    LineProtocol SecondRow = ProtocolAimux;
    // The 2B and V.42bis options, appended to every profile, and their boxes.
    bool HasChannelOptions = false;
    NumberReply Number = NumberReply::SecondLine;
    // Whether the adapter answers its last command with OK before the
    // program leaves.
    bool AnswersClosingCommand = true;
    // The line must be quiet this long before "+++" is taken as an escape.
    uint32_t EscapePauseMs = 650;
    const AdapterProduct* Products = nullptr;
    int ProductCount = 0;
};

// The family of a model. A model the table does not know, which only a
// damaged preferences file gives before the search has identified the
// adapter, is taken as the first family.
const AdapterFamily& FamilyOf(int16_t model);
// The family of the adapter in hand, as the preferences name it
// (AdapterModel).
const AdapterFamily& CurrentFamily(const Preferences& prefs);
// The product of the adapter in hand within its family; the family's first
// product for a variant it does not know.
const AdapterProduct& CurrentProduct(const Preferences& prefs);

// The protocol that a row of the adapter's protocol lists stands for: row 1
// is the family's second protocol, no row is V.120. And back: the family's
// second protocol is in row 1; any other protocol is looked for in the row
// of its own number, which a list that lacks it does not have, so that
// nothing is selected.
LineProtocol ProtocolOfRow(const Preferences& prefs, int row);
int RowOfProtocol(const Preferences& prefs, int protocol);

}  // namespace kb::line
