#include "app/control_model.h"

#include <algorithm>

namespace kb::app {

namespace {

const ControlState Missing{};

}  // namespace

ControlModel& Controls() {
    static ControlModel Model;
    return Model;
}

ControlState* ControlModel::Find(int id) {
    const auto found = index_.find(id);
    return found == index_.end() ? nullptr : &controls_[found->second];
}

const ControlState* ControlModel::Find(int id) const {
    const auto found = index_.find(id);
    return found == index_.end() ? nullptr : &controls_[found->second];
}

void ControlModel::Announce(std::unique_lock<std::mutex>& stateGuard,
                            std::vector<ControlEvent> events) {
    // The queue takes events in the order the changes were made, since each
    // change queues them before it gives up the state lock.
    for (ControlEvent& event : events) {
        queued_.push_back(std::move(event));
    }
    stateGuard.unlock();
    DeliverQueued();
}

void ControlModel::DeliverQueued() {
    // A listener's own changes are delivered by the loop below, after the
    // announcement it is handling.
    if (deliverer_.load() == std::this_thread::get_id()) {
        return;
    }
    std::lock_guard<std::mutex> delivery(deliveryLock_);
    deliverer_.store(std::this_thread::get_id());
    for (;;) {
        ControlEvent event;
        {
            std::lock_guard<std::mutex> guard(stateLock_);
            if (queued_.empty()) {
                break;
            }
            event = std::move(queued_.front());
            queued_.pop_front();
        }
        std::vector<Listener> listeners;
        {
            std::lock_guard<std::mutex> guard(listenerLock_);
            for (const auto& entry : listeners_) {
                listeners.push_back(entry.second);
            }
        }
        for (const Listener& listener : listeners) {
            listener(event);
        }
    }
    deliverer_.store(std::thread::id());
}

void ControlModel::Create(const ControlState& state) {
    std::unique_lock<std::mutex> guard(stateLock_);
    if (ControlState* existing = Find(state.Id)) {
        *existing = state;
    } else {
        index_[state.Id] = controls_.size();
        controls_.push_back(state);
    }
    Announce(guard, {{state.Id, ControlChange::Created, -1, state.Text}});
}

bool ControlModel::Exists(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    return Find(id) != nullptr;
}

ControlState ControlModel::State(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr ? *control : Missing;
}

std::vector<ControlState> ControlModel::AllStates() const {
    std::lock_guard<std::mutex> guard(stateLock_);
    return controls_;
}

void ControlModel::Reset() {
    std::unique_lock<std::mutex> guard(stateLock_);
    controls_.clear();
    index_.clear();
    menus_.clear();
    systemMenu_.clear();
    focusRequested_ = 0;
    Announce(guard, {{0, ControlChange::Menus, -1, {}}});
}

std::string ControlModel::Text(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr ? control->Text : std::string();
}

void ControlModel::SetText(int id, const std::string& text) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || control->Text == text) {
        return;
    }
    control->Text = text;
    Announce(guard, {{id, ControlChange::Text, -1, text}});
}

bool ControlModel::Enabled(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr && control->Enabled;
}

void ControlModel::Enable(int id, bool enabled) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || control->Enabled == enabled) {
        return;
    }
    control->Enabled = enabled;
    Announce(guard, {{id, ControlChange::Enabled, -1, {}}});
}

bool ControlModel::Shown(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr && control->Shown;
}

void ControlModel::Show(int id, bool shown) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || control->Shown == shown) {
        return;
    }
    control->Shown = shown;
    Announce(guard, {{id, ControlChange::Shown, -1, {}}});
}

bool ControlModel::Checked(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr && control->Checked;
}

void ControlModel::Check(int id, bool checked) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || control->Checked == checked) {
        return;
    }
    control->Checked = checked;
    Announce(guard, {{id, ControlChange::Checked, -1, {}}});
}

int ControlModel::Position(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr ? control->Position : 0;
}

void ControlModel::SetPosition(int id, int position) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || control->Position == position) {
        return;
    }
    control->Position = position;
    Announce(guard, {{id, ControlChange::Position, position, {}}});
}

int ControlModel::RowCount(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr ? static_cast<int>(control->Rows.size()) : 0;
}

std::string ControlModel::RowText(int id, int row) const {
    return Row(id, row).Text;
}

ListRow ControlModel::Row(int id, int row) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    if (control == nullptr || row < 0 || row >= static_cast<int>(control->Rows.size())) {
        return {};
    }
    return control->Rows[static_cast<size_t>(row)];
}

std::vector<ListRow> ControlModel::Rows(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr ? control->Rows : std::vector<ListRow>{};
}

void ControlModel::AddRow(int id, const ListRow& row) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr) {
        return;
    }
    control->Rows.push_back(row);
    const int index = static_cast<int>(control->Rows.size()) - 1;
    Announce(guard, {{id, ControlChange::RowAdded, index, row.Text}});
}

void ControlModel::InsertRow(int id, int index, const ListRow& row) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr) {
        return;
    }
    const int size = static_cast<int>(control->Rows.size());
    const int at = std::clamp(index, 0, size);
    control->Rows.insert(control->Rows.begin() + at, row);
    if (control->Selection >= at) {
        ++control->Selection;
    }
    Announce(guard, {{id, ControlChange::RowAdded, at, row.Text}});
}

