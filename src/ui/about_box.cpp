#include "ui/about_box.h"

#include <QCloseEvent>
#include <QFrame>
#include <QLabel>
#include <QPushButton>

#include "ui/dialog_units.h"
#include "ui/pictures.h"

namespace kb::ui {

using namespace kb::app;

namespace {

// The box and its parts, in dialog units of its own font.
constexpr int BoxWidth = 211;
constexpr int BoxHeight = 150;
const QRect PicturePlace(7, 7, 196, 100);
const QRect VersionPlace(59, 112, 118, 8);

}  // namespace

AboutBox::AboutBox(QWidget* parent, const QFont& font, std::function<void()> onOk)
    : QDialog(parent, Qt::Dialog | Qt::FramelessWindowHint), onOk_(std::move(onOk)) {
    setFont(font);
    setWindowModality(Qt::ApplicationModal);
    const DialogUnits units(font);
    setFixedSize(units.X(BoxWidth), units.Y(BoxHeight));

    // Without a frame of the window system's, the box draws its own edge.
    auto* edge = new QFrame(this);
    edge->setFrameStyle(QFrame::Box | QFrame::Plain);
    edge->setGeometry(rect());

    ok_ = new QPushButton(this);
    ok_->setAccessibleName(QStringLiteral("OK"));
    ok_->setGeometry(units.Rect(PicturePlace.x(), PicturePlace.y(), PicturePlace.width(),
                                PicturePlace.height()));
    ok_->setFlat(true);
    ok_->setFocusPolicy(Qt::StrongFocus);
    ok_->setDefault(true);
    ok_->setCursor(Qt::PointingHandCursor);
    // The button is the picture: nothing of a button's own is drawn over it.
    ok_->setStyleSheet(QStringLiteral("QPushButton { border: none; background: transparent; }"));
    connect(ok_, &QPushButton::clicked, this, [this] { onOk_(); });

    version_ = new QLabel(this);
    version_->setGeometry(units.Rect(VersionPlace.x(), VersionPlace.y(), VersionPlace.width(),
                                     VersionPlace.height()));
}

void AboutBox::Follow(const ControlState& state) {
    version_->setText(QString::fromStdString(state.Text));
    if (state.Picture != picture_) {
        picture_ = state.Picture;
        ok_->setIconSize(ok_->size());
        ok_->setIcon(PictureIcon(picture_, ok_->size()));
    }
    if (state.Shown && !isVisible()) {
        show();
        raise();
        activateWindow();
        ok_->setFocus();
    } else if (!state.Shown && isVisible()) {
        hide();
    }
}

void AboutBox::CentreOver(const QWidget* window) {
    move(window->frameGeometry().center() - rect().center());
}

void AboutBox::done(int /*result*/) {
    onOk_();
}

void AboutBox::closeEvent(QCloseEvent* event) {
    event->ignore();
    onOk_();
}

}  // namespace kb::ui
