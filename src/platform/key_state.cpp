#include "platform/key_state.h"

#include <mutex>

namespace kb::platform {

namespace {

std::mutex QueryLock;
std::function<bool(Key)> CurrentQuery;

}  // namespace

bool KeyIsDown(Key key) {
    std::function<bool(Key)> query;
    {
        std::lock_guard<std::mutex> guard(QueryLock);
        query = CurrentQuery;
    }
    return query ? query(key) : false;
}

void SetKeyStateQuery(std::function<bool(Key)> query) {
    std::lock_guard<std::mutex> guard(QueryLock);
    CurrentQuery = std::move(query);
}

}  // namespace kb::platform
