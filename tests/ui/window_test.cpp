// The window on the desktop, in the test process: the widgets show the
// control model, whichever thread changed it, and the user's clicks, typing,
// choices, menus, keys and drops reach the window, which decides.

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QHeaderView>
#include <QHelpEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QPainter>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <QToolTip>
#include <QTreeWidget>

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include "app/control_model.h"
#include "app/main_window.h"
#include "line/adapter.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "stores/paths.h"
#include "support/process_state.h"
#include "support/recording_desktop.h"
#include "ui/about_box.h"
#include "ui_fixture.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

namespace {

using namespace std::chrono_literals;

// The menu bar as written: each menu's title, then its entries ("-" for a
// separator, "*" behind a checked one).
std::vector<std::string> ShownMenus(const ui::MainView& view) {
    std::vector<std::string> menus;
    for (QAction* top : view.menuBar()->actions()) {
        std::string written = top->text().toStdString() + ":";
        for (QAction* entry : top->menu()->actions()) {
            written += " " + (entry->isSeparator()
                                  ? std::string("-")
                                  : entry->text().toStdString() + (entry->isChecked() ? "*" : ""));
        }
        menus.push_back(written);
    }
    return menus;
}

std::vector<std::string> ModelMenus() {
    std::vector<std::string> written;
    for (const Menu& menu : Controls().Menus()) {
        std::string line = menu.Title + ":";
        for (const MenuItem& item : menu.Items) {
            // A separator at the top of a menu is not drawn.
            if (!item.Text.empty() || line.size() > menu.Title.size() + 1) {
                line += " " + (item.Text.empty() ? std::string("-")
                                                 : item.Text + (item.Checked ? "*" : ""));
            }
        }
        written.push_back(line);
    }
    return written;
}

QAction* MenuEntry(const ui::MainView& view, const std::string& text) {
    for (QAction* top : view.menuBar()->actions()) {
        for (QAction* entry : top->menu()->actions()) {
            if (entry->text().toStdString() == text) {
                return entry;
            }
        }
    }
    return nullptr;
}

// Clicks a row of a list where the user would, at its middle.
void ClickRow(QAbstractItemView* list, int row) {
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                      list->visualRect(list->model()->index(row, 0)).center());
}

class WindowTest : public UiTest {
protected:
    // Clicks a button once the window shows it enabled, as a user waits to
    // see it.
    void Click(int id, Qt::KeyboardModifiers keys = {}) {
        QWidget* button = Widget(id);
        ASSERT_TRUE(WaitUntil([&] { return button->isVisible() && button->isEnabled(); }))
            << ControlName(id);
        QTest::mouseClick(button, Qt::LeftButton, keys);
    }
    // Types a correspondent into the form and presses Add, as the user does.
    void AddCorrespondent(const std::string& name, const std::string& number) {
        for (const auto& [id, text] : {std::pair(IDC_NAME, name), std::pair(IDC_NUMBER, number)}) {
            WidgetAs<QLineEdit>(id)->clear();
            QTest::keyClicks(Widget(id), QString::fromStdString(text));
        }
        Click(IDC_ADD);
        auto* list = WidgetAs<QListWidget>(IDC_DIRECTORY_LIST);
        ASSERT_TRUE(WaitUntil([&] {
            return !list->findItems(QString::fromStdString(name), Qt::MatchExactly).isEmpty();
        }));
    }
};

