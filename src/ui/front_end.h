// The desktop program's front end: the program's main loop on a thread of its
// own, Qt's event loop on the process's main thread, and between them the
// hooks through which the program reaches the desktop (message boxes, the
// keys held down, folders, pages, programs and file dialogs) and the view
// that draws the window's model.
//
// The GUI thread never waits for the main loop: the user's actions are
// posted to it, and the model's changes come back as notes that the GUI
// thread takes when it gets to them. Only the program's threads wait, for
// a message box or a dialog on the GUI thread.
#pragma once

#include <QFont>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <memory>
#include <thread>

#include "app/application.h"
#include "platform/key_state.h"

class QMessageBox;

namespace kb::ui {

using app::TransferApp;
using app::WindowHandle;
using platform::Key;

class ControlChanges;
class GuiThread;
class MainView;
class QtDesktop;

struct FrontEndOptions {
    // Once the start is over, a picture of the window goes to this PNG file
    // and the program leaves as Exit does; message boxes meanwhile go to
    // standard error, since nobody is there to answer them.
    QString Screenshot;
    // Each SIGUSR1 writes a picture of the window to this PNG file; the
    // program runs on.
    QString SignalScreenshot;
};

// The keys held down as the GUI thread last saw them, for the program's
// threads to ask.
class KeyWatcher : public QObject {
    Q_OBJECT

public:
    [[nodiscard]] bool Held(Key key) const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    std::atomic<int> modifiers_{0};
};

class FrontEnd : public QObject {
    Q_OBJECT

public:
    explicit FrontEnd(FrontEndOptions options = {});
    // Ends the program first if it still runs.
    ~FrontEnd() override;
    FrontEnd(const FrontEnd&) = delete;
    FrontEnd& operator=(const FrontEnd&) = delete;

    // Writes the manual into the current folder if it is missing there,
    // installs the hooks and the view, and starts the program in the current
    // folder. On the GUI thread, once.
    void Start();
    // A stop from outside (a signal, the session ending): a box on show
    // closes unanswered and none opens after, then the window prepares the
    // exit as its close box does and the program ends.
    void RequestClose();
    // True once the program's main loop has ended and its thread is gone.
    [[nodiscard]] bool Ended() const { return ended_; }
    // 0, or 1 when a picture asked for on the command line could not be
    // written.
    [[nodiscard]] int ExitStatus() const { return exitStatus_; }

    [[nodiscard]] MainView& View() const { return *view_; }
    // The program's window, for work on the main loop's thread.
    [[nodiscard]] WindowHandle Window() const { return app_.Window(); }

    // Writes a PNG of the window to the file, through a file beside it, so a
    // reader never finds half a picture. False if it could not be written.
    [[nodiscard]] bool WritePicture(const QString& path);
    // What SIGUSR1 does: the picture of FrontEndOptions::SignalScreenshot.
    void WriteSignalPicture();

signals:
    // The program has ended; the process may leave.
    void ProgramEnded();

private:
    Q_INVOKABLE void OnProgramEnded();
    void WaitForStartToEnd();
    void ShowMessage(const std::string& text);
    // A question with Yes and No, No the default: true for Yes.
    bool AskQuestion(const std::string& text);

    FrontEndOptions options_;
    // The program, run on a thread of its own.
    TransferApp app_;
    std::unique_ptr<GuiThread> gui_;
    std::shared_ptr<ControlChanges> changes_;
    std::unique_ptr<MainView> view_;
    std::unique_ptr<QtDesktop> desktop_;
    KeyWatcher keys_;
    int listener_ = 0;
    std::thread program_;
    bool started_ = false;
    bool ended_ = false;
    // Set by a stop asked from outside: no message box opens any more.
    bool stopping_ = false;
    // The message box or question on show, while one is.
    QPointer<QMessageBox> openBox_;
    int exitStatus_ = 0;
};

// The font of the window: the desktop's own, at the size the window was drawn
// for.
QFont DialogFont();

}  // namespace kb::ui
