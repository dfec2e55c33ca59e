#include "app/window_panel.h"

#include <algorithm>

#include "app/control_model.h"
#include "app/main_window.h"

namespace kb::app {

bool WindowPanel::Owns(int id) const {
    const std::span<const int> ids = ControlIds();
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

EventOutcome WindowPanel::OnButton(int id) {
    return Refused(ControlName(id) + " is no button");
}

EventOutcome WindowPanel::OnSelection(int id, int row) {
    Controls().Select(id, row);
    return {};
}

EventOutcome WindowPanel::OnBoxClicked(int /*id*/, bool /*checked*/) {
    return {};
}

EventOutcome WindowPanel::OnTextEdited(int /*id*/) {
    return {};
}

}  // namespace kb::app
