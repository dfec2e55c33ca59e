#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"
#include "support/installation.h"

namespace kb::test {

namespace {

struct Family {
    const char* Name;     // the adapter's family for virtual-ta
    const char* Label;    // what follows the number in IDC_OWN_NUMBER
    const char* Checked;  // the top of the speed ladder, and the Port Speed item checked
};

const std::vector<Family> Families = {
    {"bitsurfr", "     BitSURFR Pro", "230400"},
    {"adtran-xr", "     AdTran Express XR", "115200"},
    {"adtran-xrt", "     AdTran Express XRT", "115200"},
    {"zyxel-2864", "     ZyXEL Elite 2864i", "230400"},
    {"zyxel-omninet", "     ZyXEL Omni.net", "230400"},
    {"zyxel-ta128", "     ZyXEL Omni TA128", "230400"},
    {"3com", "     3ComImpact IQ", "230400"},
};

}  // namespace

// Every family at once, each with an adapter and a station of its own.
TEST(Detection, FindsTheAdapterOfEveryFamilyShowsItsNumberAndTakesTheIncomingProfile) {
    EachCaseAtOnce(Families, [](const Family& family) {
        SCOPED_TRACE(family.Name);
        TempFolder root;
        const std::string folder = MakeInstallation(root, "station");
        const std::string number = "4930123456789";
        VirtualAdapters adapters({folder + "/COM1=" + family.Name + ":" + number});
        Station station(folder);
        ASSERT_TRUE(station.WaitForLog("Initializing Incoming: V.120 - 64K"));

        const std::vector<std::string> search = LinesHolding(
            station.LogLines(), {"Searching", "Testing", "Test Successful", "Initializing"});
        std::vector<std::string> expected = {"Searching Comm Port 1", "Testing 57600 bps...",
                                             "Testing 115200 bps..."};
        if (std::string(family.Checked) == "230400") {
            expected.push_back("Testing 230400 bps...");
        }
        expected.push_back("Test Successful through " + std::string(family.Checked) + " bps.");
        expected.push_back("Initializing Incoming: V.120 - 64K");
        EXPECT_EQ(search, expected);

        EXPECT_EQ(station.ShowControl("IDC_OWN_NUMBER"),
                  std::string("control IDC_OWN_NUMBER text=\"Your ISDN Number: ") + number +
                      family.Label + "\" enabled=1 shown=1");
        EXPECT_EQ(station.ShowControl("window"),
                  "window caption=\"station (" + number + ") - Kestrelbound\"");
        EXPECT_NE(station.ShowControl("menu text=\"&Port Speed\"")
                      .find(std::string("checked=\"") + family.Checked + "\""),
                  std::string::npos);
        EXPECT_TRUE(station.Messages().empty());
        EXPECT_EQ(station.Quit(), 0);

        // The search is saved: the port, the family and the top speed.
        const std::string prefs = ReadWholeFile(folder + "/kestrelbound_prefs");
        ASSERT_EQ(prefs.size(), 1176u);
        EXPECT_EQ(prefs[0], 1) << "COM1";
        EXPECT_EQ(std::string(prefs.data() + 4, 4), std::string("\x00\x84\x03\x00", 4)) << "230400";
    });
}

TEST(DetectionLimits, APortThatTopsOutAt57600IsSavedAndTheNextStartGoesStraightToIt) {
    TempFolder root;
    const std::string folder = MakeInstallation(root, "station");
    VirtualAdapters adapters({folder + "/COM1=bitsurfr:5550100,max-speed=57600"});
    Station station(folder);
    // Its message, V.120 alone and no speed menu are left to the line's and
    // the window's tests; here, what is saved and what the next start does.
    ASSERT_TRUE(station.WaitForLog("Initializing Incoming: V.120 - 64K"));
    EXPECT_EQ(station.Messages().size(), 1u);
    EXPECT_EQ(station.Quit(), 0);
    const std::string prefs = ReadWholeFile(folder + "/kestrelbound_prefs");
    EXPECT_EQ(prefs.substr(4, 4), std::string("\x00\xE1\x00\x00", 4)) << "57600";

    // The next start goes straight to the saved port and speed.
    Station again(folder);
    ASSERT_TRUE(again.WaitForLog("Port speed set to 57600 bps."));
    ASSERT_TRUE(again.WaitForLog("Initializing Incoming: V.120 - 64K"));
    EXPECT_TRUE(LinesHolding(again.LogLines(), {"Searching", "Testing"}).empty());
    EXPECT_EQ(again.Quit(), 0);
}

}  // namespace kb::test
