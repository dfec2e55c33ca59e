#include "harness.h"

#include <algorithm>
#include <stdexcept>

#include "platform/files.h"
#include "support/temp_folder.h"

namespace kb::test {

VirtualAdapters::VirtualAdapters(const std::vector<std::string>& adapters,
                                 const std::vector<std::string>& options)
    : process_(
          VIRTUAL_TA_PATH,
          [&] {
              std::vector<std::string> arguments = options;
              arguments.insert(arguments.end(), adapters.begin(), adapters.end());
              return arguments;
          }(),
          "") {
    if (!process_.WaitForLine("ready", std::chrono::seconds(20))) {
        throw std::runtime_error("virtual-ta did not become ready");
    }
}

Station::Station(const std::string& folder) : process_(KBSTATION_PATH, {}, folder) {}

std::string Unescaped(const std::string& shown) {
    std::string text;
    for (size_t at = 0; at < shown.size(); ++at) {
        if (shown[at] != '\\' || at + 1 == shown.size()) {
            text += shown[at];
            continue;
        }
        const char kind = shown[++at];
        if (kind == 'x' && at + 2 < shown.size()) {
            text += static_cast<char>(std::stoi(shown.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else {
            text += kind == 'r' ? '\r' : kind == 'n' ? '\n' : kind == 't' ? '\t' : kind;
        }
    }
    return text;
}

void Station::Sort(const std::string& line) {
    if (line.rfind("log: ", 0) == 0) {
        logLines_.push_back(Unescaped(line.substr(5)));
    } else if (line.rfind("message: ", 0) == 0) {
        messages_.push_back(Unescaped(line.substr(9)));
    } else {
        for (const char* kind : {"open: ", "browse: ", "raise: ", "run: ", "dialog: "}) {
            if (line.rfind(kind, 0) == 0) {
                handOffs_.push_back(line);
            }
        }
    }
}

bool Station::TakeUntil(const std::function<bool(const std::string&)>& test,
                        std::chrono::milliseconds limit) {
    return process_.WaitForLine(
        [&](const std::string& line) {
            Sort(line);
            return test(line);
        },
        limit);
}

std::string Station::Command(const std::string& command, std::chrono::milliseconds limit) {
    process_.WriteLine(command);
    std::string answer;
    const bool answered = TakeUntil(
        [&answer](const std::string& line) {
            answer = line;
            return line == "ok" || line.rfind("error:", 0) == 0;
        },
        limit);
    return answered ? answer : "";
}

bool Station::WaitForLog(const std::string& text, std::chrono::milliseconds limit) {
    for (; logWaitMark_ < logLines_.size(); ++logWaitMark_) {
        if (logLines_[logWaitMark_].find(text) != std::string::npos) {
            ++logWaitMark_;
            return true;
        }
    }
    const bool seen = TakeUntil(
        [&](const std::string& line) {
            return line.rfind("log: ", 0) == 0 &&
                   Unescaped(line.substr(5)).find(text) != std::string::npos;
        },
        limit);
    if (seen) {
        logWaitMark_ = logLines_.size();
    }
    return seen;
}

std::string Station::LogText() const {
    std::string all;
    for (const std::string& line : logLines_) {
        all += line + "\n";
    }
    return all;
}

long Station::Count(const std::string& line) {
    ShowControl("IDC_SEND");
    return std::count(logLines_.begin(), logLines_.end(), line);
}

std::string Station::ShowControl(const std::string& name) {
    process_.WriteLine("show");
    std::string shown;
    TakeUntil(
        [&](const std::string& line) {
            if (line.rfind("control " + name + " ", 0) == 0 || line.rfind(name + " ", 0) == 0) {
                shown = line;
            }
            return line == "ok" || line.rfind("error:", 0) == 0;
        },
        std::chrono::seconds(30));
    return shown;
}

std::vector<std::string> Station::TakeHandOffs() {
    std::vector<std::string> taken;
    taken.swap(handOffs_);
    return taken;
}

int Station::Quit(std::chrono::milliseconds limit) {
    process_.WriteLine("quit");
    std::string line;
    while (process_.NextLine(line, limit)) {
        Sort(line);
    }
    return process_.WaitForExit(limit);
}

int Station::Stop(int signal, std::chrono::milliseconds limit) {
    return process_.Stop(signal, limit);
}

std::unique_ptr<Station> WaitingStation(const std::string& folder) {
    auto station = std::make_unique<Station>(folder);
    EXPECT_TRUE(station->WaitForLog("Initializing Incoming")) << folder << ":\n"
                                                              << station->LogText();
    return station;
}

void ExpectSameBytes(const std::string& path, const std::string& expected) {
    EXPECT_TRUE(platform::PathExists(path)) << path << " is missing";  // reads as empty
    const std::string arrived = ReadWholeFile(path);
    EXPECT_EQ(arrived.size(), expected.size()) << path;
    EXPECT_TRUE(arrived == expected) << path << " differs";
}

}  // namespace kb::test
