#include "station/commands.h"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <optional>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "station/station_io.h"
#include "station/waits.h"

namespace {

constexpr double DefaultWaitSeconds = 60;

std::atomic<bool> ShiftDown{false};

Answer FromOutcome(const EventOutcome& outcome) {
    return outcome.Done ? Answer{} : Fail(outcome.Refusal);
}

// Hands the event to the window on the main loop's thread.
Answer Deliver(WindowEvent event) {
    return OnMainLoop([event = std::move(event)] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        return FromOutcome(window->HandleEvent(event));
    });
}

WindowEvent EventOf(EventKind kind, int id) {
    WindowEvent event;
    event.Kind = kind;
    event.Id = id;
    return event;
}

bool ParseSwitch(const std::string& word, bool& on) {
    if (word == "on" || word == "off") {
        on = word == "on";
        return true;
    }
    return false;
}

bool ParseSeconds(const std::string& word, double& value) {
    if (word.empty()) {
        return false;
    }
    char* end = nullptr;
    value = std::strtod(word.c_str(), &end);
    return end != nullptr && *end == '\0' && value >= 0;
}

// A path as the user typed it, below the current folder unless absolute.
std::string FullPath(const std::string& argument) {
    return argument[0] == '/' ? argument : CurrentFolder() + "/" + argument;
}

// A row given by its number, or by its text.
Answer SelectRow(int id, const std::string& argument) {
    return OnMainLoop([id, argument] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        int row = -2;
        bool digits = !argument.empty() && argument.size() <= 6;
        for (const char c : argument) {
            digits = digits && c >= '0' && c <= '9';
        }
        if (digits) {
            row = std::atoi(argument.c_str());
        } else {
            const std::vector<ListRow> rows = Controls().Rows(id);
            for (size_t i = 0; i < rows.size(); ++i) {
                if (rows[i].Text == argument) {
                    row = static_cast<int>(i);
                }
            }
            if (row == -2) {
                return Fail(ControlName(id) + " has no row " + argument);
            }
        }
        WindowEvent event = EventOf(EventKind::SelectionChanged, id);
        event.Row = row;
        return FromOutcome(window->HandleEvent(event));
    });
}

Answer ClickBox(int id, const std::string& argument) {
    WindowEvent event = EventOf(EventKind::BoxClicked, id);
    if (!ParseSwitch(argument, event.Checked)) {
        return Fail("say on or off");
    }
    return Deliver(event);
}

Answer TypeText(int id, const std::string& text) {
    WindowEvent event = EventOf(EventKind::TextEdited, id);
    event.Text = text;
    return Deliver(event);
}

// A drop of one file or folder on the file list.
Answer DropOnFileList(const std::string& argument) {
    if (argument.empty()) {
        return Fail("add what?");
    }
    const std::string path = FullPath(argument);
    if (!PathExists(path)) {
        return Fail("no such file or folder: " + argument);
    }
    WindowEvent event = EventOf(EventKind::FilesDropped, IDC_FILE_LIST);
    event.Paths = {path};
    return Deliver(event);
}

// The button "Add" with the path picked in its file dialog. Unlike a drop,
// the dialog accepts a file of length 0.
Answer ChooseFile(const std::string& argument) {
    if (argument.empty()) {
        return Fail("choose what?");
    }
    const std::string path = FullPath(argument);
    return OnMainLoop([path] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        window->SetFileChooser([path]() -> std::optional<std::string> { return path; });
        Answer answer =
            FromOutcome(window->HandleEvent(EventOf(EventKind::ButtonPressed, IDC_FILE_ADD)));
        window->SetFileChooser(nullptr);
        return answer;
    });
}

Answer ChoosePortSpeed(const std::string& argument) {
    if (argument == "115200") {
        return Deliver(EventOf(EventKind::MenuCommand, ID_PORT_SPEED_115200));
    }
    if (argument == "230400") {
        return Deliver(EventOf(EventKind::MenuCommand, ID_PORT_SPEED_230400));
    }
    return Fail("the speeds are 115200 and 230400");
}

// "TEXT [SECONDS]": a text in double quotes may end in a number; otherwise a
// last word that is a number is the time limit.
Answer WaitForLogCommand(const std::string& argument) {
    std::string text = argument;
    double seconds = DefaultWaitSeconds;
    double value = 0;
    if (!argument.empty() && argument[0] == '"' && argument.find('"', 1) != std::string::npos) {
        const size_t close = argument.find('"', 1);
        text = argument.substr(1, close - 1);
        const size_t at = argument.find_first_not_of(' ', close + 1);
        if (at != std::string::npos && ParseSeconds(argument.substr(at), value)) {
            seconds = value;
        }
    } else if (const size_t space = argument.rfind(' ');
               space != std::string::npos && ParseSeconds(argument.substr(space + 1), value)) {
        text = argument.substr(0, space);
        seconds = value;
    }
    if (text.empty()) {
        return Fail("wait for what?");
    }
    return WaitForLog(text, seconds);
}