TEST_F(WindowTest, TheSplashClosesByItselfEnterAndEscapeNeverEndTheProgramTheCloseBoxDoes) {
    // The window comes up, then the splash over it; then the splash goes,
    // and the search runs once.
    ASSERT_TRUE(WaitUntil([&] { return View().About()->isVisible(); }));
    EXPECT_TRUE(View().isVisible());
    View().About()->grab().save(QString::fromStdString(ScreensFolder() + "/splash.png"));
    ASSERT_TRUE(WaitUntil([&] { return !View().About()->isVisible(); }));
    WaitForStart();
    // One box: one search. The box breaks the message's lines where the
    // program breaks them with CR.
    std::string shown = NoAdapterMessage;
    std::replace(shown.begin(), shown.end(), '\r', '\n');
    EXPECT_EQ(answerer_->Messages(), std::vector<std::string>{shown});
    EXPECT_EQ(ShownMenus(View()), ModelMenus());
    EXPECT_FALSE(View().windowIcon().isNull());
    // A tidy dialog: no control reaches past the window's edge.
    for (const ControlPlace& place : MainWindowLayout()) {
        const QWidget* widget = Widget(place.Id);
        ASSERT_NE(widget, nullptr) << place.Id;
        EXPECT_TRUE(View().Page()->rect().contains(widget->geometry())) << place.Id;
    }
    View().grab().save(QString::fromStdString(ScreensFolder() + "/window-without-adapter.png"));

    // Enter and Escape never end the program: in the window, in an edit
    // field, and in the About box of the Help menu, which they close as its
    // OK does (Key_unknown: a click on OK).
    for (QWidget* target : {static_cast<QWidget*>(&View()), Widget(IDC_NAME)}) {
        QTest::keyClick(target, Qt::Key_Return);
        QTest::keyClick(target, Qt::Key_Enter);
        QTest::keyClick(target, Qt::Key_Escape);
    }
    for (const Qt::Key key : {Qt::Key_Escape, Qt::Key_Return, Qt::Key_unknown}) {
        MenuEntry(View(), "&About Kestrelbound...")->trigger();
        ASSERT_TRUE(WaitUntil([&] { return View().About()->isVisible(); }));
        EXPECT_TRUE(Controls().Shown(IDD_ABOUTBOX));
        if (key == Qt::Key_unknown) {
            QTest::mouseClick(View().About()->OkButton(), Qt::LeftButton, {},
                              View().About()->OkButton()->rect().topLeft() + QPoint(5, 5));
        } else {
            QTest::keyClick(View().About(), key);
        }
        ASSERT_TRUE(WaitUntil([&] { return !View().About()->isVisible(); }));
        EXPECT_FALSE(Controls().Shown(IDD_ABOUTBOX));
    }
    // Enter and Space press the button that has the focus, here Help, and
    // so does the Help menu's first entry. No browser takes the manual
    // without a desktop session, and each message, closed with Esc, says
    // where the manual is.
    {
        EnvironmentValue display("DISPLAY", "");
        EnvironmentValue wayland("WAYLAND_DISPLAY", "");
        answerer_->CloseMessagesWithEscape(true);
        QWidget* help = Widget(IDC_HELP);
        help->setFocus();
        QTest::keyClick(help, Qt::Key_Return);
        ASSERT_TRUE(WaitUntil([&] { return answerer_->Messages().size() == 2; }));
        QTest::keyClick(help, Qt::Key_Space);
        ASSERT_TRUE(WaitUntil([&] { return answerer_->Messages().size() == 3; }));
        MenuEntry(View(), "&Contents")->trigger();
        ASSERT_TRUE(WaitUntil([&] { return answerer_->Messages().size() == 4; }));
        ASSERT_TRUE(WaitUntil([] { return QApplication::activeModalWidget() == nullptr; }));
        answerer_->CloseMessagesWithEscape(false);
        const std::string manual = ManualNotOpened + folder_ / HelpPageName;
        EXPECT_EQ(answerer_->Messages(), (std::vector<std::string>{shown, manual, manual, manual}));
    }

    // The window still answers, and stays up.
    EXPECT_EQ(OnMainLoop([this] { return frontEnd_->Window()->load() != nullptr; }), true);
    EXPECT_TRUE(View().isVisible());

    // The close box ends it, through the orderly stop: the log is saved with
    // its Stopping line.
    View().close();
    ASSERT_TRUE(WaitUntil([&] { return frontEnd_->Ended(); }));
    EXPECT_FALSE(View().isVisible());
    EXPECT_NE(ReadWholeFile(folder_ / "kestrelbound_log").find("Stopping Kestrelbound "),
              std::string::npos);
}

