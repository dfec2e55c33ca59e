// One panel of the main window: the controls it owns and what it does with
// the user's events on them.
//
// The window checks an event first (the control exists, is shown, is
// enabled, is of the kind the event needs) and then hands it to the one panel
// that owns the control. A panel changes only its own controls; what it needs
// of another panel it asks for by a call of that panel.
#pragma once

#include <span>
#include <string>
#include <utility>

namespace kb::app {

// How an event went: done, or refused with the reason a user would see (the
// control is disabled, hidden, or does nothing yet).
struct EventOutcome {
    bool Done = true;
    std::string Refusal;
};

inline EventOutcome Refused(std::string why) {
    return EventOutcome{false, std::move(why)};
}

class WindowPanel {
public:
    virtual ~WindowPanel() = default;

    // The ids of the controls that belong to the panel.
    [[nodiscard]] virtual std::span<const int> ControlIds() const = 0;
    [[nodiscard]] bool Owns(int id) const;

    // A button or picture button was pressed.
    virtual EventOutcome OnButton(int id);
    // A row of a list box, drop-down or list view was chosen (-1: none). By
    // default the choice itself is all there is.
    virtual EventOutcome OnSelection(int id, int row);
    // A check box now stands as checked says; a radio button was chosen.
    virtual EventOutcome OnBoxClicked(int id, bool checked);
    // An edit field holds its new text already.
    virtual EventOutcome OnTextEdited(int id);
};

}  // namespace kb::app
