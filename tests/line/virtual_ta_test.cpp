// The adapter's dialogue against virtual-ta, which plays every family as an
// independent program: the search, the speed ladder and the profiles must
// work with adapters that this code did not script.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/port_speed.h"
#include "line/profiles.h"
#include "line_fixture.h"
#include "platform/control_model.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "stores/paths.h"
#include "stores/preferences.h"

extern char** environ;

namespace {

using Texts = std::vector<std::string>;

// virtual-ta as a child process, from its "ready" to a SIGTERM.
class VirtualTa {
public:
    VirtualTa(const std::vector<std::string>& arguments, const std::string& tracePath) {
        std::vector<std::string> all = {VIRTUAL_TA_PATH, "--trace", tracePath};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& argument : all) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        int out[2];
        if (::pipe(out) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        posix_spawn_file_actions_addclose(&actions, out[1]);
        const int spawned =
            posix_spawn(&pid_, all[0].c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        if (spawned != 0) {
            pid_ = -1;
            ::close(out[0]);
            return;
        }
        // Its first line says that every link exists.
        std::string line;
        char c = 0;
        while (line.find('\n') == std::string::npos) {
            const ssize_t n = ::read(out[0], &c, 1);
            if (n == 1) {
                line += c;
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else {
                break;
            }
        }
        ::close(out[0]);
        ready_ = line == "ready\n";
    }
    ~VirtualTa() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int status = 0;
            ::waitpid(pid_, &status, 0);
        }
    }
    VirtualTa(const VirtualTa&) = delete;
    VirtualTa& operator=(const VirtualTa&) = delete;

    bool Ready() const { return ready_; }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

class VirtualTaTest : public LineTest {
protected:
    void TearDown() override {
        if (HasFailure()) {
            std::fprintf(stderr, "virtual-ta trace:\n%s\n", ReadWholeFile(TracePath()).c_str());
        }
        LineTest::TearDown();
    }
    std::string TracePath() const { return root / "trace.txt"; }

    // A station of its own in a folder of the test's root, whose COMn
    // will be the adapter's link; its other ports are no ports.
    std::string Station(const std::string& name, int adapterPort) {
        const std::string folder = root / name;
        CreateFolder(folder);
        for (int port = 1; port <= 4; ++port) {
            if (port != adapterPort) {
                WriteWholeFile(folder + "/COM" + std::to_string(port), "not a port");
            }
        }
        return folder + "/COM" + std::to_string(adapterPort);
    }

