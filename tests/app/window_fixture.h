// A window started as the program starts it, in an installation folder of its
// own, with no adapter behind its ports: the stores are loaded, OnInitDialog
// has run and the communications thread idles. The main loop is not run, so
// no timer fires unless a test runs it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/transfer_engine.h"
#include "line/line.h"
#include "platform/clock.h"
#include "stores/installation.h"
#include "support/captured_output.h"
#include "support/installation.h"
#include "support/temp_folder.h"

namespace kb::test {

// Rows of a list, by their text; the window's model unless told another.
std::vector<std::string> RowTexts(int id, const app::ControlModel& model = app::Controls());
// Whether each of the controls is enabled, in the order given.
std::vector<bool> EnabledOf(const std::vector<int>& ids);

// A user's event on a control, with what it carries.
inline app::WindowEvent Event(app::EventKind kind, int id, int row = -1, bool checked = false,
                              const std::string& text = "",
                              const std::vector<std::string>& paths = {}) {
    return {kind, id, row, checked, text, paths};
}

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the window anew on the installation's present files.
    void StartWindow();
    // Ends it as the program does, every engine thread stopped.
    void StopWindow();

    // A folder in the installation folder; its full path.
    std::string MakeFolder(const std::string& name);

    // The messages and questions shown, in order; questions are answered
    // Yes until a test says otherwise.
    std::vector<std::string> Messages() const { return output_.Messages(); }
    void AnswerQuestions(bool yes) { output_.Answer = yes; }

    // The user's events, as the window's front end hands them over.
    app::EventOutcome Handle(const app::WindowEvent& event) { return window_->HandleEvent(event); }
    app::EventOutcome Press(int id) { return Handle(Event(app::EventKind::ButtonPressed, id)); }
    app::EventOutcome ChooseMenu(int id) { return Handle(Event(app::EventKind::MenuCommand, id)); }
    app::EventOutcome Click(int id, bool checked) {
        return Handle(Event(app::EventKind::BoxClicked, id, -1, checked));
    }
    app::EventOutcome Choose(int id, int row) {
        return Handle(Event(app::EventKind::SelectionChanged, id, row));
    }
    app::EventOutcome Type(int id, const std::string& text) {
        return Handle(Event(app::EventKind::TextEdited, id, -1, false, text));
    }
    app::EventOutcome Drop(int id, const std::vector<std::string>& paths) {
        return Handle(Event(app::EventKind::FilesDropped, id, -1, false, "", paths));
    }

    TempFolder folder_;
    // The clock of every window's line and engine, as in the program.
    platform::MonotonicClock clock_;
    // The installation and the engine of the window that runs or ran last; a
    // restart makes new ones, the installation from the same folder, as the
    // program's next start does.
    std::unique_ptr<stores::Installation> stores_;
    // The window's line, made anew with each window, which it outlives.
    std::unique_ptr<line::Line> line_;
    std::unique_ptr<engine::TransferEngine> engine_;
    std::unique_ptr<app::MainWindow> window_;

private:
    CapturedOutput output_;
};

}  // namespace kb::test
