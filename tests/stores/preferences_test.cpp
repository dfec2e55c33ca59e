#include "stores/preferences.h"

#include <signal.h>
#include <sys/resource.h>

#include <cstring>

#include "platform/files.h"
#include "store_fixture.h"

namespace kb::test {

using namespace kb::platform;

namespace {

using PreferencesTest = StoreTest;

TEST_F(PreferencesTest, ShortAndEmptyFilesAreTakenAsTheyStandAndNotRewritten) {
    // ComPort 3, MaxPortSpeed 57600, IncomingProtocol 2, then the file ends.
    const std::string shortFile("\x03\x00\x00\x00\x00\xE1\x00\x00\x02\x00", 10);
    WriteWholeFile(folder_ / "kestrelbound_prefs", shortFile);
    // Values left from before must not survive a load.
    stores_.Prefs.AdapterModel = 30;
    stores_.Prefs.IgnoreHotFolders = 1;
    std::strcpy(stores_.Prefs.ExternalProgramB, "left over");

    ASSERT_TRUE(LoadPreferences(stores_.Prefs, stores_.Paths.PrefsPath));
    EXPECT_EQ(stores_.Prefs.ComPort, 3);
    EXPECT_EQ(stores_.Prefs.MaxPortSpeed, 57600u);
    EXPECT_EQ(stores_.Prefs.IncomingProtocol, 2);
    EXPECT_EQ(stores_.Prefs.AdapterModel, 0);
    EXPECT_EQ(stores_.Prefs.IgnoreHotFolders, 0);
    EXPECT_STREQ(stores_.Prefs.ExternalProgramB, "");
    EXPECT_EQ(ReadWholeFile(folder_ / "kestrelbound_prefs"), shortFile);

    // An empty file is an all-zero record; the defaults of a new file do not
    // apply to it.
    WriteWholeFile(folder_ / "kestrelbound_prefs", "");
    ASSERT_TRUE(LoadPreferences(stores_.Prefs, stores_.Paths.PrefsPath));
    EXPECT_EQ(stores_.Prefs.MaxPortSpeed, 0u);
    EXPECT_EQ(ReadWholeFile(folder_ / "kestrelbound_prefs").size(), 0u);
    EXPECT_TRUE(Messages().empty());
}

// A file longer than the record, with bytes in the reserved words behind the
// fields: a load and a save write every field at its offset and keep the
// reserved bytes as they were read and the tail behind the record.
TEST_F(PreferencesTest, SaveWritesEveryFieldAtItsOffsetAndKeepsReservedBytesAndTail) {
    std::string file(1176 + 300, '\0');
    for (size_t i = 1052; i < file.size(); ++i) {
        file[i] = static_cast<char>(i * 7 + 1);
    }
    file.replace(4, 4, std::string("\x00\xC2\x01\x00", 4));  // MaxPortSpeed 115200
    WriteWholeFile(folder_ / "kestrelbound_prefs", file);
    ASSERT_TRUE(LoadPreferences(stores_.Prefs, stores_.Paths.PrefsPath));
    EXPECT_EQ(stores_.Prefs.MaxPortSpeed, 115200u);

    stores_.Prefs.ComPort = 2;
    stores_.Prefs.MaxPortSpeed = 230400;
    stores_.Prefs.IncomingProtocol = 2;
    stores_.Prefs.Incoming56K = 1;
    stores_.Prefs.AdapterModel = 20;
    std::strcpy(stores_.Prefs.ExternalProgramA, "/usr/bin/first --a");
    std::strcpy(stores_.Prefs.ExternalProgramB, "/opt/second");
    stores_.Prefs.SelectedPortSpeed = 115200;
    stores_.Prefs.AdapterVariant = 3;
    stores_.Prefs.Incoming2B = 1;
    stores_.Prefs.IncomingV42 = -2;
    stores_.Prefs.IgnoreHotFolders = 1;
    ASSERT_TRUE(SavePreferences(stores_.Prefs, stores_.Paths.PrefsPath));
    // Little-endian fields, the reserved words between them zero as loaded.
    EXPECT_EQ(ReadWholeFile(folder_ / "kestrelbound_prefs"),
              std::string("\x02\0\0\0\x00\x84\x03\x00\x02\0\x01\0\x14\0", 14) +
                  Padded("/usr/bin/first --a", 512) + Padded("/opt/second", 512) +
                  std::string("\0\0\x00\xC2\x01\x00\x03\0\x01\0\xFE\xFF\x01\0", 14) +
                  file.substr(1052));
}

// A save needs an existing file and says nothing without. A folder where no
// file can be made: each store says so once at its load, and is left empty;
// the saves at exit fail in silence and make nothing.
TEST_F(PreferencesTest, SavesNeedAFileAndFailSilentlyAndLoadsWhereNoneCanBeMadeSaySoOnce) {
    stores_.Prefs.ComPort = 1;
    EXPECT_FALSE(SavePreferences(stores_.Prefs, stores_.Paths.PrefsPath));
    EXPECT_FALSE(PathExists(folder_ / "kestrelbound_prefs"));

    // A file that opens but takes only some of the bytes, the process being
    // held to a smaller file size: the save fails, still silently.
    WriteWholeFile(folder_ / "kestrelbound_prefs", std::string(1176, '\0'));
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit small = before;
    small.rlim_cur = 100;
    const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool saved = SavePreferences(stores_.Prefs, stores_.Paths.PrefsPath);
    ::setrlimit(RLIMIT_FSIZE, &before);
    ::signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(saved);
    EXPECT_TRUE(Messages().empty()) << "neither failure was said";

    // A folder where no file can be made: each store says so once at its load,
    // and is left empty; the saves at exit fail in silence and make nothing.
    Installation missing(folder_ / "missing");
    missing.Prefs.MaxPortSpeed = 57600;
    missing.Directory.Count = 3;
    EXPECT_FALSE(missing.Log.Load());
    EXPECT_FALSE(LoadDirectory(missing.Directory, missing.Paths.DirectoryPath));
    EXPECT_FALSE(LoadPreferences(missing.Prefs, missing.Paths.PrefsPath));
    EXPECT_EQ(Messages(), (std::vector<std::string>{"Cannot create status log file.",
                                                    "Cannot create directory file.",
                                                    "Cannot create preferences file."}));
    EXPECT_TRUE(missing.Log.StoredLines().empty());
    EXPECT_EQ(missing.Directory.Count.load(), 0);
    // The defaults belong to a file that was made; without one the record is
    // all zero, MaxPortSpeed included.
    EXPECT_EQ(missing.Prefs.MaxPortSpeed, 0u);

    EXPECT_FALSE(missing.Log.Save({"Stopping Kestrelbound"}));
    EXPECT_FALSE(SaveDirectory(missing.Directory, missing.Paths.DirectoryPath));
    EXPECT_EQ(Messages().size(), 3u);
    EXPECT_FALSE(PathExists(folder_ / "missing"));
}

}  // namespace

}  // namespace kb::test
