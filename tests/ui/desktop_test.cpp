// What the desktop program hands to the desktop and to the GUI thread: folders
// and pages through the desktop's URL handlers, programs started apart from
// it, the file dialogs, work from other threads onto the GUI thread, and the
// manual written into an installation.

#include <QDesktopServices>
#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "support/process_state.h"
#include "support/temp_folder.h"
#include "ui/gui_thread.h"
#include "ui/manual.h"
#include "ui/qt_desktop.h"
#include "ui_fixture.h"
#include "url_catcher.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::platform;
using namespace kb::ui;

namespace {

using namespace std::chrono_literals;

// Runs the call on a thread of its own, as the program's threads call the
// desktop, while the GUI thread keeps its events running.
template <typename Call>
auto FromAnotherThread(Call call) {
    auto result = std::async(std::launch::async, call);
    EXPECT_TRUE(WaitUntil([&] { return result.wait_for(0s) == std::future_status::ready; }));
    return result.get();
}

class DesktopTest : public ::testing::Test {
protected:
    DesktopTest() : desktop_(gui_, [] { return nullptr; }) {
        QDesktopServices::setUrlHandler(QStringLiteral("file"), &catcher_, "Catch");
    }
    ~DesktopTest() override { QDesktopServices::unsetUrlHandler(QStringLiteral("file")); }