void ControlModel::DeleteRow(int id, int index) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || index < 0 || index >= static_cast<int>(control->Rows.size())) {
        return;
    }
    control->Rows.erase(control->Rows.begin() + index);
    if (control->Selection == index) {
        control->Selection = -1;
    } else if (control->Selection > index) {
        --control->Selection;
    }
    Announce(guard, {{id, ControlChange::RowRemoved, index, {}}});
}

void ControlModel::DeleteFirstRows(int id, int count) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr || count <= 0) {
        return;
    }
    const int removed = std::min(count, static_cast<int>(control->Rows.size()));
    control->Rows.erase(control->Rows.begin(), control->Rows.begin() + removed);
    control->Selection = control->Selection >= removed ? control->Selection - removed : -1;
    std::vector<ControlEvent> events(static_cast<size_t>(removed),
                                     ControlEvent{id, ControlChange::RowRemoved, 0, {}});
    Announce(guard, std::move(events));
}

void ControlModel::ClearRows(int id) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr) {
        return;
    }
    control->Rows.clear();
    control->Selection = -1;
    Announce(guard, {{id, ControlChange::RowsCleared, -1, {}}});
}

bool ControlModel::DeleteRowWithText(int id, const std::string& text) {
    int found = -1;
    {
        std::lock_guard<std::mutex> guard(stateLock_);
        const ControlState* control = Find(id);
        if (control == nullptr) {
            return false;
        }
        for (size_t i = 0; i < control->Rows.size(); ++i) {
            if (control->Rows[i].Text == text) {
                found = static_cast<int>(i);
                break;
            }
        }
    }
    if (found < 0) {
        return false;
    }
    DeleteRow(id, found);
    return true;
}

int ControlModel::Selection(int id) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    const ControlState* control = Find(id);
    return control != nullptr ? control->Selection : -1;
}

void ControlModel::Select(int id, int row) {
    std::unique_lock<std::mutex> guard(stateLock_);
    ControlState* control = Find(id);
    if (control == nullptr) {
        return;
    }
    const int chosen = row >= 0 && row < static_cast<int>(control->Rows.size()) ? row : -1;
    if (control->Selection == chosen) {
        return;
    }
    control->Selection = chosen;
    Announce(guard, {{id, ControlChange::Selection, chosen, {}}});
}

void ControlModel::RequestFocus(int id) {
    std::unique_lock<std::mutex> guard(stateLock_);
    if (Find(id) == nullptr) {
        return;
    }
    focusRequested_ = id;
    Announce(guard, {{id, ControlChange::Focus, -1, {}}});
}

int ControlModel::FocusRequested() const {
    std::lock_guard<std::mutex> guard(stateLock_);
    return focusRequested_;
}

void ControlModel::SetMenus(const std::vector<Menu>& menus) {
    std::unique_lock<std::mutex> guard(stateLock_);
    menus_ = menus;
    Announce(guard, {{0, ControlChange::Menus, -1, {}}});
}

std::vector<Menu> ControlModel::Menus() const {
    std::lock_guard<std::mutex> guard(stateLock_);
    return menus_;
}

void ControlModel::SetSystemMenu(const std::vector<MenuItem>& items) {
    std::unique_lock<std::mutex> guard(stateLock_);
    systemMenu_ = items;
    Announce(guard, {{0, ControlChange::Menus, -1, {}}});
}

std::vector<MenuItem> ControlModel::SystemMenu() const {
    std::lock_guard<std::mutex> guard(stateLock_);
    return systemMenu_;
}

void ControlModel::CheckMenuItem(int command, bool checked) {
    std::unique_lock<std::mutex> guard(stateLock_);
    for (Menu& menu : menus_) {
        for (MenuItem& item : menu.Items) {
            if (item.Command == command) {
                item.Checked = checked;
            }
        }
    }
    Announce(guard, {{0, ControlChange::Menus, command, {}}});
}

bool ControlModel::MenuItemChecked(int command) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    for (const Menu& menu : menus_) {
        for (const MenuItem& item : menu.Items) {
            if (item.Command == command) {
                return item.Checked;
            }
        }
    }
    return false;
}

bool ControlModel::HasMenuItem(int command) const {
    std::lock_guard<std::mutex> guard(stateLock_);
    for (const MenuItem& item : systemMenu_) {
        if (item.Command == command) {
            return true;
        }
    }
    for (const Menu& menu : menus_) {
        for (const MenuItem& item : menu.Items) {
            if (item.Command == command) {
                return true;
            }
        }
    }
    return false;
}

void ControlModel::RemoveMenu(int position) {
    std::unique_lock<std::mutex> guard(stateLock_);
    if (position < 0 || position >= static_cast<int>(menus_.size())) {
        return;
    }
    menus_.erase(menus_.begin() + position);
    Announce(guard, {{0, ControlChange::Menus, -1, {}}});
}

int ControlModel::AddListener(Listener listener) {
    std::lock_guard<std::mutex> guard(listenerLock_);
    const int handle = nextListener_++;
    listeners_[handle] = std::move(listener);
    return handle;
}

void ControlModel::RemoveListener(int handle) {
    // Inside a delivery on this thread the listener is not running again after
    // this announcement; elsewhere, waiting for the delivery lock means that no
    // announcement is still calling it.
    if (deliverer_.load() == std::this_thread::get_id()) {
        std::lock_guard<std::mutex> guard(listenerLock_);
        listeners_.erase(handle);
        return;
    }
    std::lock_guard<std::mutex> delivery(deliveryLock_);
    std::lock_guard<std::mutex> guard(listenerLock_);
    listeners_.erase(handle);
}

}  // namespace kb::app