TEST_F(WindowTest, WidgetsFollowOtherThreadsAndTypingClicksKeysChoicesAndMenusReachTheWindow) {
    WaitForStart();
    MainWindow* const window = frontEnd_->Window()->load();
    ASSERT_NE(window, nullptr);
    // The engine's display calls, from a thread of their own, while the GUI
    // thread does nothing at all: none of them may wait for it.
    auto calls = std::async(std::launch::async, [window] {
        window->Display().ShowTransferDisplay(true);
        for (uint32_t i = 1; i <= 500; ++i) {
            window->Display().SetProgress(i, 1000);
            window->Display().ShowBatchEstimate(i * 4096);
            window->Log().AddLogLine("Block " + std::to_string(i));
        }
    });
    ASSERT_EQ(calls.wait_for(30s), std::future_status::ready)
        << "a display call waited for the GUI thread";

    ExpectWidgetsToFollow();
    auto* log = WidgetAs<QListWidget>(IDC_LOG);
    EXPECT_EQ(log->item(log->count() - 1)->text().toStdString(), "Block 500");
    // The newest line has been brought into view.
    EXPECT_TRUE(
        log->viewport()->rect().intersects(log->visualItemRect(log->item(log->count() - 1))));
    // A line longer than the log is wide shows whole in its tooltip; a line
    // that fits shows none.
    const std::string longLine = "Directory Entry Not Added: " + std::string(200, 'x');
    window->Log().AddLogLine(longLine);
    ASSERT_TRUE(
        WaitUntil([&] { return log->item(log->count() - 1)->text().toStdString() == longLine; }));
    const auto tipAt = [&](int row) {
        const QPoint point = log->visualItemRect(log->item(row)).center();
        QHelpEvent help(QEvent::ToolTip, point, log->viewport()->mapToGlobal(point));
        QApplication::sendEvent(log->viewport(), &help);
        return QToolTip::isVisible() ? QToolTip::text().toStdString() : std::string();
    };
    EXPECT_EQ(tipAt(log->count() - 1), longLine);
    // Its row is as wide as the list, no wider: the line ends in "..."
    // where the list ends, not behind its edge.
    EXPECT_EQ(log->visualItemRect(log->item(log->count() - 1)).width(), log->viewport()->width());
    tipAt(log->count() - 2);
    EXPECT_TRUE(WaitUntil([] { return !QToolTip::isVisible(); }));

    // Typing is never undone by the window catching up with it: the window
    // is busy (as during the search for the adapter) while the user types
    // on; the model holds only the first letter when the GUI next draws.
    auto* name = WidgetAs<QLineEdit>(IDC_NAME);
    name->setFocus();
    std::promise<void> released;
    QTest::keyClicks(name, QStringLiteral("B"));
    // Waited for without running Qt's events, so that the model's "B" is
    // still on its way to the widget when the user types on.
    const auto limit = std::chrono::steady_clock::now() + 30s;
    while (Controls().Text(IDC_NAME) != "B" && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    ASSERT_EQ(Controls().Text(IDC_NAME), "B");
    MainLoop().Post([release = released.get_future().share()] { release.wait(); });
    QTest::keyClicks(name, QStringLiteral("ob"));
    QCoreApplication::processEvents();
    EXPECT_EQ(name->text().toStdString(), "Bob");
    released.set_value();
    ASSERT_TRUE(WaitUntil([] { return Controls().Text(IDC_NAME) == "Bob"; }));
    ExpectWidgetsToFollow();

    // Typing a name and a number turns Add on; Add enters the record.
    AddCorrespondent("Bob", "5552002");

    // Choosing the contact form in the drop-down changes the labels.
    auto* form = WidgetAs<QComboBox>(IDC_FORM);
    form->setFocus();
    QTest::keyClick(form, Qt::Key_Down);
    ASSERT_TRUE(WaitUntil([] { return Controls().Selection(IDC_FORM) == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return !Widget(IDC_LABEL_TELEPHONE)->isHidden(); }));
    EXPECT_TRUE(Widget(IDC_LABEL_ISDN)->isHidden());
    QTest::keyClick(form, Qt::Key_Up);
    ASSERT_TRUE(WaitUntil([&] { return !Widget(IDC_LABEL_ISDN)->isHidden(); }));

    // A click on the record shows it, over what was typed meanwhile; the
    // folder button makes its pick-up folder and the pair of radio buttons
    // appears.
    QTest::keyClicks(Widget(IDC_NAME), "ette");
    ClickRow(WidgetAs<QListWidget>(IDC_DIRECTORY_LIST), 0);
    ASSERT_TRUE(WaitUntil([] { return Controls().Selection(IDC_DIRECTORY_LIST) == 0; }));
    ASSERT_TRUE(WaitUntil([&] { return WidgetAs<QLineEdit>(IDC_NAME)->text() == "Bob"; }));
    Click(IDC_MAKE_FOLDER);
    ASSERT_TRUE(WaitUntil([&] { return !Widget(IDC_HOT_SEND)->isHidden(); }));
    auto* retrieve = WidgetAs<QRadioButton>(IDC_HOT_RETRIEVE);
    ASSERT_TRUE(WaitUntil([&] { return retrieve->isChecked(); }));

    // A click on the chosen radio button would clear it; the window refuses,
    // and the button is chosen again.
    QTest::mouseClick(retrieve, Qt::LeftButton);
    EXPECT_FALSE(retrieve->isChecked()) << "the click itself clears it";
    ASSERT_TRUE(WaitUntil([&] { return retrieve->isChecked(); }));
    // The other one is chosen, and the window clears the first.
    QTest::mouseClick(WidgetAs<QRadioButton>(IDC_HOT_SEND), Qt::LeftButton);
    ASSERT_TRUE(WaitUntil([&] { return !retrieve->isChecked(); }));
    EXPECT_TRUE(Controls().Checked(IDC_HOT_SEND));

    // A check box keeps what the click made of it.
    QTest::mouseClick(WidgetAs<QCheckBox>(IDC_IGNORE_HOT), Qt::LeftButton);
    ASSERT_TRUE(WaitUntil([] { return Controls().Checked(IDC_IGNORE_HOT); }));

    // Shift and Ctrl held at a click reach the window. The first click on a
    // program button chooses its program; the next runs it; with Shift held
    // it chooses anew. The folder button opens the record's folder, or with
    // Ctrl held the folder of all pick-up folders. Each click waits for its
    // hand-off.
    RecordingDesktop desktop;
    desktop.Answer("/usr/bin/true");
    const std::pair<int, Qt::KeyboardModifiers> clicks[] = {
        {IDC_PROGRAM_1, {}},
        {IDC_PROGRAM_1, {}},
        {IDC_PROGRAM_1, Qt::ShiftModifier},
        {IDC_FOLDER_EMPTY, {}},
        {IDC_FOLDER_EMPTY, Qt::ControlModifier}};
    std::vector<std::string> handOffs;
    for (const auto& [id, keys] : clicks) {
        const size_t before = handOffs.size();
        Click(id, keys);
        ASSERT_TRUE(WaitUntil([&] {
            for (std::string& taken : desktop.Take()) {
                handOffs.push_back(std::move(taken));
            }
            return handOffs.size() > before;
        }));
    }
    const std::string pickUp = folder_ / "Pick Up";
    EXPECT_EQ(handOffs,
              (std::vector<std::string>{"dialog: open", "run: /usr/bin/true", "dialog: open",
                                        "open: " + pickUp + "/Bob", "open: " + pickUp}));

    // A pointer resting on a picture button shows its words.
    QWidget* program = Widget(IDC_PROGRAM_1);
    QHelpEvent hover(QEvent::ToolTip, program->rect().center(),
                     program->mapToGlobal(program->rect().center()));
    QApplication::sendEvent(program, &hover);
    ASSERT_TRUE(WaitUntil([] { return QToolTip::isVisible(); }));
    EXPECT_EQ(QToolTip::text().toStdString(), ControlTip(IDC_PROGRAM_1));
    // The tip is a window of its own, drawn over the window's picture where
    // it stands.
    QPixmap shot = View().grab();
    for (QWidget* top : QApplication::topLevelWidgets()) {
        if (top->windowType() == Qt::ToolTip && top->isVisible()) {
            QPainter(&shot).drawPixmap(View().mapFromGlobal(top->pos()), top->grab());
        }
    }
    shot.save(QString::fromStdString(ScreensFolder() + "/window-tooltip.png"));
    QToolTip::hideText();

    // New empties the form and puts the cursor in the name field. A list
    // that has the focus shows it, also with no row to mark; with none
    // picked, an arrow picks the row its mark stands on, here the only one,
    // as the focus brought by Tab put it there.
    Click(IDC_NEW);
    ASSERT_TRUE(WaitUntil([] { return Controls().Selection(IDC_DIRECTORY_LIST) == -1; }));
    ExpectWidgetsToFollow();
    ASSERT_TRUE(WaitUntil([&] { return View().focusWidget() == Widget(IDC_NAME); }));
    View().activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&View()));
    for (const int id : {IDC_LOG, IDC_FILE_LIST, IDC_DIRECTORY_LIST}) {
        QWidget* list = Widget(id);
        const QRect around = list->geometry().adjusted(-4, -4, 4, 4);
        Widget(IDC_NAME)->setFocus();
        const QImage unfocused = View().Page()->grab(around).toImage();
        list->setFocus(Qt::TabFocusReason);
        ASSERT_TRUE(WaitUntil([&] { return list->hasFocus(); }));
        EXPECT_NE(View().Page()->grab(around).toImage(), unfocused) << ControlName(id);
    }
    QTest::keyClick(Widget(IDC_DIRECTORY_LIST), Qt::Key_Down);
    ASSERT_TRUE(WaitUntil([] { return Controls().Selection(IDC_DIRECTORY_LIST) == 0; }));
    EXPECT_TRUE(Controls().Enabled(IDC_DELETE)) << "the record the arrow picked is on show";

    ExpectWidgetsToFollow();
}

