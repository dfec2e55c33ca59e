// The buttons that hand work to the desktop: the incoming folder, the manual
// in a web browser, and the two programs the user has chosen; and the emblem
// beside them.
#pragma once

#include "app/window_panel.h"

namespace kb::stores {
class Installation;
}  // namespace kb::stores

namespace kb::app {

using stores::Installation;

// Help's message when no browser took the manual, in front of the manual's
// path: the manual is on disk, and a person can open it by hand.
inline constexpr const char* ManualNotOpened =
    "The manual could not be opened in a web browser.\nIt is this file, which any browser "
    "shows:\n";
// The title of the dialog that chooses the program of button 1 or 2, in
// front of the button's number.
inline constexpr const char* ChooseProgramTitle = "Choose the program for button ";

class DesktopButtons final : public WindowPanel {
public:
    explicit DesktopButtons(Installation& stores) : stores_(stores) {}

    [[nodiscard]] std::span<const int> ControlIds() const override;
    EventOutcome OnButton(int id) override;

    void OnOpenIncoming();
    void OnHelp();
    // A plain click runs the program chosen for the button; the first click,
    // and any click with Shift held, chooses it in a file dialog instead.
    void OnProgramA();
    void OnProgramB();

private:
    Installation& stores_;
    // The program buttons share their rule; which names the preferences'
    // field that holds the program.
    enum class ProgramButton { A, B };
    void OnProgram(ProgramButton which);
    void PickExternalProgram(ProgramButton which);
};

}  // namespace kb::app
