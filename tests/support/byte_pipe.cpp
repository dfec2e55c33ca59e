#include "support/byte_pipe.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>

namespace kb::test {

using platform::SerialSettings;
using platform::WaitResult;

struct BytePipe::State {
    std::mutex Lock;
    std::condition_variable Changed;
    bool Open = false;
    // Put by the far end and not yet taken in: what ends a wait for input.
    std::string Arriving;
    // Taken in: what the line reads, from Queue[Head], at most QueueSize
    // bytes. The line reads a token a byte at a time; moving the rest up at
    // every byte would cost a pass over the queue each.
    std::string Queue;
    size_t Head = 0;
    // Written by the line for the far end's Take.
    std::string Written;
    bool Interrupted = false;
    // Writes of whole runs never interleave, the listener's included; the
    // listener is set under WriteLock and Lock, read under WriteLock.
    std::mutex WriteLock;
    std::function<void(std::string_view)> Listener;

    [[nodiscard]] size_t Queued() const { return Queue.size() - Head; }

    // Moves what has arrived into the queue, while there is room. Called
    // with Lock held.
    void TakeIn() {
        if (Arriving.empty()) {
            return;
        }
        const size_t room =
            PortDevice::QueueSize - std::min<size_t>(Queued(), PortDevice::QueueSize);
        const size_t taken = std::min(room, Arriving.size());
        Queue.append(Arriving, 0, taken);
        Arriving.erase(0, taken);
    }

    // Takes up to count bytes from the queue. Called with Lock held.
    size_t TakeOut(void* buffer, size_t count) {
        const size_t taken = std::min(count, Queued());
        std::memcpy(buffer, Queue.data() + Head, taken);
        Head += taken;
        if (Head == Queue.size()) {
            Queue.clear();
            Head = 0;
        } else if (Head >= PortDevice::QueueSize) {
            Queue.erase(0, Head);
            Head = 0;
        }
        return taken;
    }
};

namespace {

class PipeDevice final : public PortDevice {
public:
    explicit PipeDevice(std::shared_ptr<BytePipe::State> state) : state_(std::move(state)) {}
    ~PipeDevice() override { Close(); }

    bool Open(const std::string&) override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        state_->Open = true;
        return true;
    }
    void Close() override {
        {
            std::lock_guard<std::mutex> guard(state_->Lock);
            state_->Open = false;
        }
        Purge();
    }
    bool IsOpen() const override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        return state_->Open;
    }
    bool Configure(const SerialSettings&) override { return IsOpen(); }
    void Purge() override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        state_->Arriving.clear();
        state_->Queue.clear();
        state_->Head = 0;
        state_->Written.clear();
    }
    void PurgeOutput() override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        state_->Written.clear();
    }
    void ClearDtr() override {}
    uint32_t InputCount() override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        state_->TakeIn();
        return static_cast<uint32_t>(state_->Queued());
    }
    uint32_t OutputCount() override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        return static_cast<uint32_t>(state_->Written.size());
    }
    uint32_t Read(void* buffer, uint32_t count) override {
        std::lock_guard<std::mutex> guard(state_->Lock);
        state_->TakeIn();
        return static_cast<uint32_t>(state_->TakeOut(buffer, count));
    }
    bool Write(const void* bytes, uint32_t count) override {
        const std::string_view run(static_cast<const char*>(bytes), count);
        // The listener is changed only under writeLock, so it may be called
        // outside lock, where it can Put its answer.
        std::lock_guard<std::mutex> writing(state_->WriteLock);
        {
            std::lock_guard<std::mutex> guard(state_->Lock);
            if (!state_->Open) {
                return false;
            }
            if (!state_->Listener) {
                state_->Written.append(run);
                return true;
            }
        }
        state_->Listener(run);
        return true;
    }
    WaitResult WaitForInput(int timeoutMs) override {
        std::unique_lock<std::mutex> guard(state_->Lock);
        // With the queue full nothing more would be taken in: only an
        // interruption or the time ends the wait, as on a serial device.
        const auto ready = [this] {
            return state_->Interrupted ||
                   (!state_->Arriving.empty() && state_->Queued() < QueueSize);
        };
        state_->Changed.wait_for(guard, std::chrono::milliseconds(std::max(timeoutMs, 0)), ready);
        if (state_->Interrupted) {
            state_->Interrupted = false;
            return WaitResult::Interrupted;
        }
        return ready() ? WaitResult::Input : WaitResult::TimedOut;
    }
    void Interrupt() override {
        {
            std::lock_guard<std::mutex> guard(state_->Lock);
            state_->Interrupted = true;
        }
        state_->Changed.notify_all();
    }
    bool WaitForInterrupt(int timeoutMs) override {
        std::unique_lock<std::mutex> guard(state_->Lock);
        state_->Changed.wait_for(guard, std::chrono::milliseconds(std::max(timeoutMs, 0)),
                                 [this] { return state_->Interrupted; });
        const bool interrupted = state_->Interrupted;
        state_->Interrupted = false;
        return interrupted;
    }

private:
    std::shared_ptr<BytePipe::State> state_;
};

}  // namespace

BytePipe::BytePipe() : state_(std::make_shared<State>()) {}

std::unique_ptr<PortDevice> BytePipe::MakeDevice() const {
    return std::make_unique<PipeDevice>(state_);
}

void BytePipe::Put(std::string_view bytes) {
    {
        std::lock_guard<std::mutex> guard(state_->Lock);
        if (!state_->Open) {
            return;
        }
        state_->Arriving.append(bytes);
    }
    state_->Changed.notify_all();
}

std::string BytePipe::Take() {
    std::lock_guard<std::mutex> guard(state_->Lock);
    std::string taken;
    taken.swap(state_->Written);
    return taken;
}

void BytePipe::OnWrite(std::function<void(std::string_view)> listener) {
    std::lock_guard<std::mutex> writing(state_->WriteLock);
    std::string kept;
    {
        std::lock_guard<std::mutex> guard(state_->Lock);
        state_->Listener = std::move(listener);
        kept.swap(state_->Written);
    }
    // What was written before is heard first, as from a far end that starts
    // listening late.
    if (!kept.empty()) {
        state_->Listener(kept);
    }
}

}  // namespace kb::test