    // Brings the program to the state of a fresh start in the station's
    // folder, with the window as it is made.
    void StartIn(const std::string& folder) {
        CommPortDestroy();
        BuildPaths(folder);
        ThePreferences = Preferences{};
        ThePreferences.MaxPortSpeed = DefaultMaxPortSpeed;
        AdapterFound.store(0);
        SpeedClass.store(0);
        SetLinePolling(0);
        std::memset(LocalNumber, 0, sizeof LocalNumber);
        MakeWindowControls();
        MainLoop().KillTimer(TimerHotFolders);
        ClearLogged();
        ASSERT_EQ(CommPortCreate(), 1);
    }
};

struct FamilyCase {
    const char* family;
    const char* number;
    int16_t model;
    int16_t variant;
    const char* label;
    uint32_t selectedSpeed;
    Texts profileLines;
};

TEST_F(VirtualTaTest, SearchFindsEveryFamilyAndVariantAndReadiesIt) {
    const Texts plain = {"Initializing Incoming: V.120 - 64K"};
    const Texts zyxel = {"Initializing Incoming: V.120 - 64K", "2B channel connection OFF",
                         "V.42bis compression OFF"};
    const FamilyCase cases[] = {
        {"bitsurfr", "5551001", ModelBitSURFR, -1, "     BitSURFR Pro", 230400, plain},
        {"adtran-xr", "5551002", ModelAdTran, 0, "     AdTran Express XR", 115200, plain},
        {"adtran-xrt", "5551003", ModelAdTran, 1, "     AdTran Express XRT", 115200, plain},
        {"zyxel-2864", "5551004", ModelZyXEL, 1, "     ZyXEL Elite 2864i", 230400, zyxel},
        {"zyxel-omninet", "5551005", ModelZyXEL, 2, "     ZyXEL Omni.net", 230400, zyxel},
        {"zyxel-ta128", "5551006", ModelZyXEL, 3, "     ZyXEL Omni TA128", 230400, zyxel},
        {"3com", "5551007", Model3Com, -1, "     3ComImpact IQ", 230400, plain},
    };
    std::vector<std::string> arguments;
    for (const FamilyCase& c : cases) {
        arguments.push_back(Station(c.family, 2) + "=" + c.family + ":" + c.number);
    }
    VirtualTa tool(arguments, TracePath());
    ASSERT_TRUE(tool.Ready());

    for (const FamilyCase& c : cases) {
        SCOPED_TRACE(c.family);
        StartIn(root / c.family);
        ThePreferences.AdapterVariant = -1;
        EXPECT_EQ(FindAdapter(), 1);

        EXPECT_EQ(AdapterFound.load(), 1);
        EXPECT_EQ(ThePreferences.ComPort, 2);
        EXPECT_EQ(ThePreferences.AdapterModel, c.model);
        EXPECT_EQ(ThePreferences.AdapterVariant, c.variant);
        EXPECT_EQ(ThePreferences.MaxPortSpeed, 230400u);
        EXPECT_EQ(ThePreferences.SelectedPortSpeed, c.selectedSpeed);
        EXPECT_EQ(ThePort->BaudRate.load(), c.selectedSpeed);
        EXPECT_TRUE(Controls().MenuItemChecked(c.selectedSpeed == 230400 ? ID_PORT_SPEED_230400
                                                                         : ID_PORT_SPEED_115200));
        EXPECT_EQ(SpeedClass.load(), 2);
        EXPECT_EQ(Controls().Text(IDC_OWN_NUMBER),
                  std::string("Your ISDN Number: ") + c.number + c.label);
        EXPECT_TRUE(Controls().Enabled(IDC_OWN_NUMBER));
        EXPECT_TRUE(Messages().empty());
        EXPECT_EQ(LinePollingEnabled.load(), 1);
        EXPECT_TRUE(MainLoop().TimerRunning(TimerHotFolders));

        const Texts search = {"Searching Comm Port 1", "Searching Comm Port 2"};
        Texts expected = search;
        if (c.model == ModelAdTran) {
            expected.insert(expected.end(), {"Testing 57600 bps...", "Testing 115200 bps...",
                                             "Test Successful through 115200 bps."});
        } else {
            expected.insert(expected.end(),
                            {"Testing 57600 bps...", "Testing 115200 bps...",
                             "Testing 230400 bps...", "Test Successful through 230400 bps."});
        }
        expected.insert(expected.end(), c.profileLines.begin(), c.profileLines.end());
        EXPECT_EQ(Logged(), expected);

        // The adapter takes a command at the speed the port was left at.
        EXPECT_TRUE(SendAndWaitOk("AT"));
        CommPortClose();
    }
}

TEST_F(VirtualTaTest, SpeedMenuMovesPortAndAdapterTogether) {
    const char* families[] = {"bitsurfr", "3com", "zyxel-ta128"};
    std::vector<std::string> arguments;
    int number = 5552001;
    for (const char* family : families) {
        arguments.push_back(Station(family, 1) + "=" + family + ":" + std::to_string(number++));
    }
    VirtualTa tool(arguments, TracePath());
    ASSERT_TRUE(tool.Ready());

    for (const char* family : families) {
        SCOPED_TRACE(family);
        StartIn(root / family);
        ASSERT_EQ(FindAdapter(), 1);
        ASSERT_EQ(ThePort->BaudRate.load(), 230400u);

        // A 3Com moves without an answer; like the ladder, the test lets the
        // line settle before it speaks again.
        OnPortSpeed115200();
        DrainInput(50);
        EXPECT_EQ(ThePort->BaudRate.load(), 115200u);
        EXPECT_TRUE(SendAndWaitOk("AT")) << "the adapter has followed to 115200";
        OnPortSpeed230400();
        DrainInput(50);
        EXPECT_EQ(ThePort->BaudRate.load(), 230400u);
        EXPECT_TRUE(SendAndWaitOk("AT")) << "the adapter has followed to 230400";
        EXPECT_TRUE(Messages().empty());
        EXPECT_EQ(LinePollingEnabled.load(), 1);
        SetLinePolling(0);
        CommPortClose();
    }
}

TEST_F(VirtualTaTest, AdtranWithItsSwitchAt230400StartsFromTheSavedChoice) {
    VirtualTa tool({Station("dip", 3) + "=adtran-xrt:5553001,dip230400"}, TracePath());
    ASSERT_TRUE(tool.Ready());
    StartIn(root / "dip");
    ThePreferences.ComPort = 3;
    ThePreferences.MaxPortSpeed = 230400;
    ThePreferences.SelectedPortSpeed = 230400;
    ThePreferences.AdapterModel = ModelAdTran;
    ThePreferences.AdapterVariant = 1;

    EXPECT_EQ(FindAdapter(), 1);
    EXPECT_EQ(ThePort->BaudRate.load(), 230400u);
    EXPECT_TRUE(Controls().MenuItemChecked(ID_PORT_SPEED_230400));
    EXPECT_EQ(Controls().Text(IDC_OWN_NUMBER), "Your ISDN Number: 5553001     AdTran Express XRT");
    EXPECT_EQ(Logged(),
              (Texts{"Port speed set to 230400 bps.", "Initializing Incoming: V.120 - 64K"}));
    EXPECT_TRUE(Messages().empty());
}

TEST_F(VirtualTaTest, AdapterThatTopsOutAt57600) {
    VirtualTa tool({Station("slow", 1) + "=bitsurfr:5554001,max-speed=57600"}, TracePath());
    ASSERT_TRUE(tool.Ready());
    StartIn(root / "slow");
    ThePreferences.IncomingProtocol = 1;

    FindAdapter();
    EXPECT_EQ(ThePreferences.MaxPortSpeed, 57600u);
    EXPECT_EQ(SpeedClass.load(), 1);
    EXPECT_EQ(ThePort->BaudRate.load(), 115200u) << "left where the test failed";
    EXPECT_FALSE(Controls().HasMenuItem(ID_PORT_SPEED_115200));
    EXPECT_EQ(Controls().Menus().size(), 1u);
    // The adapter does not hear the port at 115200, so the number and the
    // profile go unanswered.
    EXPECT_EQ(Messages(), (Texts{"Error testing connection at 115200 bps.",
                                 "Communications read time out during Startup."}));
    EXPECT_FALSE(Controls().Enabled(IDC_OWN_NUMBER));
    EXPECT_FALSE(MainLoop().TimerRunning(TimerHotFolders));
    EXPECT_EQ(RowTexts(IDC_IN_PROTOCOL), (Texts{"V.120"}));
    EXPECT_EQ(ThePreferences.IncomingProtocol, 0);
    EXPECT_EQ(LinePollingEnabled.load(), 1) << "the find stands, and polling goes on";

    // The next start opens at the saved 57600 and works.
    StartIn(root / "slow");
    ThePreferences.ComPort = 1;
    ThePreferences.MaxPortSpeed = 57600;
    ThePreferences.AdapterModel = ModelBitSURFR;
    EXPECT_EQ(FindAdapter(), 1);
    EXPECT_EQ(ThePort->BaudRate.load(), 57600u);
    EXPECT_EQ(Logged(),
              (Texts{"Port speed set to 57600 bps.", "Initializing Incoming: V.120 - 64K"}));
    EXPECT_EQ(Controls().Text(IDC_OWN_NUMBER), "Your ISDN Number: 5554001     BitSURFR Pro");
    EXPECT_TRUE(Messages().empty());
}

TEST_F(VirtualTaTest, NoAdapterOnAnyPort) {
    // Four ports that are there but silent.
    std::vector<std::unique_ptr<FarEnd>> silent;
    for (int port = 1; port <= 4; ++port) {
        silent.push_back(std::make_unique<FarEnd>());
        silent.back()->LinkAs(root.Path(), port);
    }
    EXPECT_EQ(FindAdapter(), 0);
    EXPECT_EQ(Logged(),
              (Texts{"Searching Comm Port 1", "Searching Comm Port 2", "Searching Comm Port 3",
                     "Searching Comm Port 4", "ISDN TA not found."}));
    EXPECT_EQ(Messages(), (Texts{NoAdapterMessage}));
    for (const auto& far : silent) {
        EXPECT_EQ(far->ReceiveAvailable(), "atv1\r") << "each port was asked once";
    }
    EXPECT_EQ(AdapterFound.load(), 0);
    EXPECT_EQ(LinePollingEnabled.load(), 0);
    EXPECT_EQ(ThePreferences.ComPort, 0);
    EXPECT_FALSE(MainLoop().TimerRunning(TimerHotFolders));
    EXPECT_EQ(RowTexts(IDC_PROTOCOL), (Texts{"V.120", "AIMUX", "X.75"})) << "lists untrimmed";
    EXPECT_FALSE(Controls().Enabled(IDC_OWN_NUMBER));
    EXPECT_TRUE(Controls().HasMenuItem(ID_PORT_SPEED_230400));
    CommPortDestroy();
}

}  // namespace
