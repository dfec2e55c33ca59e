// The desktop program in the test process, as it runs: Qt on the test's main
// thread (on the "offscreen" platform, so no display is needed), the
// program's main loop on a thread of its own, in an installation folder of
// its own whose ports are plain files, so that the search finds no adapter.
// Modal dialogs are answered as a user would answer them.
#pragma once

#include <QObject>
#include <QTimer>

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "screens.h"
#include "support/temp_folder.h"
#include "ui/front_end.h"
#include "ui/main_view.h"

namespace kb::test {

// Runs Qt's events until the condition holds or 30 s pass; whether it held.
bool WaitUntil(const std::function<bool()>& condition);

// Runs the work on the program's main loop thread, between the window's
// other work, and returns its result, keeping Qt's events running meanwhile;
// nothing if the loop did not take it in time.
std::optional<bool> OnMainLoop(const std::function<bool()>& work);

// Answers the message boxes and file dialogs that open: a message box with
// OK, or with Yes where it asks (or Esc, when told), noting its text,
// picturing it and expecting it selectable; a file dialog with the next answer given, or Cancel,
// noting its title. It lives on the GUI thread, as the tests do.
class ModalAnswerer : public QObject {
    Q_OBJECT

public:
    ModalAnswerer();

    // The next file dialog's answer: a path, or nothing for Cancel.
    void AnswerNextDialog(std::optional<std::string> path) { answers_.push_back(std::move(path)); }
    // The texts of the message boxes answered so far.
    std::vector<std::string> Messages() const { return messages_; }
    // The file each file dialog proposed when it opened, in order.
    std::vector<std::string> Proposals() const { return proposals_; }
    // The title of each file dialog, in order.
    std::vector<std::string> Titles() const { return titles_; }
    // Closes the message boxes with Esc from now on, as a user may.
    void CloseMessagesWithEscape(bool escape) { escape_ = escape; }
    // Does this instead of answering the next message box, which it leaves
    // open, as a user away would.
    void InsteadOfNextMessage(std::function<void()> work) { instead_ = std::move(work); }

private:
    void Answer();

    QTimer timer_;
    std::vector<std::string> messages_;
    std::vector<std::string> proposals_;
    std::vector<std::string> titles_;
    std::function<void()> instead_;
    bool escape_ = false;
    std::deque<std::optional<std::string>> answers_;
};

class UiTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Waits until the start is over: the splash gone, the search ended (it
    // finds no adapter and says so in a message box), the window showing the
    // model.
    void WaitForStart();
    // Every way in which the widgets differ from the model; none once the
    // window is up to date.
    std::vector<std::string> Differences() const;
    // Waits until the widgets show the model; a failure names the first
    // difference left at the limit.
    void ExpectWidgetsToFollow();

    ui::MainView& View() const { return frontEnd_->View(); }
    QWidget* Widget(int id) const { return View().WidgetOf(id); }
    template <typename T>
    T* WidgetAs(int id) const {
        return qobject_cast<T*>(Widget(id));
    }
    // Drops the paths on the window at the centre of the control (0: a place
    // that is no control), as a file manager drops them.
    void Drop(int id, const std::vector<std::string>& paths);

    TempFolder folder_;
    std::unique_ptr<ModalAnswerer> answerer_;
    std::unique_ptr<ui::FrontEnd> frontEnd_;

private:
    std::string previousFolder_;
};

}  // namespace kb::test
