#include "ui/front_end.h"

#include <QApplication>
#include <QFile>
#include <QInputEvent>
#include <QMessageBox>
#include <QPixmap>
#include <QTimer>

#include <cstdio>
#include <optional>

#include "app/application.h"
#include "app/control_model.h"
#include "app/main_window.h"
#include "app/window_layout.h"
#include "platform/desktop.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "ui/about_box.h"
#include "ui/control_changes.h"
#include "ui/gui_thread.h"
#include "ui/main_view.h"
#include "ui/manual.h"
#include "ui/qt_desktop.h"

namespace kb::ui {

using namespace kb::app;
using namespace kb::platform;
using namespace kb::resources;

namespace {

// The window was drawn for a font of this size.
constexpr qreal DialogPointSize = 10;
// How often a front end that waits for the start to be over asks.
constexpr int StartCheckMs = 100;

WindowEvent EventOf(EventKind kind, int id) {
    WindowEvent event;
    event.Kind = kind;
    event.Id = id;
    return event;
}

// A box for one of the program's messages.
// Its text can be selected: a message may name a file or a number that the
// user wants to copy.
void SetMessage(QMessageBox& box, const std::string& text) {
    box.setWindowTitle(QString::fromLatin1(WindowCaption));
    box.setText(QString::fromStdString(MessageLines(text)));
    box.setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
}

}  // namespace

QFont DialogFont() {
    QFont font = QApplication::font();
    font.setPointSizeF(DialogPointSize);
    return font;
}

bool KeyWatcher::Held(Key key) const {
    const Qt::KeyboardModifiers held(modifiers_.load());
    return held.testFlag(key == Key::Shift ? Qt::ShiftModifier : Qt::ControlModifier);
}

bool KeyWatcher::eventFilter(QObject* watched, QEvent* event) {
    switch (event->type()) {
        case QEvent::KeyPress:
        case QEvent::KeyRelease:
        case QEvent::MouseButtonPress:
        case QEvent::MouseButtonRelease:
        case QEvent::MouseButtonDblClick:
        case QEvent::MouseMove:
        case QEvent::Wheel:
            // The keys as they were at the last thing the user did.
            modifiers_.store(static_cast<QInputEvent*>(event)->modifiers().toInt());
            break;
        default:
            break;
    }
    return QObject::eventFilter(watched, event);
}

FrontEnd::FrontEnd(FrontEndOptions options) : options_(std::move(options)) {}

FrontEnd::~FrontEnd() {
    if (!started_) {
        return;
    }
    if (program_.joinable()) {
        // Nothing on the GUI thread answers the program any more; it ends
        // as the close box ends it.
        gui_->Close();
        RequestClose();
        program_.join();
    }
    Controls().RemoveListener(listener_);
    SetMessageBoxHandler(nullptr);
    SetQuestionHandler(nullptr);
    SetKeyStateQuery(nullptr);
    InstallDesktop(nullptr);
    qApp->removeEventFilter(&keys_);
    gui_->Close();
    view_.reset();
}

void FrontEnd::Start() {
    if (started_) {
        return;
    }
    started_ = true;
    // The program runs in the current folder, and Help shows the manual
    // from there; a folder the system cannot tell is taken as the root.
    const std::string root = CurrentFolder().value_or("");
    if (!InstallManual(root)) {
        std::fprintf(stderr, "kestrelbound: the manual could not be written below %s\n",
                     root.c_str());
    }

    gui_ = std::make_unique<GuiThread>();
    changes_ = std::make_shared<ControlChanges>();
    view_ = std::make_unique<MainView>(changes_, app_.Window(), DialogFont(),
                                       QString::fromStdString(WindowPlaceFileBelow(root)));
    desktop_ = std::make_unique<QtDesktop>(*gui_, [this] { return view_.get(); });

    qApp->installEventFilter(&keys_);
    SetKeyStateQuery([this](Key key) { return keys_.Held(key); });
    if (options_.Screenshot.isEmpty()) {
        SetMessageBoxHandler([this](const std::string& text) {
            if (!gui_->Call([&] { ShowMessage(text); })) {
                PrintMessage(text);
            }
        });
        // A question that can no longer be shown is answered No: nothing
        // changes that nobody agreed to.
        SetQuestionHandler([this](const std::string& text) {
            bool yes = false;
            gui_->Call([&] { yes = AskQuestion(text); });
            return yes;
        });
    } else {
        SetMessageBoxHandler(PrintMessage);
    }
    InstallDesktop(desktop_.get());
    std::shared_ptr<ControlChanges> changes = changes_;
    listener_ =
        Controls().AddListener([changes](const ControlEvent& event) { changes->Note(event); });

    program_ = std::thread([this] {
        app_.InitInstance();
        QMetaObject::invokeMethod(this, "OnProgramEnded", Qt::QueuedConnection);
    });
    if (!options_.Screenshot.isEmpty()) {
        WaitForStartToEnd();
    }
}

void FrontEnd::RequestClose() {
    // A stop asked from outside (a signal, the session ending) must not wait
    // for somebody to answer a box: the one on show closes as Escape would
    // close it, and none opens after, so the program gets to its exit.
    stopping_ = true;
    if (openBox_) {
        openBox_->reject();
    }
    view_->Send(EventOf(EventKind::Close, 0));
}

void FrontEnd::OnProgramEnded() {
    if (program_.joinable()) {
        program_.join();
    }
    ended_ = true;
    view_->SavePlace();
    view_->About()->hide();
    view_->hide();
    emit ProgramEnded();
}

void FrontEnd::ShowMessage(const std::string& text) {
    if (stopping_) {
        PrintMessage(text);
        return;
    }
    QMessageBox box(view_.get());
    SetMessage(box, text);
    box.setStandardButtons(QMessageBox::Ok);
    openBox_ = &box;
    box.exec();
}

bool FrontEnd::AskQuestion(const std::string& text) {
    if (stopping_) {
        return false;
    }
    QMessageBox box(view_.get());
    SetMessage(box, text);
    box.setIcon(QMessageBox::Question);
    box.setStandardButtons(QMessageBox::Yes | QMessageBox::No);
    box.setDefaultButton(QMessageBox::No);
    openBox_ = &box;
    return box.exec() == QMessageBox::Yes;
}

void FrontEnd::WaitForStartToEnd() {
    // The window is asked on its own thread, between its other work; the
    // answer comes back here at the next look.
    auto over = std::make_shared<std::atomic<bool>>(false);
    auto asking = std::make_shared<std::atomic<bool>>(false);
    auto* timer = new QTimer(this);
    timer->setInterval(StartCheckMs);
    connect(timer, &QTimer::timeout, this, [this, timer, over, asking] {
        if (!over->load()) {
            if (!asking->exchange(true)) {
                MainLoop().Post([over, asking, handle = app_.Window()] {
                    const MainWindow* window = handle->load();
                    over->store(window != nullptr && window->StartIsOver() &&
                                !Controls().Shown(IDD_ABOUTBOX));
                    asking->store(false);
                });
            }
            return;
        }
        timer->stop();
        timer->deleteLater();
        if (!WritePicture(options_.Screenshot)) {
            std::fprintf(stderr, "kestrelbound: cannot write %s\n",
                         QFile::encodeName(options_.Screenshot).constData());
            exitStatus_ = 1;
        }
        view_->Send(EventOf(EventKind::MenuCommand, ID_FILE_EXIT));
    });
    timer->start();
}

bool FrontEnd::WritePicture(const QString& path) {
    // Whatever the model holds by now is drawn first.
    view_->FlushChanges();
    const QPixmap picture = view_->grab();
    const QString part = path + QStringLiteral(".part");
    if (picture.isNull() || !picture.save(part, "PNG")) {
        QFile::remove(part);
        return false;
    }
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(path).constData()) !=
        0) {
        QFile::remove(part);
        return false;
    }
    return true;
}

void FrontEnd::WriteSignalPicture() {
    if (options_.SignalScreenshot.isEmpty()) {
        return;
    }
    if (!WritePicture(options_.SignalScreenshot)) {
        std::fprintf(stderr, "kestrelbound: cannot write %s\n",
                     QFile::encodeName(options_.SignalScreenshot).constData());
    }
}

}  // namespace kb::ui
