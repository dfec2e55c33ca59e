#include "support/test_data.h"

#include <random>

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
