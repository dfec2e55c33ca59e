#include "platform/message_box.h"

#include <cstdio>
#include <mutex>

namespace kb::platform {

namespace {

std::mutex HandlerLock;
MessageBoxHandler CurrentHandler;
QuestionHandler CurrentQuestionHandler;

}  // namespace

std::string MessageLines(const std::string& text) {
    std::string lines;
    lines.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\r') {
            lines += text[at];
        } else if (at + 1 >= text.size() || text[at + 1] != '\n') {
            lines += '\n';
        }
    }
    return lines;
}

void PrintMessage(const std::string& text) {
    std::fprintf(stderr, "%s\n", MessageLines(text).c_str());
}

void ShowMessageBox(const std::string& text) {
    MessageBoxHandler handler;
    {
        std::lock_guard<std::mutex> guard(HandlerLock);
        handler = CurrentHandler;
    }
    if (handler) {
        handler(text);
        return;
    }
    PrintMessage(text);
}

bool AskYesNo(const std::string& text) {
    QuestionHandler handler;
    {
        std::lock_guard<std::mutex> guard(HandlerLock);
        handler = CurrentQuestionHandler;
    }
    if (handler) {
        return handler(text);
    }
    PrintMessage(text);
    return true;
}

void SetQuestionHandler(QuestionHandler handler) {
    std::lock_guard<std::mutex> guard(HandlerLock);
    CurrentQuestionHandler = std::move(handler);
}

void SetMessageBoxHandler(MessageBoxHandler handler) {
    std::lock_guard<std::mutex> guard(HandlerLock);
    CurrentHandler = std::move(handler);
}

}  // namespace kb::platform
