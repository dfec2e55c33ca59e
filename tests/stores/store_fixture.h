// What the stores' tests share: an installation in a fresh folder, and the
// messages a store shows.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/message_box.h"
#include "stores/paths.h"
#include "support/temp_folder.h"

class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        BuildPaths(folder_.Path());
        SetMessageBoxHandler([this](const std::string& text) { messages_.push_back(text); });
    }
    void TearDown() override { SetMessageBoxHandler(nullptr); }

    TempFolder folder_;
    std::vector<std::string> messages_;
};

// Text in a field of that width, zeros behind it, as a file holds it.
inline std::string Padded(const std::string& text, size_t width) {
    return text + std::string(width - text.size(), '\0');
}
