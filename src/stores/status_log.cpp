#include "stores/status_log.h"

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "platform/files.h"
#include "platform/message_box.h"

namespace kb::stores {

using namespace kb::platform;

void StatusLog::LeaveSink(std::unique_lock<std::mutex>& lock) {
    lock.lock();
    if (--callsInSink_ == 0) {
        sinkIdle_.notify_all();
    }
}

void StatusLog::Add(const std::string& text) {
    std::unique_lock<std::mutex> lock(sinkLock_);
    if (!sink_ || handingOver_) {
        AppendLogLine(heldLines_, text);
        return;
    }
    LogLineSink sink = sink_;
    ++callsInSink_;
    lock.unlock();
    sink(text);
    LeaveSink(lock);
}

void StatusLog::SetSink(LogLineSink sink) {
    std::unique_lock<std::mutex> lock(sinkLock_);
    sink_ = std::move(sink);
    if (handingOver_) {
        // Another call is handing lines over; it takes up the new sink with
        // its next batch. Only the calls into the old sink are waited for.
        sinkIdle_.wait(lock, [this] { return callsInSink_ == 0; });
        return;
    }
    handingOver_ = true;
    sinkIdle_.wait(lock, [this] { return callsInSink_ == 0; });
    // Lines logged meanwhile join the held ones, so they follow them.
    while (sink_ && !heldLines_.empty()) {
        std::vector<std::string> batch = std::move(heldLines_);
        heldLines_.clear();
        LogLineSink target = sink_;
        ++callsInSink_;
        lock.unlock();
        for (const std::string& line : batch) {
            target(line);
        }
        LeaveSink(lock);
    }
    handingOver_ = false;
}

size_t AppendLogLine(std::vector<std::string>& lines, std::string text) {
    lines.push_back(std::move(text));
    if (lines.size() <= LogLineLimit) {
        return 0;
    }
    // One batch, so that trimming happens once per LogTrimCount lines.
    lines.erase(lines.begin(), lines.begin() + LogTrimCount);
    return LogTrimCount;
}

std::vector<std::string> LogLinesFromBuffer(const char* buffer, size_t size) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < size) {
        const void* nul = std::memchr(buffer + at, '\0', size - at);
        if (nul == nullptr) {
            break;  // cut off by the end of the buffer
        }
        const size_t length = static_cast<const char*>(nul) - (buffer + at);
        if (length == 0) {
            break;  // the end mark
        }
        lines.emplace_back(buffer + at, length);
        at += length + 1;
    }
    return lines;
}

bool StatusLog::Load() {
    buffer_.reset(new (std::nothrow) char[LogBufferSize]);
    if (!buffer_) {
        ShowMessageBox("Not enough memory for status log.");
        return false;
    }
    std::memset(buffer_.get(), 0, LogBufferSize);

    File file;
    if (!file.Open(path_, File::Mode::Read)) {
        if (!file.Open(path_, File::Mode::CreateReadWrite)) {
            ShowMessageBox("Cannot create status log file.");
            return false;
        }
        const char endMark = '\0';
        // A mark not written reads as an empty log.
        static_cast<void>(file.Write(&endMark, 1));
        file.Close();
        return true;
    }
    // A short read leaves the rest of the buffer empty.
    static_cast<void>(file.Read(buffer_.get(), LogBufferSize));
    file.Close();
    return true;
}

std::vector<std::string> StatusLog::StoredLines() const {
    if (!buffer_) {
        return {};
    }
    return LogLinesFromBuffer(buffer_.get(), LogBufferSize);
}

void StatusLog::Free() {
    buffer_.reset();
}

bool StatusLog::Save(const std::vector<std::string>& lines) const {
    File file;
    if (!file.Open(path_, File::Mode::Write)) {
        return false;
    }
    std::string bytes;
    for (const std::string& line : lines) {
        const size_t length = std::min(line.find('\0'), line.size());
        if (length == 0) {
            continue;
        }
        bytes.append(line, 0, length);
        bytes.push_back('\0');
    }
    bytes.push_back('\0');
    const bool written = file.Write(bytes.data(), static_cast<uint32_t>(bytes.size()));
    file.Close();
    return written;
}

std::string TimeText(std::time_t when) {
    char text[64] = {};
    if (::ctime_r(&when, text) == nullptr) {
        return {};
    }
    std::string result = text;
    while (!result.empty() && std::isspace(static_cast<unsigned char>(result.back())) != 0) {
        result.pop_back();
    }
    return result;
}

std::string CurrentTimeText() {
    return TimeText(std::time(nullptr));
}

std::string StartStopLine(bool starting) {
    return (starting ? "Starting Kestrelbound " : "Stopping Kestrelbound ") + CurrentTimeText();
}

}  // namespace kb::stores
