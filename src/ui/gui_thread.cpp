#include "ui/gui_thread.h"

#include <QThread>

namespace kb::ui {

GuiThread::GuiThread() = default;

GuiThread::~GuiThread() {
    Close();
}

bool GuiThread::OnGuiThread() const {
    return QThread::currentThread() == thread();
}

bool GuiThread::Queue(const std::shared_ptr<Task>& task) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (closed_) {
            return false;
        }
        tasks_.push_back(task);
    }
    // One wake per task; a wake that finds the queue emptied by an earlier
    // one does nothing.
    QMetaObject::invokeMethod(this, "RunTasks", Qt::QueuedConnection);
    return true;
}

bool GuiThread::Call(std::function<void()> work) {
    if (OnGuiThread()) {
        work();
        return true;
    }
    auto task = std::make_shared<Task>();
    task->Work = std::move(work);
    if (!Queue(task)) {
        return false;
    }
    std::unique_lock<std::mutex> guard(lock_);
    settled_.wait(guard, [&] { return task->Settled; });
    return task->Ran;
}

void GuiThread::Post(std::function<void()> work) {
    auto task = std::make_shared<Task>();
    task->Work = std::move(work);
    Queue(task);
}

void GuiThread::RunTasks() {
    for (;;) {
        std::shared_ptr<Task> task;
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (tasks_.empty() || closed_) {
                return;
            }
            task = tasks_.front();
            tasks_.pop_front();
        }
        task->Work();
        {
            std::lock_guard<std::mutex> guard(lock_);
            task->Ran = true;
            task->Settled = true;
        }
        settled_.notify_all();
    }
}

void GuiThread::Close() {
    std::deque<std::shared_ptr<Task>> dropped;
    {
        std::lock_guard<std::mutex> guard(lock_);
        closed_ = true;
        dropped.swap(tasks_);
        for (const std::shared_ptr<Task>& task : dropped) {
            task->Settled = true;
        }
    }
    settled_.notify_all();
}

}  // namespace kb::ui
