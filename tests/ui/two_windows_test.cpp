// The desktop program as people run it: kestrelbound processes, each in an
// installation of its own with a virtual adapter on COM1, drawing on Qt's
// "offscreen" platform. Nobody clicks: what happens follows from the
// installations as they were prepared and from the program's own rules, and
// the pictures come from the program's picture options.

#include <signal.h>

#include <QImage>
#include <QString>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "e2e/harness.h"
#include "platform/files.h"
#include "screens.h"
#include "stores/directory.h"
#include "support/installation.h"
#include "support/process_state.h"
#include "support/temp_folder.h"
#include "support/test_data.h"

namespace kb::test {

using namespace kb::platform;
using namespace kb::stores;

namespace {

using namespace std::chrono_literals;

bool IsPicture(const std::string& path) {
    const QImage picture(QString::fromStdString(path));
    return !picture.isNull() && picture.width() > 0 && picture.height() > 0;
}

// A window process; its standard error is kept, to be shown when it fails.
ChildProcess StartWindow(const std::string& installation, const std::vector<std::string>& options) {
    return ChildProcess(KESTRELBOUND_PATH, options, installation, ChildProcess::Errors::Kept);
}

TEST(TwoWindows, AHotFolderGoesFromOneWindowToTheOtherAndBothArePicturedDuringTheCall) {
    TempFolder root;
    const std::string alice = MakeInstallation(root, "alice");
    const std::string bob = MakeInstallation(root, "bob");
    // Alice keeps a hot folder for Bob, filled before she starts: two looks
    // 15 s apart find it unchanged, and it dials by itself.
    Correspondent bobsRecord{};
    SetFieldText(bobsRecord.FirmName, "Bob");
    SetFieldText(bobsRecord.IsdnNumber, "5552002");
    bobsRecord.HasPickUp = 1;
    bobsRecord.HotSend = 1;
    std::string directory = {1, 0};
    directory.append(reinterpret_cast<const char*>(&bobsRecord), sizeof bobsRecord);
    WriteWholeFile(alice + "/kestrelbound_directory", directory);
    ASSERT_TRUE(std::filesystem::create_directories(alice + "/Pick Up/Bob"));
    const std::string note = RandomBytes(700, 51);
    const std::string photo = RandomBytes(96000, 52);
    WriteWholeFile(alice + "/Pick Up/Bob/note.txt", note);
    WriteWholeFile(alice + "/Pick Up/Bob/photo.bin", photo);

    // Each window's port is locked in a folder of the test's own.
    TempFolder locks;
    const EnvironmentValue lockFolder("KESTRELBOUND_LOCK_DIR", locks.Path());
    const auto lockCount = [&] {
        const std::filesystem::directory_iterator files(locks.Path());
        return std::distance(begin(files), end(files));
    };

    // A 64K line, so that the call lasts long enough to be pictured.
    VirtualAdapters adapters({alice + "/COM1=bitsurfr:5551001", bob + "/COM1=zyxel-2864:5552002"},
                             {"--rate", "8000"});
    const std::string alicePicture = ScreensFolder() + "/alice-during-transfer.png";
    const std::string bobPicture = ScreensFolder() + "/bob-during-transfer.png";
    std::filesystem::remove(alicePicture);
    std::filesystem::remove(bobPicture);
    ChildProcess aliceWindow = StartWindow(alice, {"--screenshot-on-signal", alicePicture});
    ChildProcess bobWindow = StartWindow(bob, {"--screenshot-on-signal", bobPicture});

    // The photo reaches Bob's disk under its marker, which stands there
    // from its first byte until it is whole, some twelve seconds later.
    const std::string arrivals = bob + "/Incoming Files";
    const std::string arrivedPhoto = arrivals + "/Bob/photo.bin";
    const std::string arrivingPhoto = arrivedPhoto + ".part";
    ASSERT_TRUE(PollUntil([&] { return PathExists(arrivingPhoto); }, 120s))
        << aliceWindow.ErrorText() << bobWindow.ErrorText();
    ::kill(aliceWindow.Pid(), SIGUSR1);
    ::kill(bobWindow.Pid(), SIGUSR1);
    ASSERT_TRUE(PollUntil([&] { return PathExists(alicePicture) && PathExists(bobPicture); }, 30s));
    EXPECT_TRUE(PathExists(arrivingPhoto)) << "the pictures were taken after the data had come";
    EXPECT_EQ(lockCount(), 2);

    // The files come whole, and Alice's go to her "Sent Files".
    const std::string sent = alice + "/Pick Up/Bob/Sent Files/";
    ASSERT_TRUE(PollUntil(
        [&] { return PathExists(sent + "note.txt") && PathExists(sent + "photo.bin"); }, 120s))
        << aliceWindow.ErrorText() << bobWindow.ErrorText();
    EXPECT_TRUE(ReadWholeFile(arrivals + "/Bob/note.txt") == note);
    EXPECT_TRUE(ReadWholeFile(arrivedPhoto) == photo);

    // Both end as the close box ends them, and say so in their logs.
    EXPECT_EQ(aliceWindow.Stop(SIGTERM, 60s), 0) << aliceWindow.ErrorText();
    EXPECT_EQ(bobWindow.Stop(SIGTERM, 60s), 0) << bobWindow.ErrorText();
    EXPECT_EQ(lockCount(), 0) << "the windows leave their ports unlocked";
    const std::vector<std::string> aliceLog = SavedLog(alice);
    EXPECT_EQ(LinesHolding(aliceLog, {"Calling Bob", "All files sent."}),
              (std::vector<std::string>{"Calling Bob", "All files sent."}));
    EXPECT_EQ(LinesHolding(SavedLog(bob), {"All files received."}),
              (std::vector<std::string>{"All files received."}));
    ASSERT_FALSE(aliceLog.empty());
    EXPECT_EQ(aliceLog.back().rfind("Stopping Kestrelbound ", 0), 0u);
    EXPECT_TRUE(IsPicture(alicePicture));
    EXPECT_TRUE(IsPicture(bobPicture));
}

TEST(Screenshot, AWindowPicturesItselfOnceItsAdapterIsFoundAndExitsOneIfThePictureCannotBeWritten) {
    TempFolder root;
    const std::string station = MakeInstallation(root, "station");
    VirtualAdapters adapters({station + "/COM1=zyxel-2864:5552002"});
    const std::string picture = ScreensFolder() + "/window-with-adapter.png";
    std::filesystem::remove(picture);
    ChildProcess window = StartWindow(station, {"--screenshot", picture});
    ASSERT_EQ(window.WaitForExit(120s), 0) << window.ErrorText();
    EXPECT_TRUE(IsPicture(picture));
    // The adapter was found before the picture, and the exit saved the
    // preferences with its port, as Exit does after a search that found one.
    const std::vector<std::string> log = SavedLog(station);
    EXPECT_EQ(LinesHolding(log, {"Initializing Incoming"}).size(), 1u);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back().rfind("Stopping Kestrelbound ", 0), 0u);
    const std::string prefs = ReadWholeFile(station + "/kestrelbound_prefs");
    ASSERT_GE(prefs.size(), 2u);
    EXPECT_EQ(prefs[0], 1) << "port COM1";
    // Nobody was there to answer a message box.
    EXPECT_EQ(window.ErrorText().find("ISDN TA"), std::string::npos) << window.ErrorText();

    // A picture that cannot be written makes the exit status 1; without an
    // adapter the message that says so went to standard error.
    ChildProcess failing = StartWindow(MakeInstallation(root, "without", 1),
                                       {"--screenshot", root / "no/such/folder/x.png"});
    EXPECT_EQ(failing.WaitForExit(120s), 1) << failing.ErrorText();
    EXPECT_NE(failing.ErrorText().find("Could not find your ISDN TA."), std::string::npos);
}

}  // namespace

}  // namespace kb::test
