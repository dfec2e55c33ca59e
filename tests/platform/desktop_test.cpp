// The Linux desktop's hand-offs, with stand-ins for xdg-open and zenity on
// the PATH that report how they were called in a file; and the rule that
// no file operation ever opens something that is not a plain file.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <string>

#include <gtest/gtest.h>

#include "platform/desktop.h"
#include "platform/files.h"
#include "support/process_state.h"
#include "support/temp_folder.h"
#include "support/test_data.h"

namespace kb::test {

using namespace kb::platform;

namespace {

class LinuxDesktopTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(::mkdir((root_ / "bin").c_str(), 0755), 0); }

    // A command of that name on the PATH: a shell script that adds its
    // arguments to the report, one a line, then runs the rest.
    void Tool(const std::string& name, const std::string& rest = "exit 0") {
        const std::string path = root_ / ("bin/" + name);
        WriteWholeFile(
            path, "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" >> '" + report_ + "'\n" + rest + "\n");
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    }

    // What the tools reported since the last look, once it holds the given
    // text, or what it holds after 10 s.
    std::string Reported(const std::string& until) {
        std::string text;
        PollUntil(
            [&] {
                text = PathExists(report_) ? ReadWholeFile(report_).substr(taken_) : "";
                return text.find(until) != std::string::npos;
            },
            std::chrono::seconds(10));
        taken_ += text.size();
        return text;
    }

    TempFolder root_;
    std::string report_ = root_ / "report";
    size_t taken_ = 0;
    EnvironmentValue path_{"PATH", root_ / "bin"};
    EnvironmentValue display_{"DISPLAY", ":99"};
};

TEST_F(LinuxDesktopTest, FoldersPagesProgramsAndFileDialogsGoToTheDesktopsHandlers) {
    LinuxDesktop desktop;
    Tool("xdg-open");
    desktop.ShowFolder("/home/a/Pick Up");
    EXPECT_EQ(Reported("Pick Up\n"), root_ / "bin/xdg-open\n/home/a/Pick Up\n");

    // A path becomes a file URL with every byte a URL could misread escaped.
    EXPECT_TRUE(desktop.OpenInBrowser("/home/a b/#Manual/Start_Here.html"));
    EXPECT_EQ(Reported("html\n"),
              root_ / "bin/xdg-open\nfile:///home/a%20b/%23Manual/Start_Here.html\n");

    // A handler that refuses the page is the window's desktop test's; one
    // still handing the page over at the limit: a browser is showing it.
    Tool("xdg-open", "exec /bin/sleep 30");
    EXPECT_TRUE(desktop.OpenInBrowser("http://example.org/slow"));
    {
        // With no graphical session nothing is asked at all.
        EnvironmentValue display("DISPLAY", "");
        EnvironmentValue wayland("WAYLAND_DISPLAY", "");
        Tool("xdg-open", "exit 0");
        EXPECT_FALSE(desktop.OpenInBrowser("/no-session.html"));
    }
    ASSERT_EQ(::unlink((root_ / "bin/xdg-open").c_str()), 0);
    EXPECT_FALSE(desktop.OpenInBrowser("/m.html")) << "without xdg-open nothing takes a page";
    Tool("xdg-open");
    desktop.ShowFolder("/end");
    const std::string handler = root_ / "bin/xdg-open\n";
    EXPECT_EQ(Reported("/end\n"), handler + "http://example.org/slow\n" + handler + "/end\n")
        << "the page without a session reached no handler";

    // A program starts as it is, and may be stopped like any other: the
    // signals this program keeps blocked are open to it.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigset_t before;
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &stop, &before), 0);
    // grep, in the shell's place, reads its own record, which has the program's signals: the
    // shell's own, read from outside, shows every signal blocked for the
    // moment in which it starts a command.
    Tool("program", "exec /bin/grep SigBlk /proc/self/status >> '" + report_ + "'");
    desktop.StartProgram(root_ / "bin/program");
    EXPECT_EQ(Reported("SigBlk:\t0000000000000000\n"),
              root_ / "bin/program\nSigBlk:\t0000000000000000\n");
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);

    // The file dialogs are zenity's; a cancel, or no session, chooses nothing.
    const std::string zenity = root_ / "bin/zenity\n--file-selection\n";
    Tool("zenity", "echo /home/a/Bob.KBE");
    FileDialogRequest save;
    save.For = FileDialogRequest::Purpose::Save;
    save.ProposedName = "Bob.KBE";
    save.Filter = "Entries (*.KBE)|*.KBE|All Files (*)|*|";
    EXPECT_EQ(desktop.ChooseFile(save), std::optional<std::string>("/home/a/Bob.KBE"));
    EXPECT_EQ(Reported("*\n"), zenity +
                                   "--save\n--confirm-overwrite\n--filename=Bob.KBE\n"
                                   "--file-filter=Entries (*.KBE) | *.KBE\n"
                                   "--file-filter=All Files (*) | *\n");
    // Several files come one a line, whatever else their names hold; a
    // folder dialog offers folders alone.
    Tool("zenity", "printf '/home/a/one\\n/home/a/two|2\\n'");
    FileDialogRequest open;
    open.Filter = "All Files (*)|*|";
    EXPECT_EQ(desktop.ChooseFiles(open),
              (std::vector<std::string>{"/home/a/one", "/home/a/two|2"}));
    EXPECT_EQ(Reported("*\n"),
              zenity + "--multiple\n--separator=\n\n--file-filter=All Files (*) | *\n");
    Tool("zenity", "echo /home/a/docs");
    open.For = FileDialogRequest::Purpose::Folder;
    EXPECT_EQ(desktop.ChooseFile(open), std::optional<std::string>("/home/a/docs"));
    EXPECT_EQ(Reported("--directory\n"), zenity + "--directory\n");

    // A dialog with a purpose says it in its title.
    Tool("zenity", "exit 1");
    FileDialogRequest program;
    program.Title = "Choose the program for button 1";
    EXPECT_EQ(desktop.ChooseFile(program), std::nullopt) << "Cancel";
    EXPECT_EQ(Reported("1\n"), zenity + "--title=Choose the program for button 1\n");
    EnvironmentValue display("DISPLAY", "");
    EnvironmentValue wayland("WAYLAND_DISPLAY", "");
    Tool("zenity", "echo /etc/passwd");
    EXPECT_EQ(desktop.ChooseFile(FileDialogRequest{}), std::nullopt) << "no session, no dialog";
}

