#include "platform/message_box.h"

#include <cstdio>
#include <mutex>

namespace kb::platform {

namespace {

std::mutex HandlerLock;
MessageBoxHandler CurrentHandler;

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
    std::string shown = text;
    for (char& c : shown) {
        if (c == '\r') {
            c = '\n';
        }
    }
    std::fprintf(stderr, "%s\n", shown.c_str());
}

void SetMessageBoxHandler(MessageBoxHandler handler) {
    std::lock_guard<std::mutex> guard(HandlerLock);
    CurrentHandler = std::move(handler);
}

}  // namespace kb::platform