    GuiThread gui_;
    QtDesktop desktop_;
    UrlCatcher catcher_;
    ModalAnswerer answerer_;
    TempFolder folder_;
};

// File dialogs give the chosen path or nothing; folders go to the desktop's
// handlers, and pages to one whose answer is heard.
TEST_F(DesktopTest, FileDialogsGiveTheChosenPathFoldersGoToHandlersAndPagesToOneThatAnswers) {
    const std::string chosen = folder_.MakeFile("chosen.txt", 1);
    FileDialogRequest open;
    open.Filter = "All Files (*)|*|";
    answerer_.AnswerNextDialog(chosen);
    EXPECT_EQ(FromAnotherThread([&] { return desktop_.ChooseFile(open); }), chosen);
    answerer_.AnswerNextDialog(std::nullopt);
    open.Title = "Choose the program for button 2";
    EXPECT_EQ(FromAnotherThread([&] { return desktop_.ChooseFile(open); }), std::nullopt);
    EXPECT_EQ(answerer_.Titles(),
              (std::vector<std::string>{"Open", "Choose the program for button 2"}));
    // Several files at once, as the dialog's name field takes them; and a
    // folder.
    const std::string second = folder_.MakeFile("second.txt", 1);
    answerer_.AnswerNextDialog("\"" + chosen + "\" \"" + second + "\"");
    EXPECT_EQ(FromAnotherThread([&] { return desktop_.ChooseFiles(open); }),
              (std::vector<std::string>{chosen, second}));
    answerer_.AnswerNextDialog(folder_.Path());
    open.For = FileDialogRequest::Purpose::Folder;
    EXPECT_EQ(FromAnotherThread([&] { return desktop_.ChooseFile(open); }), folder_.Path());

    EXPECT_EQ(QtFileFilter("All Files (*)|*|"), "All Files (*)");
    EXPECT_EQ(QtFileFilter("Entries (*.KBE)|*.KBE;*.kbe|All Files (*)|*|"),
              "Entries (*.KBE *.kbe);;All Files (*)");

    const std::string folder = folder_ / "Incoming Files";
    FromAnotherThread([&] { desktop_.ShowFolder(folder); });
    EXPECT_EQ(catcher_.Caught(), (std::vector<std::string>{"file://" + folder}));

    // A page goes to xdg-open, which answers by its exit status: a handler
    // that starts and then fails has taken nothing, and Help can say so.
    ASSERT_TRUE(CreateFolder(folder_ / "bin"));
    EnvironmentValue path("PATH", folder_ / "bin");
    EnvironmentValue display("DISPLAY", ":99");
    const std::string page = folder_ / "Kestrelbound_Manual/Start_Here.html";
    for (const bool works : {false, true}) {
        WriteWholeFile(folder_ / "bin/xdg-open",
                       works ? "#!/bin/sh\nexit 0\n" : "#!/bin/sh\nexit 4\n");
        ASSERT_TRUE(QFile::setPermissions(QString::fromStdString(folder_ / "bin/xdg-open"),
                                          QFile::ReadOwner | QFile::ExeOwner));
        EXPECT_EQ(FromAnotherThread([&] { return desktop_.OpenInBrowser(page); }), works);
    }
    EXPECT_EQ(catcher_.Caught().size(), 1u) << "no page went to Qt's handlers";
}

TEST_F(DesktopTest, AProgramStartsInASessionOfItsOwnWithNoSignalHeldBack) {
    // The program holds back its stop signals in every thread; what it
    // starts must not inherit that.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &stops, &before), 0);
    const std::string report = folder_ / "status";
    const std::string session = folder_ / "session";
    const std::string script = folder_ / "program.sh";
    // Each command reads its own record: the shell blocks every signal for a
    // moment whenever it starts a command, so its record, read from outside,
    // may show that moment.
    WriteWholeFile(script,
                   "#!/bin/sh\ncd \"$(dirname \"$0\")\"\n"
                   "cut -d' ' -f6 /proc/self/stat > session\n"
                   "cat /proc/self/status > status.part && mv status.part status\n");
    ASSERT_TRUE(QFile::setPermissions(QString::fromStdString(script),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    FromAnotherThread([&] { desktop_.StartProgram(script); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return PathExists(report); }));
    const std::string status = ReadWholeFile(report);
    EXPECT_TRUE(std::regex_search(status, std::regex("\nSigBlk:\\s*0000000000000000\n"))) << status;
    EXPECT_NE(std::stol(ReadWholeFile(session)), static_cast<long>(getsid(0)));
}

TEST(GuiThreadTest, WorkFromOtherThreadsRunsOnTheGuiThreadInOrderAndNothingRunsOnceItIsClosed) {
    GuiThread gui;
    std::vector<int> order;
    std::atomic<bool> onGui{true};
    EXPECT_TRUE(FromAnotherThread([&] {
        gui.Post([&] { order.push_back(1); });
        return gui.Call([&] {
            order.push_back(2);
            onGui = onGui && gui.OnGuiThread();
        });
    }));
    EXPECT_TRUE(onGui);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    // A caller waiting when the GUI goes returns, and nothing more runs.
    std::atomic<bool> ranLate{false};
    auto late = std::async(std::launch::async, [&] { return gui.Call([&] { ranLate = true; }); });
    std::this_thread::sleep_for(50ms);
    gui.Close();
    ASSERT_EQ(late.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(late.get());
    EXPECT_FALSE(ranLate);
}

TEST(ManualTest, TheManualIsWrittenWhereHelpLooksWhenItsStartPageIsMissingAndOnlyThen) {
    TempFolder root;
    ASSERT_TRUE(InstallManual(root.Path()));
    const QDir made(QStringLiteral(KB_MANUAL_FOLDER));
    const QStringList pages = made.entryList(QDir::Files);
    ASSERT_FALSE(pages.isEmpty());
    EXPECT_TRUE(PathExists(ManualStartPageBelow(root.Path())));

    // Every page is written as made; every page and picture a page links to
    // was written, and every place it points into is there; every page's
    // navigation bar leads to every page and marks the page itself.
    const std::string written = ManualFolderBelow(root.Path()) + "/";
    const std::regex link(R"((?:href|src)="([^":]*?)(?:#([^"]*))?")");
    const std::regex barEntry(R"re(<li><a href="([^"]+)"( aria-current="page")?>)re");
    std::set<std::string> everyPage;
    for (const QString& page : made.entryList({QStringLiteral("*.html")}, QDir::Files)) {
        everyPage.insert(page.toStdString());
    }
    for (const QString& file : pages) {
        const std::string page = file.toStdString();
        const std::string text = ReadWholeFile(written + page);
        EXPECT_EQ(text, ReadWholeFile(made.filePath(file).toStdString())) << page;
        if (file.endsWith(QStringLiteral(".html"))) {
            const std::string bar = text.substr(0, text.find("</nav>"));
            std::set<std::string> listed;
            std::vector<std::string> marked;
            for (std::sregex_iterator it(bar.begin(), bar.end(), barEntry), end; it != end; ++it) {
                listed.insert((*it)[1].str());
                if ((*it)[2].matched) {
                    marked.push_back((*it)[1].str());
                }
            }
            EXPECT_EQ(listed, everyPage) << page;
            EXPECT_EQ(marked, std::vector<std::string>{page});
        }
        for (std::sregex_iterator it(text.begin(), text.end(), link), end; it != end; ++it) {
            const std::string target = (*it)[1].str().empty() ? page : (*it)[1].str();
            ASSERT_TRUE(PathExists(written + target)) << page << " -> " << target;
            if ((*it)[2].matched) {
                EXPECT_NE(ReadWholeFile(written + target).find("id=\"" + (*it)[2].str() + "\""),
                          std::string::npos)
                    << page << " -> " << (*it)[0].str();
            }
        }
    }

    // A start page that is there is the user's: nothing is written.
    TempFolder kept;
    ASSERT_TRUE(CreateFolder(ManualFolderBelow(kept.Path())));
    WriteWholeFile(ManualStartPageBelow(kept.Path()), "my own notes");
    ASSERT_TRUE(InstallManual(kept.Path()));
    EXPECT_EQ(ReadWholeFile(ManualStartPageBelow(kept.Path())), "my own notes");
    EXPECT_EQ(QDir(QString::fromStdString(ManualFolderBelow(kept.Path())))
                  .entryList(QDir::Files | QDir::NoDotAndDotDot)
                  .size(),
              1);
}

}  // namespace

}  // namespace kb::test
