#include "ui/control_changes.h"

#include "app/control_model.h"

namespace kb::ui {

using namespace kb::app;

void ControlChanges::SetTarget(QObject* target) {
    std::lock_guard<std::mutex> guard(lock_);
    target_ = target;
    woken_ = false;
    if (target_ != nullptr && (!pending_.Ids.empty() || pending_.Menus)) {
        WakeLocked();
    }
}

void ControlChanges::WakeLocked() {
    if (woken_ || target_ == nullptr) {
        return;
    }
    woken_ = true;
    // Posting is all this does on the caller's thread; the target is alive
    // while it is set, and setting it takes this lock.
    QMetaObject::invokeMethod(target_, "FlushChanges", Qt::QueuedConnection);
}

void ControlChanges::Note(const ControlEvent& event) {
    std::lock_guard<std::mutex> guard(lock_);
    if (event.Change == ControlChange::Menus) {
        pending_.Menus = true;
    } else if (event.Change == ControlChange::Focus) {
        pending_.Focus = event.Id;
    } else {
        pending_.Ids.insert(event.Id);
        if (event.Change == ControlChange::Selection && event.Row >= 0) {
            pending_.RowsToShow[event.Id] = event.Row;
        }
    }
    WakeLocked();
}

void ControlChanges::Resync(int id) {
    std::lock_guard<std::mutex> guard(lock_);
    pending_.Ids.insert(id);
    WakeLocked();
}

void ControlChanges::EditHandled(int id) {
    std::lock_guard<std::mutex> guard(lock_);
    ++pending_.EditsHandled[id];
    pending_.Ids.insert(id);
    WakeLocked();
}

void ControlChanges::ResyncMenus() {
    std::lock_guard<std::mutex> guard(lock_);
    pending_.Menus = true;
    WakeLocked();
}

ControlChanges::Pending ControlChanges::Take() {
    std::lock_guard<std::mutex> guard(lock_);
    Pending taken;
    std::swap(taken, pending_);
    woken_ = false;
    return taken;
}

}  // namespace kb::ui
