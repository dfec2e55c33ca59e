// The buttons that hand work to the desktop: the incoming folder, the manual
// in a web browser, and the two programs the user has chosen.

#include <optional>
#include <string>

#include "app/main_window.h"
#include "platform/desktop.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "stores/directory.h"
#include "stores/paths.h"
#include "stores/preferences.h"

namespace {

// The preferences' field that holds the program of a button.
auto& ProgramField(bool first) {
    return first ? ThePreferences.ExternalProgramA : ThePreferences.ExternalProgramB;
}

}  // namespace

void MainWindow::OnOpenIncoming() {
    TheDesktop().ShowFolder(IncomingPath);
}

void MainWindow::OnHelp() {
    if (TheDesktop().OpenInBrowser(HelpPath)) {
        TheDesktop().ActivateBrowser();
        return;
    }
    ShowMessageBox("Please launch your preferred web browser to use\non-line help.");
}

void MainWindow::OnProgramA() {
    OnProgram(ProgramButton::A);
}

void MainWindow::OnProgramB() {
    OnProgram(ProgramButton::B);
}

void MainWindow::OnProgram(ProgramButton which) {
    auto& field = ProgramField(which == ProgramButton::A);
    const std::string program = FieldText(field);
    if (!program.empty() && !KeyIsDown(Key::Shift)) {
        TheDesktop().StartProgram(program);
        return;
    }
    // Nothing starts on choosing.
    PickExternalProgram(which);
}

void MainWindow::PickExternalProgram(ProgramButton which) {
    auto& field = ProgramField(which == ProgramButton::A);
    FileDialogRequest request;
    // Linux programs carry no extension of their own to filter by.
    request.Filter = AllFilesFilter;
    const std::optional<std::string> chosen = TheDesktop().ChooseFile(request);
    // A cancel forgets the program, so Shift and Cancel clear the button. A
    // path the field cannot hold whole is not kept cut short.
    SetFieldText(field, chosen && chosen->size() < sizeof field ? *chosen : std::string());
}
