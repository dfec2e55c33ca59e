#include "app/desktop_links.h"

#include <optional>
#include <string>

#include "app/main_window.h"
#include "platform/desktop.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/folder_tree.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

namespace {

// The preferences' field that holds the program of a button.
auto& ProgramField(Preferences& prefs, bool first) {
    return first ? prefs.ExternalProgramA : prefs.ExternalProgramB;
}

constexpr int DesktopControls[] = {IDC_OPEN_INCOMING, IDC_PROGRAM_1, IDC_PROGRAM_2, IDC_HELP,
                                   IDC_EMBLEM};

}  // namespace

std::span<const int> DesktopButtons::ControlIds() const {
    return DesktopControls;
}

EventOutcome DesktopButtons::OnButton(int id) {
    switch (id) {
        case IDC_OPEN_INCOMING:
            OnOpenIncoming();
            return {};
        case IDC_PROGRAM_1:
            OnProgramA();
            return {};
        case IDC_PROGRAM_2:
            OnProgramB();
            return {};
        case IDC_HELP:
            OnHelp();
            return {};
        default:
            return WindowPanel::OnButton(id);
    }
}

void DesktopButtons::OnOpenIncoming() {
    // Where the latest files went, which after a few deliveries is no longer
    // easy to tell among "Alice", "Alice-A", "Alice-B"; the rest of "Incoming
    // Files" is one level up in the file manager.
    TheDesktop().ShowFolder(NewestArrivalFolder(stores_.Paths.IncomingPath));
}

void DesktopButtons::OnHelp() {
    if (TheDesktop().OpenInBrowser(stores_.Paths.HelpPath)) {
        TheDesktop().ActivateBrowser();
        return;
    }
    ShowMessageBox(ManualNotOpened + stores_.Paths.HelpPath);
}

void DesktopButtons::OnProgramA() {
    OnProgram(ProgramButton::A);
}

void DesktopButtons::OnProgramB() {
    OnProgram(ProgramButton::B);
}

void DesktopButtons::OnProgram(ProgramButton which) {
    auto& field = ProgramField(stores_.Prefs, which == ProgramButton::A);
    const std::string program = FieldText(field);
    if (!program.empty() && !KeyIsDown(Key::Shift)) {
        TheDesktop().StartProgram(program);
        return;
    }
    // Nothing starts on choosing.
    PickExternalProgram(which);
}

void DesktopButtons::PickExternalProgram(ProgramButton which) {
    auto& field = ProgramField(stores_.Prefs, which == ProgramButton::A);
    FileDialogRequest request;
    // Linux programs carry no extension of their own to filter by.
    request.Filter = AllFilesFilter;
    request.Title = ChooseProgramTitle + std::string(which == ProgramButton::A ? "1" : "2");
    const std::optional<std::string> chosen = TheDesktop().ChooseFile(request);
    // A cancel forgets the program, so Shift and Cancel clear the button. A
    // path the field cannot hold whole is not kept cut short.
    SetFieldText(field, chosen && chosen->size() < sizeof field ? *chosen : std::string());
}

}  // namespace kb::app
