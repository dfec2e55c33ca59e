#include "platform/message_box.h"

#include <cstdio>
#include <mutex>

namespace kb::platform {

namespace {

std::mutex HandlerLock;
MessageBoxHandler CurrentHandler;
QuestionHandler CurrentQuestionHandler;

void PrintText(const std::string& text) {
    std::string shown = text;
    for (char& c : shown) {
        if (c == '\r') {
            c = '\n';
        }
    }
    std::fprintf(stderr, "%s\n", shown.c_str());
}

}  // namespace

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
    PrintText(text);
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
    PrintText(text);
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
