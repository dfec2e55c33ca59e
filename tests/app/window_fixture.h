// A window started as the program starts it, in an installation folder of its
// own, with no adapter behind its ports: the stores are loaded, OnInitDialog
// has run and the communications thread idles. The main loop is not run, so
// no timer fires unless a test runs it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/main_window.h"
#include "support/installation.h"
#include "support/temp_folder.h"

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the window anew on the installation's present files.
    void StartWindow();
    // Ends it as the program does, every engine thread stopped.
    void StopWindow();

    // A file of that many bytes in the installation folder; its full path.
    std::string MakeFile(const std::string& name, size_t size, char fill = 'x');
    std::string MakeFolder(const std::string& name);

    std::vector<std::string> Messages() const;
    std::vector<std::string> Observed() const;
    // Rows of a list, by their text.
    static std::vector<std::string> RowTexts(int id);

    TempFolder folder_;
    std::unique_ptr<MainWindow> window_;

private:
    mutable std::mutex lock_;
    std::vector<std::string> messages_;
    std::vector<std::string> observed_;
};