TEST(Files, OnlyPlainFilesOpenAndAFifoNeverHoldsTheOpener) {
    TempFolder root;
    const std::string fifo = root / "pipe.KBE";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_TRUE(CreateFolder(root / "folder"));
    WriteWholeFile(root / "plain", "bytes");

    // Opened for reading, a FIFO would wait for a writer that never comes.
    auto opened = std::async(std::launch::async, [&] {
        File file;
        return file.Open(fifo, File::Mode::Read);
    });
    if (opened.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        const int writer = ::open(fifo.c_str(), O_WRONLY);  // lets the open go on
        ::close(writer);
        FAIL() << "opening a FIFO waited for a writer";
    }
    EXPECT_FALSE(opened.get());
    File file;
    EXPECT_FALSE(file.Open(fifo, File::Mode::CreateReadWrite));
    EXPECT_FALSE(file.Open(root / "folder", File::Mode::Read));
    ASSERT_TRUE(file.Open(root / "plain", File::Mode::Read));
    char bytes[8];
    EXPECT_EQ(file.Read(bytes, sizeof bytes), 5u) << "a plain file reads as before";
    file.Close();

    EXPECT_EQ(KindOfPath(fifo), PathKind::Other);
    EXPECT_EQ(KindOfPath(root / "folder"), PathKind::Folder);
    EXPECT_EQ(KindOfPath(root / "plain"), PathKind::File);
    EXPECT_EQ(KindOfPath(root / "missing"), PathKind::Missing);
    EXPECT_FALSE(FolderExists(root / "missing"));
    std::vector<FolderEntry> entries;
    ASSERT_TRUE(ListFolder(root.Path(), entries));
    for (const FolderEntry& entry : entries) {
        SCOPED_TRACE(entry.Name);
        EXPECT_EQ(entry.IsFile, entry.Name == "plain");
        EXPECT_EQ(entry.IsFolder,
                  entry.Name == "folder" || entry.Name == "." || entry.Name == "..");
    }
    // A file deleted once is gone: a second delete fails. (A folder that
    // exists or holds a file, made or removed, is the pick-up folder
    // controls' test's.)
    EXPECT_TRUE(DeleteFileAt(root / "plain"));
    EXPECT_FALSE(DeleteFileAt(root / "plain"));
}

}  // namespace

}  // namespace kb::test
