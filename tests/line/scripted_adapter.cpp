#include "scripted_adapter.h"

#include <chrono>

namespace kb::test {

ScriptedAdapter::ScriptedAdapter(Responder responder) : responder_(std::move(responder)) {
    thread_ = std::thread([this] { Run(); });
}

ScriptedAdapter::~ScriptedAdapter() {
    stop_.store(true);
    thread_.join();
}

void ScriptedAdapter::SetResponder(Responder responder) {
    std::lock_guard<std::mutex> guard(lock_);
    responder_ = std::move(responder);
}

std::vector<ReceivedCommand> ScriptedAdapter::Commands() const {
    std::lock_guard<std::mutex> guard(lock_);
    return commands_;
}

std::vector<std::string> ScriptedAdapter::CommandTexts() const {
    std::vector<std::string> texts;
    for (const ReceivedCommand& command : Commands()) {
        texts.push_back(command.Text);
    }
    return texts;
}

void ScriptedAdapter::ClearCommands() {
    std::lock_guard<std::mutex> guard(lock_);
    commands_.clear();
}

bool ScriptedAdapter::WaitForCommands(size_t count, int timeoutMs) const {
    std::unique_lock<std::mutex> guard(lock_);
    return arrived_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                             [&] { return commands_.size() >= count; });
}

void ScriptedAdapter::Run() {
    while (!stop_.load()) {
        const std::string got = far_.Receive(1, 50);
        for (char byte : got) {
            std::string command;
            Responder responder;
            {
                std::lock_guard<std::mutex> guard(lock_);
                if (byte != '\r') {
                    pending_ += byte;
                    continue;
                }
                command.swap(pending_);
                commands_.push_back({command, far_.Speed()});
                responder = responder_;
            }
            arrived_.notify_all();
            const std::string reply = responder(command, far_.Speed());
            if (!reply.empty()) {
                far_.Send(reply);
            }
        }
    }
}

std::string Answer(const std::string& command, const std::vector<std::string>& lines) {
    std::string reply = command + "\r\r\n";
    for (const std::string& line : lines) {
        reply += line + "\r\n\r\n";
    }
    return reply + "OK\r\n";
}

std::string EchoOnly(const std::string& command) {
    return command + "\r";
}

}  // namespace kb::test
