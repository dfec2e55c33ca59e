// What has changed in the control model since the window was last brought up
// to date.
//
// The model announces every change on the thread that made it, which is the
// main loop's or an engine thread, and such a thread must never wait for the
// GUI. So the one listener only notes which control changed, under a short
// lock, and wakes the GUI thread once for however many changes pile up; the
// GUI thread then takes the whole note and brings each of those widgets to
// the model's state as it is by then.
#pragma once

#include <QObject>

#include <map>
#include <mutex>
#include <set>

namespace kb::app {
struct ControlEvent;
}  // namespace kb::app

namespace kb::ui {

using app::ControlEvent;

class ControlChanges {
public:
    struct Pending {
        std::set<int> Ids;
        bool Menus = false;
        // Rows to bring into view, by list: selecting a row shows it, even
        // when a later change takes the selection away again.
        std::map<int, int> RowsToShow;
        // How many of the user's edits of each field the window has handled.
        std::map<int, int> EditsHandled;
        // The control the window last asked to take the focus; 0 for none.
        int Focus = 0;
    };

    // The object whose slot "FlushChanges" the GUI thread runs when there is
    // something to take; null: nobody takes them any more.
    void SetTarget(QObject* target);

    // From any thread.
    void Note(const ControlEvent& event);
    // Asks for a control to be brought to the model's state again although
    // the model has not changed, such as after a refused click.
    void Resync(int id);
    void ResyncMenus();
    // The window has handled an edit of the user's in that field.
    void EditHandled(int id);

    // On the GUI thread: everything noted since the last take.
    Pending Take();

private:
    void WakeLocked();

    std::mutex lock_;
    Pending pending_;
    bool woken_ = false;
    QObject* target_ = nullptr;
};

}  // namespace kb::ui
