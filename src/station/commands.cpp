#include "station/commands.h"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "platform/files.h"
#include "resources/resource.h"

namespace kb::station {

using namespace kb::app;
using namespace kb::platform;
using namespace kb::resources;

namespace {

constexpr double DefaultWaitSeconds = 60;

Answer FromOutcome(const EventOutcome& outcome) {
    return outcome.Done ? Answer{} : Fail(outcome.Refusal);
}

// Hands the event to the window on the main loop's thread.
Answer Deliver(StationFrontEnd& station, WindowEvent event) {
    return station.Waits.OnMainLoop([handle = station.App.Window(), event = std::move(event)] {
        MainWindow* window = handle->load();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        return FromOutcome(window->HandleEvent(event));
    });
}

// Hands the event to the window with the answer for a file dialog that it
// may open; a dialog that does not open leaves the answer unused.
Answer DeliverAnswering(StationFrontEnd& station, WindowEvent event,
                        std::vector<std::string> answer) {
    return station.Waits.OnMainLoop(
        [&station, event = std::move(event), answer = std::move(answer)] {
            MainWindow* window = station.App.Window()->load();
            if (window == nullptr) {
                return Fail("the window is not there");
            }
            station.Desktop.AnswerNextDialog(answer);
            Answer result = FromOutcome(window->HandleEvent(event));
            station.Desktop.AnswerNextDialog({});
            return result;
        });
}

WindowEvent EventOf(EventKind kind, int id) {
    WindowEvent event;
    event.Kind = kind;
    event.Id = id;
    return event;
}

Answer Press(StationFrontEnd& station, int id) {
    return Deliver(station, EventOf(EventKind::ButtonPressed, id));
}

// A command of the window's menus.
Answer PickMenu(StationFrontEnd& station, int id) {
    return Deliver(station, EventOf(EventKind::MenuCommand, id));
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
    // A current folder the system cannot tell is taken as the root.
    return argument[0] == '/' ? argument : CurrentFolder().value_or("") + "/" + argument;
}

// A row given by its number, or by its text.
Answer SelectRow(StationFrontEnd& station, int id, const std::string& argument) {
    return station.Waits.OnMainLoop([handle = station.App.Window(), id, argument] {
        MainWindow* window = handle->load();
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

Answer ClickBox(StationFrontEnd& station, int id, const std::string& argument) {
    WindowEvent event = EventOf(EventKind::BoxClicked, id);
    if (!ParseSwitch(argument, event.Checked)) {
        return Fail("say on or off");
    }
    return Deliver(station, event);
}

Answer TypeText(StationFrontEnd& station, int id, const std::string& text) {
    WindowEvent event = EventOf(EventKind::TextEdited, id);
    event.Text = text;
    return Deliver(station, event);
}

// The words of an argument: blanks part them, and double quotes keep a word
// with blanks whole. False if a quote is left open.
bool SplitWords(const std::string& argument, std::vector<std::string>& words) {
    words.clear();
    size_t at = 0;
    while (at < argument.size()) {
        if (argument[at] == ' ') {
            ++at;
            continue;
        }
        if (argument[at] == '"') {
            const size_t close = argument.find('"', at + 1);
            if (close == std::string::npos) {
                return false;
            }
            words.push_back(argument.substr(at + 1, close - at - 1));
            at = close + 1;
            continue;
        }
        const size_t end = std::min(argument.find(' ', at), argument.size());
        words.push_back(argument.substr(at, end - at));
        at = end;
    }
    return true;
}

// The paths of an argument. A whole argument that names something is one
// path, blanks and all, so that a path need not be quoted when it comes
// alone. False if a quote is left open.
bool PathWords(const std::string& argument, std::vector<std::string>& words) {
    if (!argument.empty() && argument[0] != '"' && PathExists(FullPath(argument))) {
        words = {argument};
        return true;
    }
    return SplitWords(argument, words);
}

// Files and folders dropped together on a control, as a file manager drops
// them: only what exists can be dragged.
Answer Drop(StationFrontEnd& station, int id, const std::string& argument) {
    std::vector<std::string> words;
    if (!PathWords(argument, words)) {
        return Fail("a quote is left open");
    }
    if (words.empty()) {
        return Fail("drop what?");
    }
    WindowEvent event = EventOf(EventKind::FilesDropped, id);
    for (const std::string& word : words) {
        const std::string path = FullPath(word);
        if (!PathExists(path)) {
            return Fail("no such file or folder: " + word);
        }
        event.Paths.push_back(path);
    }
    return Deliver(station, event);
}

// The answer a command gives a file dialog: a path, or "cancel" (or nothing)
// for Cancel.
std::vector<std::string> DialogAnswer(const std::string& argument) {
    if (argument.empty() || argument == "cancel") {
        return {};
    }
    return {FullPath(argument)};
}

// The button "Add" with the paths picked together in its file dialog.
// Unlike a drop, the dialog accepts a file of length 0.
Answer ChooseFiles(StationFrontEnd& station, const std::string& argument) {
    std::vector<std::string> words;
    if (!PathWords(argument, words)) {
        return Fail("a quote is left open");
    }
    if (words.empty()) {
        return Fail("choose what?");
    }
    std::vector<std::string> paths;
    for (const std::string& word : words) {
        paths.push_back(FullPath(word));
    }
    return DeliverAnswering(station, EventOf(EventKind::ButtonPressed, IDC_FILE_ADD), paths);
}

// "Add Folder to File List..." with the folder chosen in its dialog.
Answer AddFolder(StationFrontEnd& station, const std::string& argument) {
    return DeliverAnswering(station, EventOf(EventKind::MenuCommand, ID_FILE_ADD_FOLDER),
                            DialogAnswer(argument));
}

// "a|b [PATH|cancel]": a program button, and the answer for its file dialog
// if the click opens one.
Answer ProgramButton(StationFrontEnd& station, const std::string& argument) {
    const size_t gap = argument.find(' ');
    const std::string which = argument.substr(0, gap);
    if (which != "a" && which != "b") {
        return Fail("say a or b");
    }
    const std::string rest = gap == std::string::npos ? "" : argument.substr(gap + 1);
    return DeliverAnswering(
        station, EventOf(EventKind::ButtonPressed, which == "a" ? IDC_PROGRAM_1 : IDC_PROGRAM_2),
        DialogAnswer(rest));
}

// "Export Directory Entry..." with the path chosen in its save dialog.
Answer Export(StationFrontEnd& station, const std::string& argument) {
    return DeliverAnswering(station, EventOf(EventKind::MenuCommand, ID_FILE_EXPORT_ENTRY),
                            DialogAnswer(argument));
}

// The one folder button on show, whichever of the four it is.
Answer OpenFolder(StationFrontEnd& station, const std::string&) {
    for (int id : {IDC_FOLDER_EMPTY, IDC_FOLDER_FILLED, IDC_HOT_EMPTY, IDC_HOT_FILLED}) {
        if (Controls().Shown(id)) {
            return Press(station, id);
        }
    }
    return Fail("no folder button is shown");
}

// The contact form's fields are the name and number fields while the form
// "Contact:" is chosen.
Answer TypeContact(StationFrontEnd& station, int id, const std::string& text) {
    if (Controls().Selection(IDC_FORM) != 1) {
        return Fail("the form shows Firm:; say form contact first");
    }
    return TypeText(station, id, text);
}

Answer ChooseForm(StationFrontEnd& station, const std::string& argument) {
    if (argument != "firm" && argument != "contact") {
        return Fail("say firm or contact");
    }
    return SelectRow(station, IDC_FORM, argument == "firm" ? "0" : "1");
}

Answer DirectoryButton(StationFrontEnd& station, const std::string& argument) {
    static const std::vector<std::pair<std::string, int>> Buttons = {
        {"new", IDC_NEW}, {"add", IDC_ADD}, {"change", IDC_CHANGE}, {"delete", IDC_DELETE}};
    for (const auto& [word, id] : Buttons) {
        if (argument == word) {
            return Press(station, id);
        }
    }
    return Fail("say new, add, change or delete");
}

Answer HotMode(StationFrontEnd& station, const std::string& argument) {
    if (argument != "send" && argument != "retrieve") {
        return Fail("say send or retrieve");
    }
    WindowEvent event =
        EventOf(EventKind::BoxClicked, argument == "send" ? IDC_HOT_SEND : IDC_HOT_RETRIEVE);
    event.Checked = true;
    return Deliver(station, event);
}

Answer ClickFileRow(StationFrontEnd& station, const std::string& argument) {
    return SelectRow(station, IDC_FILE_LIST, argument);
}

// A click on the row, then the button Delete.
Answer DeleteFileRow(StationFrontEnd& station, const std::string& argument) {
    const Answer clicked = ClickFileRow(station, argument);
    return clicked.Ok ? Press(station, IDC_FILE_DELETE) : clicked;
}

// "[ok]": the About command of the system menu, or the box's OK.
Answer About(StationFrontEnd& station, const std::string& argument) {
    if (argument == "ok") {
        return Deliver(station, EventOf(EventKind::AboutOk, 0));
    }
    if (!argument.empty()) {
        return Fail("say about, or about ok");
    }
    return Deliver(station, EventOf(EventKind::MenuCommand, IDM_ABOUTBOX));
}

Answer Browser(StationFrontEnd& station, const std::string& argument) {
    bool on = false;
    if (!ParseSwitch(argument, on)) {
        return Fail("say on or off");
    }
    station.Desktop.SetBrowserRunning(on);
    return Answer{};
}

Answer ChoosePortSpeed(StationFrontEnd& station, const std::string& argument) {
    if (argument == "115200") {
        return Deliver(station, EventOf(EventKind::MenuCommand, ID_PORT_SPEED_115200));
    }
    if (argument == "230400") {
        return Deliver(station, EventOf(EventKind::MenuCommand, ID_PORT_SPEED_230400));
    }
    return Fail("the speeds are 115200 and 230400");
}

// "TEXT [SECONDS]": a text in double quotes may end in a number; otherwise a
// last word that is a number is the time limit.
Answer WaitForLogCommand(StationFrontEnd& station, const std::string& argument) {
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
    return station.Waits.WaitForLog(text, seconds);
}

Answer WaitForStateCommand(StationFrontEnd& station, const std::string& argument) {
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
    return station.Waits.WaitForLinkState(station.App, state, seconds);
}

// Shift held down as the station starts forces a new search for the
// adapter; Shift and Ctrl change what some buttons do.
Answer Hold(StationFrontEnd& station, Key key, const std::string& argument) {
    bool on = false;
    if (!ParseSwitch(argument, on)) {
        return Fail("say on or off");
    }
    station.Desktop.HoldKey(key, on);
    return Answer{};
}

// The window's caption, one line for each control that has a resource name,
// then one for each menu and one for the system menu's entries.
Answer ShowControls(StationFrontEnd& station) {
    return station.Waits.OnMainLoop([&station] {
        station.Output.PrintLine("window caption=" + Quoted(Controls().Text(IDD_MAIN_WINDOW)));
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
                    if (!control.Columns.empty()) {
                        std::string columns;
                        for (const std::string& column : control.Columns) {
                            columns += (columns.empty() ? "" : "|") + column;
                        }
                        line += " columns=" + Quoted(columns);
                    }
                    break;
                }
                case ControlKind::ProgressBar:
                    line += " position=" + std::to_string(control.Position);
                    break;
                default:
                    break;
            }
            station.Output.PrintLine(line);
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
            station.Output.PrintLine("menu text=" + Quoted(menu.Title) + " items=" + Quoted(items) +
                                     " checked=" + Quoted(checked));
        }
        std::string system;
        for (const MenuItem& item : Controls().SystemMenu()) {
            if (!item.Text.empty()) {
                system += (system.empty() ? "" : "|") + item.Text;
            }
        }
        station.Output.PrintLine("system-menu items=" + Quoted(system));
        return Answer{};
    });
}

struct StationCommand {
    const char* Verb;
    std::function<Answer(StationFrontEnd& station, const std::string& argument)> Run;
};

const std::vector<StationCommand>& CommandTable() {
    using S = StationFrontEnd&;
    using A = const std::string&;
    static const std::vector<StationCommand> Table = {
        {"name", [](S station, A text) { return TypeText(station, IDC_NAME, text); }},
        {"number", [](S station, A text) { return TypeText(station, IDC_NUMBER, text); }},
        {"protocol", [](S station, A row) { return SelectRow(station, IDC_PROTOCOL, row); }},
        {"carrier", [](S station, A row) { return SelectRow(station, IDC_CARRIER, row); }},
        {"in-protocol", [](S station, A row) { return SelectRow(station, IDC_IN_PROTOCOL, row); }},
        {"56k", [](S station, A on) { return ClickBox(station, IDC_56K, on); }},
        {"2b", [](S station, A on) { return ClickBox(station, IDC_2B, on); }},
        {"v42", [](S station, A on) { return ClickBox(station, IDC_V42, on); }},
        {"in-56k", [](S station, A on) { return ClickBox(station, IDC_IN_56K, on); }},
        {"in-2b", [](S station, A on) { return ClickBox(station, IDC_IN_2B, on); }},
        {"in-v42", [](S station, A on) { return ClickBox(station, IDC_IN_V42, on); }},
        {"ignore-hot", [](S station, A on) { return ClickBox(station, IDC_IGNORE_HOT, on); }},
        {"add", [](S station, A paths) { return Drop(station, IDC_FILE_LIST, paths); }},
        {"choose", ChooseFiles},
        {"add-folder", AddFolder},
        {"drop-send", [](S station, A paths) { return Drop(station, IDC_SEND, paths); }},
        {"drop-directory",
         [](S station, A paths) { return Drop(station, IDC_DIRECTORY_LIST, paths); }},
        {"file-click", ClickFileRow},
        {"file-delete", DeleteFileRow},
        {"file-clear", [](S station, A) { return Press(station, IDC_FILE_CLEAR); }},
        {"select", [](S station, A row) { return SelectRow(station, IDC_DIRECTORY_LIST, row); }},
        {"entry", DirectoryButton},
        {"form", ChooseForm},
        {"contact", [](S station, A text) { return TypeContact(station, IDC_NAME, text); }},
        {"phone", [](S station, A text) { return TypeContact(station, IDC_NUMBER, text); }},
        {"make-folder", [](S station, A) { return Press(station, IDC_MAKE_FOLDER); }},
        {"open-folder", OpenFolder},
        {"hot", HotMode},
        {"export", Export},
        {"open-incoming", [](S station, A) { return Press(station, IDC_OPEN_INCOMING); }},
        {"help", [](S station, A) { return Press(station, IDC_HELP); }},
        {"program", ProgramButton},
        {"about", About},
        {"browser", Browser},
        {"send", [](S station, A) { return Press(station, IDC_SEND); }},
        {"retrieve", [](S station, A) { return Press(station, IDC_RETRIEVE); }},
        {"disconnect", [](S station, A) { return Press(station, IDC_DISCONNECT); }},
        {"clear-log", [](S station, A) { return Press(station, IDC_CLEAR_LOG); }},
        {"speed", ChoosePortSpeed},
        {"wait", WaitForLogCommand},
        {"wait-state", WaitForStateCommand},
        {"shift", [](S station, A on) { return Hold(station, Key::Shift, on); }},
        {"ctrl", [](S station, A on) { return Hold(station, Key::Control, on); }},
        {"show", [](S station, A) { return ShowControls(station); }},
        {"quit", [](S station, A) { return PickMenu(station, ID_FILE_EXIT); }},
    };
    return Table;
}

}  // namespace

std::string RunStationCommand(StationFrontEnd& station, const std::string& line) {
    const size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string argument = space == std::string::npos ? "" : line.substr(space + 1);
    Answer answer = Fail("unknown command: " + verb);
    for (const StationCommand& command : CommandTable()) {
        if (verb == command.Verb) {
            answer = command.Run(station, argument);
            break;
        }
    }
    return answer.Ok ? "ok" : "error: " + OneLine(answer.Why);
}

}  // namespace kb::station
