// Work handed to the GUI thread by the program's other threads.
//
// Widgets belong to the thread that runs Qt's event loop; the main loop's
// thread and the engine's threads never touch one. What they need done there
// (a message box, a file dialog, a hand-off to the desktop) they hand over
// here and wait for, while the GUI thread itself never waits for them.
//
// The hand-over goes through a std::mutex and a condition variable rather
// than Qt's blocking queued connection: both do the same, but these are the
// ones ThreadSanitizer sees, so a task and what it returns pass between the
// threads in its view too.
#pragma once

#include <QObject>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace kb::ui {

class GuiThread : public QObject {
    Q_OBJECT

public:
    // Lives on the thread that makes it, which must be the GUI thread.
    GuiThread();
    ~GuiThread() override;

    // Runs the task on the GUI thread and returns once it has run; on the
    // GUI thread itself the task runs at once. False, without running it,
    // once the GUI has closed: nothing would ever run it.
    bool Call(std::function<void()> task);
    // Runs the task on the GUI thread later, in order with other posted
    // tasks and calls; returns at once. Dropped once the GUI has closed.
    void Post(std::function<void()> task);
    // The GUI goes: tasks waiting and to come are not run, and their callers
    // return.
    void Close();
    [[nodiscard]] bool OnGuiThread() const;

private:
    struct Task {
        std::function<void()> Work;
        bool Ran = false;
        bool Settled = false;
    };

    Q_INVOKABLE void RunTasks();
    bool Queue(const std::shared_ptr<Task>& task);

    std::mutex lock_;
    std::condition_variable settled_;
    std::deque<std::shared_ptr<Task>> tasks_;
    bool closed_ = false;
};

}  // namespace kb::ui
