// The directory panel: records made, changed, shown and removed through the
// window, with the file and the pick-up folders behind them.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "line/adapter.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "stores/directory.h"
#include "stores/paths.h"
#include "stores/preferences.h"
#include "window_fixture.h"

namespace {

class DirectoryPanelTest : public WindowTest {
protected:
    // Types a record into the form and presses Add.
    void AddRecord(const std::string& name, const std::string& number) {
        Type(IDC_NAME, name);
        Type(IDC_NUMBER, number);
        Press(IDC_ADD);
    }
    int16_t StoredCount() {
        const std::string bytes = ReadWholeFile(DirectoryPath);
        return static_cast<int16_t>(static_cast<uint8_t>(bytes.at(0)) |
                                    (static_cast<uint8_t>(bytes.at(1)) << 8));
    }
};

TEST_F(DirectoryPanelTest, AddedRecordsStandInByteOrderAndTheNewOneIsOnShow) {
    EXPECT_FALSE(Controls().Enabled(IDC_ADD));
    Type(IDC_NAME, "alpha");
    EXPECT_FALSE(Controls().Enabled(IDC_ADD));
    Type(IDC_NUMBER, "555");
    EXPECT_TRUE(Controls().Enabled(IDC_ADD));
    Controls().Check(IDC_56K, true);
    Controls().Select(IDC_CARRIER, 2);
    Press(IDC_ADD);
    AddRecord("Zeta", "666");

    EXPECT_EQ(RowTexts(IDC_DIRECTORY_LIST), (std::vector<std::string>{"Zeta", "alpha"}));
    EXPECT_EQ(Controls().Selection(IDC_DIRECTORY_LIST), 0);
    EXPECT_EQ(window_->CurrentEntry(), 0);
    EXPECT_EQ(StoredCount(), 2);
    EXPECT_EQ(FieldText(Directory[1].FirmName), "alpha");
    EXPECT_EQ(Directory[1].Use56K, 1);
    EXPECT_EQ(Directory[1].Carrier, 2);
    EXPECT_EQ(Directory[1].HasPickUp, 0);
    // A new record shows the button that makes its pick-up folder.
    EXPECT_TRUE(Controls().Shown(IDC_MAKE_FOLDER));
    EXPECT_FALSE(Controls().Shown(IDC_HOT_SEND));

    // Choosing a record shows it and opens Change, Delete and New.
    Choose(IDC_DIRECTORY_LIST, 1);
    EXPECT_EQ(window_->CurrentEntry(), 1);
    EXPECT_EQ(Controls().Text(IDC_NAME), "alpha");
    EXPECT_EQ(Controls().Text(IDC_NUMBER), "555");
    EXPECT_TRUE(Controls().Checked(IDC_56K));
    EXPECT_EQ(Controls().Selection(IDC_CARRIER), 2);
    for (int id : {IDC_ADD, IDC_CHANGE, IDC_DELETE, IDC_NEW}) {
        EXPECT_TRUE(Controls().Enabled(id)) << ControlName(id);
    }
    // The contact form changes a record and never adds or deletes one.
    Choose(IDC_FORM, 1);
    EXPECT_FALSE(Controls().Enabled(IDC_DELETE));
    Type(IDC_NAME, "A contact");
    Type(IDC_NUMBER, "1");
    EXPECT_FALSE(Controls().Enabled(IDC_ADD));
    Choose(IDC_FORM, 0);
    // New empties the form.
    Press(IDC_NEW);
    EXPECT_EQ(Controls().Text(IDC_NAME), "");
    EXPECT_EQ(window_->CurrentEntry(), -1);
    EXPECT_EQ(Controls().Selection(IDC_DIRECTORY_LIST), -1);
    for (int id : {IDC_ADD, IDC_CHANGE, IDC_DELETE, IDC_NEW}) {
        EXPECT_FALSE(Controls().Enabled(id)) << ControlName(id);
    }
}

TEST_F(DirectoryPanelTest, TheFolderButtonTellsTheStateOfThePickUpFolder) {
    AddRecord("Smith", "555");
    Directory[0].HasPickUp = 1;
    Directory[0].HotSend = 1;
    ASSERT_TRUE(CreateFolder(PickUpPath + "/Smith"));
    window_->ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_HOT_EMPTY));
    EXPECT_TRUE(Controls().Checked(IDC_HOT_SEND));
    EXPECT_FALSE(Controls().Checked(IDC_HOT_RETRIEVE));
    WriteWholeFile(PickUpPath + "/Smith/waiting", "data");
    window_->ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_HOT_FILLED));
    EXPECT_FALSE(Controls().Shown(IDC_HOT_EMPTY));
    Directory[0].HotSend = 0;
    window_->ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_FOLDER_FILLED));

    // A folder removed by hand: the record has none from then on.
    ASSERT_TRUE(DeleteFileAt(PickUpPath + "/Smith/waiting"));
    ASSERT_TRUE(RemoveFolder(PickUpPath + "/Smith/Sent Files"));
    ASSERT_TRUE(RemoveFolder(PickUpPath + "/Smith"));
    window_->ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_MAKE_FOLDER));
    EXPECT_FALSE(Controls().Shown(IDC_HOT_SEND));
    EXPECT_EQ(Directory[0].HasPickUp, 0);
    Choose(IDC_DIRECTORY_LIST, 0);
    Press(IDC_DELETE);
    EXPECT_EQ(DirectoryCount.load(), 0);
    EXPECT_EQ(StoredCount(), 0);
    EXPECT_EQ(Controls().RowCount(IDC_DIRECTORY_LIST), 0);
}

}  // namespace
