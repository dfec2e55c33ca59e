// The window's controls as state: for each control its text, whether it is
// enabled, shown and checked, its rows and selection, and a progress position;
// and the window's menus. Any thread may read or change a control, as the
// program's threads drive the window directly. A front end draws this state
// and feeds the user's actions back to the window; no rule of the program
// depends on a front end being there.
//
// Every change is announced to the listeners, after the change has been made
// and in the order in which the changes were made, also across threads. A
// change returns once its announcement has been delivered.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kb::app {

enum class ControlKind {
    Label,    // static text
    Picture,  // static picture
    Edit,
    Button,
    PictureButton,
    CheckBox,
    RadioButton,
    ListBox,
    DropDown,     // a drop-down list whose rows are fixed choices
    ListView,     // report view: a name column and a size column, an image per row
    ProgressBar,  // position 0 to 100
    Window,       // the window itself; its text is the caption
};

// One row of a list box, drop-down or list view.
struct ListRow {
    std::string Text;    // the row's text; the first column of a list view
    std::string Detail;  // the second column of a list view
    int Image = 0;       // the image of a list view row
};

struct ControlState {
    int Id = 0;
    ControlKind Kind = ControlKind::Label;
    std::string Text;
    bool Enabled = true;
    bool Shown = true;
    bool Checked = false;
    std::vector<ListRow> Rows;
    int Selection = -1;                // selected row, -1 for none
    int Position = 0;                  // of a progress bar
    int Picture = 0;                   // resource number of a picture or picture button
    std::vector<std::string> Columns;  // the headers of a list view
};

enum class ControlChange {
    Created,
    Text,
    Enabled,
    Shown,
    Checked,
    RowAdded,    // row: where it was put; text: its text
    RowRemoved,  // row: which one
    RowsCleared,
    Selection,
    Position,
    Menus,  // id 0: the menus changed
    Focus,  // the window asks for the control to take the keyboard's focus
};

struct ControlEvent {
    int Id = 0;
    ControlChange Change = ControlChange::Created;
    int Row = -1;
    std::string Text;
};

struct MenuItem {
    int Command = 0;
    std::string Text;  // "" for a separator
    bool Checked = false;
};

struct Menu {
    std::string Title;
    std::vector<MenuItem> Items;
};

class ControlModel {
public:
    using Listener = std::function<void(const ControlEvent&)>;

    // Makes a control, or sets one anew.
    void Create(const ControlState& state);
    bool Exists(int id) const;
    // A copy of the control's state; a default state for an unknown id.
    ControlState State(int id) const;
    // Every control, in the order in which they were made.
    std::vector<ControlState> AllStates() const;
    // Removes every control and menu; listeners stay.
    void Reset();

    std::string Text(int id) const;
    void SetText(int id, const std::string& text);
    bool Enabled(int id) const;
    void Enable(int id, bool enabled);
    bool Shown(int id) const;
    void Show(int id, bool shown);
    bool Checked(int id) const;
    void Check(int id, bool checked);
    int Position(int id) const;
    void SetPosition(int id, int position);

    int RowCount(int id) const;
    // The row's text, or "" if there is no such row.
    std::string RowText(int id, int row) const;
    ListRow Row(int id, int row) const;
    std::vector<ListRow> Rows(int id) const;
    // Appends a row; the listeners hear its index.
    void AddRow(int id, const ListRow& row);
    // Inserts a row before index (at the end if index is past it).
    void InsertRow(int id, int index, const ListRow& row);
    // Removes a row; a selection behind it moves up, a selection on it goes.
    void DeleteRow(int id, int index);
    // Removes the oldest count rows in one step.
    void DeleteFirstRows(int id, int count);
    void ClearRows(int id);
    // Removes the first row whose text is the given one; false if none is.
    bool DeleteRowWithText(int id, const std::string& text);
    int Selection(int id) const;
    // Selects a row; -1, or a row that does not exist, selects none.
    void Select(int id, int row);

    // Asks for the control to take the keyboard's focus; asked again, it
    // takes it again, wherever the user has moved it since.
    void RequestFocus(int id);
    // The control the window last asked to take the focus; 0 for none.
    int FocusRequested() const;

    void SetMenus(const std::vector<Menu>& menus);
    std::vector<Menu> Menus() const;
    // The entries added to the window's system menu, behind the desktop's own.
    void SetSystemMenu(const std::vector<MenuItem>& items);
    std::vector<MenuItem> SystemMenu() const;
    void CheckMenuItem(int command, bool checked);
    bool MenuItemChecked(int command) const;
    bool HasMenuItem(int command) const;
    // Removes the menu at that position of the menu bar.
    void RemoveMenu(int position);

    // Listeners are called one announcement at a time, never while the state
    // is locked, so a listener may read and change the model; what it changes
    // is announced after the announcement it is handling. An announcement is
    // delivered by the thread that made the change or by another thread that
    // was delivering at the time. A listener must not wait for another thread:
    // it copies what it needs or hands it on. Once RemoveListener returns, the
    // listener is not running and will not be called again.
    int AddListener(Listener listener);
    void RemoveListener(int handle);

private:
    ControlState* Find(int id);
    const ControlState* Find(int id) const;
    // Queues the events of one change behind those of earlier changes, gives
    // up the state lock and delivers what is queued.
    void Announce(std::unique_lock<std::mutex>& stateGuard, std::vector<ControlEvent> events);
    void DeliverQueued();

    mutable std::mutex stateLock_;
    std::vector<ControlState> controls_;
    std::map<int, size_t> index_;
    std::vector<Menu> menus_;
    std::vector<MenuItem> systemMenu_;
    int focusRequested_ = 0;

    std::deque<ControlEvent> queued_;  // under stateLock_

    // One thread at a time delivers; it takes the queue in order.
    std::mutex deliveryLock_;
    std::atomic<std::thread::id> deliverer_;
    std::mutex listenerLock_;
    std::map<int, Listener> listeners_;
    int nextListener_ = 1;
};

// The main window's controls.
ControlModel& Controls();

}  // namespace kb::app
