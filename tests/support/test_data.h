// Data for tests: bytes that no compression or pattern makes easy, the
// lines of a log that matter to a check; and a wait for what no event tells.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kb::test {

// Bytes of a fixed pseudo-random sequence: the same seed, the same bytes.
std::string RandomBytes(size_t count, uint32_t seed);

// The lines that hold any of the texts, in their order.
std::vector<std::string> LinesHolding(const std::vector<std::string>& lines,
                                      const std::vector<std::string>& texts);

// How often part stands in text.
size_t Occurrences(const std::string& text, const std::string& part);

// Looks every 10 ms until the condition holds or the limit passes, for what
// shows only in files, sizes and counters; whether it held.
bool PollUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

}  // namespace kb::test
