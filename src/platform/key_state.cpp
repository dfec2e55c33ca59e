#include "platform/key_state.h"

#include <mutex>

namespace {

std::mutex queryLock;
std::function<bool(Key)> currentQuery;

}  // namespace

bool KeyIsDown(Key key) {
    std::function<bool(Key)> query;
    {
        std::lock_guard<std::mutex> guard(queryLock);
        query = currentQuery;
    }
    return query ? query(key) : false;
}

void SetKeyStateQuery(std::function<bool(Key)> query) {
    std::lock_guard<std::mutex> guard(queryLock);
    currentQuery = std::move(query);
}
