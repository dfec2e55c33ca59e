// The main window as Qt widgets: a drawing of the control model and a source
// of the user's actions, and nothing more. Every control of the model gets the
// widget of its kind at its place, moved and grown with the window as the
// window's layout says (app/window_layout.h); each change the model announces brings the
// widget to the model's state, and each action of the user goes to the
// window's HandleEvent on the main loop's thread, which decides. The view
// changes no state of the program itself.
#pragma once

#include <QMainWindow>
#include <QString>

#include <map>
#include <memory>
#include <vector>

#include "app/application.h"
#include "app/control_model.h"
#include "app/main_window.h"
#include "ui/control_changes.h"
#include "ui/dialog_units.h"

class QFocusFrame;
class QMenu;

namespace kb::ui {

using app::ControlPlace;
using app::ControlState;
using app::WindowEvent;
using app::WindowHandle;

class AboutBox;

class MainView : public QMainWindow {
    Q_OBJECT

public:
    // font is the dialog's font, from which its measures follow; the
    // user's actions go to the window that handle names. The window opens
    // where placeFile says it last was, if it says so and that place is
    // still on a screen.
    MainView(std::shared_ptr<ControlChanges> changes, WindowHandle window, const QFont& font,
             QString placeFile = {});
    ~MainView() override;

    // The widget that shows a control; null while the model has no such
    // control.
    [[nodiscard]] QWidget* WidgetOf(int id) const;
    [[nodiscard]] AboutBox* About() const { return about_; }
    // The dialog's surface below the menu bar, in whose coordinates the
    // controls are placed.
    [[nodiscard]] QWidget* Page() const { return page_; }
    [[nodiscard]] const DialogUnits& Units() const { return units_; }

    // Hands a user's action to the window, on the main loop's thread. A
    // refused action brings its control back to the model's state.
    void Send(const WindowEvent& event);

    // Takes what the model has announced since the last time and brings
    // those widgets, and the menus, to the model's state.
    Q_INVOKABLE void FlushChanges();
    // Writes the window's place and size, and whether it is maximised, to
    // the place file, once the window has been shown.
    void SavePlace() const;

protected:
    void closeEvent(QCloseEvent* event) override;
    void moveEvent(QMoveEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void MakeWidget(const ControlState& state, const ControlPlace& place);
    // Where the control lies in the page at its present size.
    [[nodiscard]] QRect PlaceInPage(int id) const;
    // Puts every control where the page's size says.
    void PlaceControls();
    // Shows the window for the first time: where it last was, or else at the
    // laid-out size as far as the screen has room, in the screen's middle.
    void OpenAtItsPlace();
    void Follow(int id, const std::map<int, int>& rowsToShow);
    // A control's words (its tooltip and the name a screen reader says) and
    // the keys it answers beyond Qt's own.
    void GiveWordsAndKeys(int id, QWidget* widget);
    // Enter on a button, an arrow on a list with no row picked; true when
    // the key was taken.
    bool KeyForControl(QObject* watched, QEvent* event);
    // Puts the focus mark around the list that has the focus, or hides it.
    void MarkFocusedList(QWidget* focused);
    void RebuildMenus();
    // Gives each caption the room its text needs in this font.
    void FitCaptions();
    // Gives the control's widget the keyboard's focus, as the window asked;
    // 0 asks nothing.
    void TakeFocus(int id);
    // The room a caption may take on either side of its place: up to the
    // nearest control shown beside it, or the window's edge.
    [[nodiscard]] int RoomLeftOf(int id, const QRect& place) const;
    [[nodiscard]] int RoomRightOf(int id, const QRect& place) const;
    // The control that takes a drop at that point of the page: the file
    // list, Send or the directory list; 0 for anywhere else.
    [[nodiscard]] int DropTargetAt(const QPoint& point) const;

    std::shared_ptr<ControlChanges> changes_;
    WindowHandle window_;
    DialogUnits units_;
    QWidget* page_ = nullptr;
    AboutBox* about_ = nullptr;
    QFocusFrame* focusMark_ = nullptr;
    QString placeFile_;
    // The frame's width at the left and the top while the window is neither
    // maximised nor minimised.
    QPoint normalFrame_;
    std::map<int, QWidget*> widgets_;
    // Each control's place at the laid-out size, in pixels.
    std::map<int, QRect> laidOut_;
    // The lists' viewports, whose clicks the view reports itself, by the
    // list's control.
    std::map<QObject*, int> viewports_;
    // The place of each caption (a label, check box or radio button) as the
    // layout gives it at the page's present size, before it is fitted to its
    // text.
    std::map<int, QRect> captionPlaces_;
    std::vector<QMenu*> menus_;
    // The user's edits of each field that the window has not handled yet.
    // While any is on its way, the field keeps what the user typed: the
    // model's text then is older than the field's.
    std::map<int, int> editsUnhandled_;
    bool shown_ = false;
};

}  // namespace kb::ui
