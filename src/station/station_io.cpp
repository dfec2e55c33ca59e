#include "station/station_io.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace kb::station {

namespace {

// Blanks and a CR around a command are no part of it.
std::string Trimmed(std::string line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.pop_back();
    }
    const size_t start = line.find_first_not_of(" \t");
    line.erase(0, start == std::string::npos ? line.size() : start);
    return line;
}

// The length of the well-formed UTF-8 character at text[at], 0 if the byte
// there starts none.
size_t Utf8Length(const std::string& text, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    size_t length = 0;
    unsigned char low = 0x80;  // the range of the byte behind the lead
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong form
        high = lead == 0xED ? 0x9F : 0xBF;  // no surrogate
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (at + length > text.size() || byte(at + 1) < low || byte(at + 1) > high) {
        return 0;
    }
    for (size_t i = 2; i < length; ++i) {
        if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) {
            return 0;
        }
    }
    return length;
}

void AppendHexByte(std::string& shown, unsigned char c) {
    static const char Digits[] = "0123456789ABCDEF";
    shown += "\\x";
    shown += Digits[c >> 4];
    shown += Digits[c & 0x0F];
}

// The text as one line of plain printable UTF-8, whatever a file name or a
// peer put into it: a control character would ring the terminal's bell,
// move its cursor or end the line, and a byte that is no character would
// trip a reader that decodes the output. Such bytes are written as escapes
// (\r, \n, \t, \xNN for any other, and \\ for the backslash itself), so
// that a reader can take every line back byte for byte. In quotes, a double
// quote is escaped too.
std::string Escaped(const std::string& text, bool quoted) {
    std::string shown;
    for (size_t at = 0; at < text.size();) {
        const auto c = static_cast<unsigned char>(text[at]);
        if (c >= 0x80) {
            const size_t length = Utf8Length(text, at);
            // U+0080 to U+009F, the second set of control characters.
            const bool control =
                length == 2 && c == 0xC2 && static_cast<unsigned char>(text[at + 1]) <= 0x9F;
            if (length == 0 || control) {
                const size_t count = length == 0 ? 1 : length;
                for (size_t i = 0; i < count; ++i) {
                    AppendHexByte(shown, static_cast<unsigned char>(text[at + i]));
                }
                at += count;
            } else {
                shown.append(text, at, length);
                at += length;
            }
            continue;
        }
        if (c == '\r') {
            shown += "\\r";
        } else if (c == '\n') {
            shown += "\\n";
        } else if (c == '\t') {
            shown += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            AppendHexByte(shown, c);
        } else if (c == '\\' || (quoted && c == '"')) {
            shown += '\\';
            shown += static_cast<char>(c);
        } else {
            shown += static_cast<char>(c);
        }
        ++at;
    }
    return shown;
}

}  // namespace

void StationOutput::PrintLine(const std::string& line) {
    const std::string text = line + "\n";
    std::lock_guard<std::mutex> guard(lock_);
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // nobody reads any more; the station runs on
        }
        done += static_cast<size_t>(n);
    }
}

std::string OneLine(const std::string& text) {
    return Escaped(text, false);
}

std::string Quoted(const std::string& text) {
    return "\"" + Escaped(text, true) + "\"";
}

CommandInput::CommandInput(StationOutput& output) : output_(output) {
    ::signal(SIGPIPE, SIG_IGN);
    if (signals_.IsOpen() && ::pipe2(stopPipe_, O_CLOEXEC) != 0) {
        stopPipe_[0] = stopPipe_[1] = -1;
    }
}

CommandInput::~CommandInput() {
    if (reader_.joinable()) {
        Stop();
    }
    for (const int fd : stopPipe_) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool CommandInput::IsOpen() const {
    return signals_.IsOpen() && stopPipe_[0] >= 0;
}

void CommandInput::Start(Runner run, std::function<void()> onStop,
                         std::function<void()> onCommandsEnded) {
    reader_ = std::thread([this, onStop = std::move(onStop)] { ReadInput(onStop); });
    runner_ =
        std::thread([this, run = std::move(run), onCommandsEnded = std::move(onCommandsEnded)] {
            RunCommands(run, onCommandsEnded);
        });
}

void CommandInput::Stop() {
    const char stop = 's';
    if (::write(stopPipe_[1], &stop, 1) < 0) {
        std::perror("kbstation");
    }
    reader_.join();
    CloseQueue();
    runner_.join();
}

void CommandInput::Enqueue(const std::string& line) {
    std::lock_guard<std::mutex> guard(queueLock_);
    commands_.push_back(Trimmed(line));
    queueChanged_.notify_all();
}

void CommandInput::EndInput() {
    std::lock_guard<std::mutex> guard(queueLock_);
    commands_.emplace_back(std::nullopt);
    queueChanged_.notify_all();
}

void CommandInput::CloseQueue() {
    std::lock_guard<std::mutex> guard(queueLock_);
    queueClosed_ = true;
    queueChanged_.notify_all();
}

void CommandInput::RunCommands(const Runner& run, const std::function<void()>& onCommandsEnded) {
    for (;;) {
        std::optional<std::string> line;
        {
            std::unique_lock<std::mutex> guard(queueLock_);
            queueChanged_.wait(guard, [this] { return queueClosed_ || !commands_.empty(); });
            if (commands_.empty()) {
                return;
            }
            line = std::move(commands_.front());
            commands_.pop_front();
        }
        if (!line) {
            onCommandsEnded();
        } else if (!line->empty()) {
            output_.PrintLine(run(*line));
        }
    }
}

// Reads standard input and the stopping signals until the stop pipe speaks.
void CommandInput::ReadInput(const std::function<void()>& onStop) {
    bool inputOpen = true;
    bool stopping = false;
    std::string pending;
    for (;;) {
        pollfd fds[3] = {{stopPipe_[0], POLLIN, 0},
                         {signals_.Descriptor(), POLLIN, 0},
                         {STDIN_FILENO, POLLIN, 0}};
        if (::poll(fds, inputOpen ? 3 : 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if (fds[1].revents != 0 && signals_.Take() && !stopping) {
            stopping = true;
            onStop();
        }
        if (inputOpen && fds[2].revents != 0) {
            char buffer[4096];
            const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                if (!pending.empty()) {
                    Enqueue(pending);
                    pending.clear();
                }
                EndInput();
                inputOpen = false;
                continue;
            }
            pending.append(buffer, static_cast<size_t>(n));
            size_t end;
            while ((end = pending.find('\n')) != std::string::npos) {
                Enqueue(pending.substr(0, end));
                pending.erase(0, end + 1);
            }
        }
    }
}

}  // namespace kb::station