TEST_F(WindowTest, FilesDroppedOnTheFileListSendAndTheDirectoryList) {
    WaitForStart();
    const std::string first = folder_.MakeFile("first.txt", 10);

    // Files dropped on the file list join it (an empty file does not); the
    // rows show their sizes and kinds, as the last comparison shows.
    Drop(IDC_FILE_LIST,
         {first, folder_.MakeFile("empty.txt", 0), folder_.MakeFile("second.exe", 2000000)});
    ASSERT_TRUE(WaitUntil([] { return Controls().RowCount(IDC_FILE_LIST) == 2; }));
    auto* files = WidgetAs<QTreeWidget>(IDC_FILE_LIST);
    ASSERT_TRUE(WaitUntil([&] { return files->topLevelItemCount() == 2; }));
    // The sizes show in full, with the margins a cell keeps on either side;
    // the names take the rest of the row.
    const int margin = files->style()->pixelMetric(QStyle::PM_FocusFrameHMargin) + 1;
    EXPECT_GE(files->header()->sectionSize(1),
              files->fontMetrics().horizontalAdvance(files->topLevelItem(1)->text(1)) + 2 * margin);
    EXPECT_EQ(files->header()->sectionSize(0) + files->header()->sectionSize(1),
              files->viewport()->width());

    // A click on a row selects it and turns Delete on; a click below the
    // rows selects none and turns it off.
    ClickRow(files, 1);
    ASSERT_TRUE(WaitUntil([&] { return Widget(IDC_FILE_DELETE)->isEnabled(); }));
    EXPECT_EQ(Controls().Selection(IDC_FILE_LIST), 1);
    QTest::mouseClick(files->viewport(), Qt::LeftButton, {},
                      files->viewport()->rect().bottomLeft() + QPoint(5, -5));
    ASSERT_TRUE(WaitUntil([&] { return !Widget(IDC_FILE_DELETE)->isEnabled(); }));

    // Dropped anywhere else, nothing happens.
    Drop(0, {first});
    // A drop on Send fills the list and starts the call, which wants a
    // correspondent first.
    const size_t messages = answerer_->Messages().size();
    Drop(IDC_SEND, {first});
    ASSERT_TRUE(WaitUntil([&] { return answerer_->Messages().size() == messages + 1; }));
    EXPECT_EQ(answerer_->Messages().back(), "Please select a correspondent in your Directory.");
    EXPECT_EQ(Controls().RowText(IDC_FILE_LIST, 2), "first.txt");
    EXPECT_EQ(Controls().RowCount(IDC_FILE_LIST), 3) << "the drop beside the lists took nothing";
    // A folder would take the list's place: the window asks, and Yes lets it.
    folder_.MakeFile("docs/a.txt", 5);
    Drop(IDC_FILE_LIST, {folder_ / "docs"});
    ASSERT_TRUE(WaitUntil([] { return Controls().RowText(IDC_FILE_LIST, 0) == "docs"; }));
    EXPECT_EQ(answerer_->Messages().back(),
              "The folder \"docs\" takes the place of everything in the File List.\nReplace the "
              "list?");

    // An exported entry dropped on the directory list is entered: Bob's
    // entry, saved through the File menu, comes back after his record went.
    AddCorrespondent("Bob", "5552002");
    // The file goes where the user answers, not where the dialog proposed.
    const std::string entry = folder_ / "kept.KBE";
    answerer_->AnswerNextDialog(entry);
    MenuEntry(View(), "&Export Directory Entry...")->trigger();
    ASSERT_TRUE(WaitUntil([&] { return ReadWholeFile(entry).size() == 140; }));
    EXPECT_EQ(answerer_->Proposals().back(), folder_ / "Bob.KBE");
    ClickRow(WidgetAs<QListWidget>(IDC_DIRECTORY_LIST), 0);
    Click(IDC_DELETE);
    ASSERT_TRUE(WaitUntil([] { return Controls().RowCount(IDC_DIRECTORY_LIST) == 0; }));
    Drop(IDC_DIRECTORY_LIST, {entry});
    ASSERT_TRUE(WaitUntil([] { return Controls().RowCount(IDC_DIRECTORY_LIST) == 1; }));
    // The log line follows the row; the picture shows both.
    ASSERT_TRUE(WaitUntil([] {
        return Controls().RowText(IDC_LOG, Controls().RowCount(IDC_LOG) - 1) ==
               "Directory Entry Added";
    }));

    ExpectWidgetsToFollow();
    View().grab().save(QString::fromStdString(ScreensFolder() + "/window-with-files.png"));

    // A question that comes after a stop from outside is answered No
    // unasked: the folder dropped again on the full list just before the
    // stop keeps the list.
    const size_t shown = answerer_->Messages().size();
    Drop(IDC_FILE_LIST, {folder_ / "docs"});
    frontEnd_->RequestClose();
    ASSERT_TRUE(WaitUntil([&] { return frontEnd_->Ended(); }));
    EXPECT_EQ(answerer_->Messages().size(), shown);
}

// A stop from outside (a signal, the session ending) ends the program though
// nobody is there to answer the message on show.
TEST_F(WindowTest, AStopEndsTheProgramThoughNobodyAnswersTheMessageOnShow) {
    answerer_->InsteadOfNextMessage([this] { frontEnd_->RequestClose(); });
    ASSERT_TRUE(WaitUntil([&] { return frontEnd_->Ended(); }));
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
    EXPECT_TRUE(answerer_->Messages().empty());
    // Through the orderly stop, which saves the log with its Stopping line.
    const std::string log = ReadWholeFile(folder_ / "kestrelbound_log");
    EXPECT_NE(log.find("ISDN TA not found."), std::string::npos);
    EXPECT_NE(log.find("Stopping Kestrelbound "), std::string::npos);
}

}  // namespace

}  // namespace kb::test
