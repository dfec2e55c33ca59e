#include "support/test_data.h"

#include <random>
#include <thread>

namespace kb::test {

std::string RandomBytes(size_t count, uint32_t seed) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(generator() & 0xFF);
    }
    return bytes;
}

std::vector<std::string> LinesHolding(const std::vector<std::string>& lines,
                                      const std::vector<std::string>& texts) {
    std::vector<std::string> kept;
    for (const std::string& line : lines) {
        for (const std::string& text : texts) {
            if (line.find(text) != std::string::npos) {
                kept.push_back(line);
                break;
            }
        }
    }
    return kept;
}

size_t Occurrences(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

bool PollUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace kb::test
