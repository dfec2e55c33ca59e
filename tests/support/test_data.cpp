#include "support/test_data.h"

#include <cstring>
#include <fstream>
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

uint64_t FileDigest(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return 0;
    }
    // FNV-1a over 8-byte words, with the length folded in at the end: a
    // changed, lost or added byte anywhere changes it.
    constexpr size_t PieceBytes = 1 << 20;
    std::string piece(PieceBytes, '\0');
    uint64_t digest = 0xCBF29CE484222325;
    uint64_t length = 0;
    while (file) {
        file.read(piece.data(), static_cast<std::streamsize>(PieceBytes));
        const auto got = static_cast<size_t>(file.gcount());
        // The last word of a short piece is filled up with zeros.
        const size_t words = (got + 7) / 8;
        std::memset(piece.data() + got, 0, words * 8 - got);
        for (size_t i = 0; i < words; ++i) {
            uint64_t word = 0;
            std::memcpy(&word, piece.data() + i * 8, 8);
            digest = (digest ^ word) * 0x100000001B3;
        }
        length += got;
    }
    return (digest ^ length) * 0x100000001B3;
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
