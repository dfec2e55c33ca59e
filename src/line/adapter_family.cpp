#include "line/adapter_family.h"

#include <iterator>

#include "stores/preferences.h"

namespace kb::line {

using namespace kb::stores;

namespace {

constexpr AdapterProduct BitSurfrProducts[] = {
    {0, "     BitSURFR Pro", "AT!N1?", false},
};
constexpr AdapterProduct AdTranProducts[] = {
    {0, "     AdTran Express XR", "ATSS62?", false},
    {1, "     AdTran Express XRT", "ATSS63?", false},
};
constexpr AdapterProduct ZyxelProducts[] = {
    {1, "     ZyXEL Elite 2864i", "AT&ZI?", true},
    {2, "     ZyXEL Omni.net", "AT&ZI?", false},
    {3, "     ZyXEL Omni TA128", "AT&ZI?", true},
};
constexpr AdapterProduct ThreeComProducts[] = {
    {0, "     3ComImpact IQ", "ATS51?", false},
};

const AdapterFamily Families[] = {
    {
        .Model = ModelBitSURFR,
        .Speed = SpeedMove::AnsweredCommand,
        .SpeedCommandTo230400 = "AT@P2=230400",
        .SpeedCommandTo115200 = "AT@P2=115200",
        .OffersAimux = true,
        .SecondRow = ProtocolAimux,
        .Number = NumberReply::DigitsBeforeOk,
        .Products = BitSurfrProducts,
        .ProductCount = static_cast<int>(std::size(BitSurfrProducts)),
    },
    {
        .Model = ModelAdTran,
        .Speed = SpeedMove::DipSwitch,
        .OffersAimux = true,
        .SecondRow = ProtocolAimux,
        .Number = NumberReply::SecondLine,
        .Products = AdTranProducts,
        .ProductCount = static_cast<int>(std::size(AdTranProducts)),
    },
    {
        .Model = ModelZyXEL,
        .Speed = SpeedMove::PortOnly,
        .SecondRow = ProtocolX75,
        .HasChannelOptions = true,
        .Number = NumberReply::InBrackets,
        // Its escape guard time is longer than the others'.
        .EscapePauseMs = 2500,
        .Products = ZyxelProducts,
        .ProductCount = static_cast<int>(std::size(ZyxelProducts)),
    },
    {
        .Model = Model3Com,
        .Speed = SpeedMove::SilentCommand,
        .SpeedCommandTo230400 = "AT$B230400",
        .SpeedCommandTo115200 = "AT$B0",
        .SecondRow = ProtocolAimux,
        .Number = NumberReply::SecondLine,
        // It leaves its last command unanswered.
        .AnswersClosingCommand = false,
        .Products = ThreeComProducts,
        .ProductCount = static_cast<int>(std::size(ThreeComProducts)),
    },
};

}  // namespace

LineProtocol ProtocolNamed(std::string_view name) {
    for (int protocol = ProtocolV120; protocol <= ProtocolX75; ++protocol) {
        if (name == ProtocolNames[protocol]) {
            return static_cast<LineProtocol>(protocol);
        }
    }
    return ProtocolV120;
}

const AdapterFamily& FamilyOf(int16_t model) {
    for (const AdapterFamily& family : Families) {
        if (family.Model == model) {
            return family;
        }
    }
    return Families[0];
}

const AdapterFamily& CurrentFamily(const Preferences& prefs) {
    return FamilyOf(prefs.AdapterModel);
}

const AdapterProduct& CurrentProduct(const Preferences& prefs) {
    const AdapterFamily& family = CurrentFamily(prefs);
    for (int i = 0; i < family.ProductCount; ++i) {
        if (family.Products[i].Variant == prefs.AdapterVariant) {
            return family.Products[i];
        }
    }
    return family.Products[0];
}

LineProtocol ProtocolOfRow(const Preferences& prefs, int row) {
    if (row == 1) {
        return CurrentFamily(prefs).SecondRow;
    }
    return row == ProtocolX75 ? ProtocolX75 : ProtocolV120;
}

int RowOfProtocol(const Preferences& prefs, int protocol) {
    return protocol == CurrentFamily(prefs).SecondRow ? 1 : protocol;
}

}  // namespace kb::line
