// A hook into the admission of a list, for tests and the fuzz targets only:
// nothing of the program includes this header but receiving_session.cpp,
// which implements it (the style check refuses any other).
#pragma once

#include <cstdint>
#include <functional>

namespace kb::engine {

struct TransferEngine;

// The free bytes that admission compares with a list's total; by default
// those of the installation's volume. A test puts in a figure of its own; an
// empty function restores the volume's.
using FreeSpaceQuery = std::function<uint64_t()>;
void SetFreeSpaceQuery(TransferEngine& engine, FreeSpaceQuery query);

}  // namespace kb::engine
