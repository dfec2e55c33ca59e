// What the stores' tests share: an installation in a fresh folder, and the
// messages a store shows.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stores/installation.h"
#include "support/captured_output.h"
#include "support/temp_folder.h"

namespace kb::test {

using stores::Installation;

class StoreTest : public ::testing::Test {
protected:
    std::vector<std::string> Messages() const { return output_.Messages(); }

    TempFolder folder_;
    Installation stores_{folder_.Path()};
    CapturedOutput output_;
};

// Text in a field of that width, zeros behind it, as a file holds it.
inline std::string Padded(const std::string& text, size_t width) {
    return text + std::string(width - text.size(), '\0');
}

}  // namespace kb::test