Answer WaitForStateCommand(const std::string& argument) {
    const size_t gap = argument.find(' ');
    const std::string state = argument.substr(0, gap);
    bool known = false;
    std::string names;
    for (const std::string& name : MainWindow::LinkStateNames()) {
        known = known || name == state;
        names += (names.empty() ? "" : ", ") + name;
    }
    if (!known) {
        return Fail("the states are " + names);
    }
    double seconds = DefaultWaitSeconds;
    if (gap != std::string::npos && !ParseSeconds(argument.substr(gap + 1), seconds)) {
        return Fail("a time limit is a number of seconds");
    }
    return WaitForLinkState(state, seconds);
}

// The Shift key, held down as the station starts, forces a new search for
// the adapter.
Answer HoldShift(const std::string& argument) {
    bool on = false;
    if (!ParseSwitch(argument, on)) {
        return Fail("say on or off");
    }
    ShiftDown.store(on);
    return Answer{};
}

// One line for each control that has a resource name, then one for each menu.
Answer ShowControls() {
    return OnMainLoop([] {
        for (const ControlState& control : Controls().AllStates()) {
            const std::string name = ControlName(control.Id);
            if (name.empty()) {
                continue;
            }
            std::string line = "control " + name + " text=" + Quoted(control.Text) +
                               " enabled=" + (control.Enabled ? "1" : "0") +
                               " shown=" + (control.Shown ? "1" : "0");
            switch (control.Kind) {
                case ControlKind::CheckBox:
                case ControlKind::RadioButton:
                    line += std::string(" checked=") + (control.Checked ? "1" : "0");
                    break;
                case ControlKind::ListBox:
                case ControlKind::DropDown:
                case ControlKind::ListView: {
                    std::string rows;
                    for (size_t i = 0; i < control.Rows.size(); ++i) {
                        rows += (i == 0 ? "" : "|") + control.Rows[i].Text;
                    }
                    line +=
                        " selected=" + std::to_string(control.Selection) + " rows=" + Quoted(rows);
                    break;
                }
                case ControlKind::ProgressBar:
                    line += " position=" + std::to_string(control.Position);
                    break;
                default:
                    break;
            }
            PrintLine(line);
        }
        for (const Menu& menu : Controls().Menus()) {
            std::string items;
            std::string checked;
            for (const MenuItem& item : menu.Items) {
                if (item.Text.empty()) {
                    continue;
                }
                items += (items.empty() ? "" : "|") + item.Text;
                if (item.Checked) {
                    checked += (checked.empty() ? "" : "|") + item.Text;
                }
            }
            PrintLine("menu text=" + Quoted(menu.Title) + " items=" + Quoted(items) +
                      " checked=" + Quoted(checked));
        }
        return Answer{};
    });
}

struct StationCommand {
    const char* Verb;
    std::function<Answer(const std::string& argument)> Run;
};

Answer Press(int id) {
    return Deliver(EventOf(EventKind::ButtonPressed, id));
}

const std::vector<StationCommand>& CommandTable() {
    using A = const std::string&;
    static const std::vector<StationCommand> Table = {
        {"name", [](A text) { return TypeText(IDC_NAME, text); }},
        {"number", [](A text) { return TypeText(IDC_NUMBER, text); }},
        {"protocol", [](A row) { return SelectRow(IDC_PROTOCOL, row); }},
        {"carrier", [](A row) { return SelectRow(IDC_CARRIER, row); }},
        {"in-protocol", [](A row) { return SelectRow(IDC_IN_PROTOCOL, row); }},
        {"56k", [](A on) { return ClickBox(IDC_56K, on); }},
        {"2b", [](A on) { return ClickBox(IDC_2B, on); }},
        {"v42", [](A on) { return ClickBox(IDC_V42, on); }},
        {"in-56k", [](A on) { return ClickBox(IDC_IN_56K, on); }},
        {"in-2b", [](A on) { return ClickBox(IDC_IN_2B, on); }},
        {"in-v42", [](A on) { return ClickBox(IDC_IN_V42, on); }},
        {"ignore-hot", [](A on) { return ClickBox(IDC_IGNORE_HOT, on); }},
        {"add", DropOnFileList},
        {"choose", ChooseFile},
        {"send", [](A) { return Press(IDC_SEND); }},
        {"retrieve", [](A) { return Press(IDC_RETRIEVE); }},
        {"disconnect", [](A) { return Press(IDC_DISCONNECT); }},
        {"clear-log", [](A) { return Press(IDC_CLEAR_LOG); }},
        {"speed", ChoosePortSpeed},
        {"wait", WaitForLogCommand},
        {"wait-state", WaitForStateCommand},
        {"shift", HoldShift},
        {"show", [](A) { return ShowControls(); }},
        {"quit", [](A) { return Deliver(EventOf(EventKind::MenuCommand, ID_FILE_EXIT)); }},
    };
    return Table;
}

}  // namespace

std::string RunStationCommand(const std::string& line) {
    const size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string argument = space == std::string::npos ? "" : line.substr(space + 1);
    Answer answer = Fail("unknown command: " + verb);
    for (const StationCommand& command : CommandTable()) {
        if (verb == command.Verb) {
            answer = command.Run(argument);
            break;
        }
    }
    return answer.Ok ? "ok" : "error: " + OneLine(answer.Why);
}

bool ShiftHeld() {
    return ShiftDown.load();
}
