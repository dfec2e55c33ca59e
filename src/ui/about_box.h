// The About box: a small frameless dialog with the program's picture and its
// version. It opens at start as the splash and later from the Help menu; the
// model says when it is open, and it closes only when the model says so. Its
// OK lies over the whole picture, so a click anywhere on the picture, Enter,
// Esc and the box's close all send the same AboutOk.
#pragma once

#include <QDialog>

#include <functional>

#include "app/control_model.h"

class QLabel;
class QPushButton;

namespace kb::ui {

using app::ControlState;

class AboutBox : public QDialog {
    Q_OBJECT

public:
    // onOk is what any way of dismissing the box does.
    AboutBox(QWidget* parent, const QFont& font, std::function<void()> onOk);

    // Shows, hides and fills the box as the model's state of it says.
    void Follow(const ControlState& state);
    // Puts the box in the middle of the window again, when the desktop has
    // moved the window while the box is open. A dialog opens over its
    // window by itself.
    void CentreOver(const QWidget* window);
    [[nodiscard]] QPushButton* OkButton() const { return ok_; }
    [[nodiscard]] QLabel* VersionLabel() const { return version_; }

protected:
    // Every way out of the dialog asks the window instead; the box stays
    // until the model closes it.
    void done(int result) override;
    void closeEvent(QCloseEvent* event) override;

private:
    std::function<void()> onOk_;
    QPushButton* ok_ = nullptr;
    QLabel* version_ = nullptr;
    int picture_ = 0;
};

}  // namespace kb::ui
