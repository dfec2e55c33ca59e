// The figures of a transfer: the estimate, the measured rate and its
// ceiling, the progress bar, and the lines that close a transfer.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "resources/resource.h"
#include "stores/preferences.h"
#include "window_fixture.h"

namespace {

using TransferDisplayTest = WindowTest;

std::string Estimate(MainWindow& window, uint32_t bytes) {
    window.ShowBatchEstimate(bytes);
    return Controls().Text(IDC_EST_TIME);
}

TEST_F(TransferDisplayTest, TheEstimateIsNeverNothingAndRoundsTheSizeUp) {
    Controls().Select(IDC_PROTOCOL, 0);
    window_->ShowBatchEstimate(1);
    EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), "1 KB");
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:00:01");
    EXPECT_TRUE(Controls().Enabled(IDC_TOTAL_KB));
    EXPECT_TRUE(Controls().Enabled(IDC_EST_TIME));
    // One 64K channel carries 7200 bytes a second, and a whole second is added.
    EXPECT_EQ(Estimate(*window_, 7200), "Est. Time: 00:00:02");
    EXPECT_EQ(Estimate(*window_, 7199), "Est. Time: 00:00:01");
    window_->ShowBatchEstimate(1024);
    EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), "2 KB");
    window_->ShowBatchEstimate(1023);
    EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), "1 KB");
    // Hours of three digits are shown whole.
    EXPECT_EQ(Estimate(*window_, 359999u * 7200u), "Est. Time: 100:00:00");
    EXPECT_EQ(Estimate(*window_, 3599u * 7200u), "Est. Time: 01:00:00");
    window_->ShowBatchEstimate(4294967295u);
    EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), "4194304 KB");
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 165:42:04");

    // Nothing to send: the last texts stay, grey.
    window_->ShowBatchEstimate(0);
    EXPECT_FALSE(Controls().Enabled(IDC_TOTAL_KB));
    EXPECT_FALSE(Controls().Enabled(IDC_EST_TIME));
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 165:42:04");
}

TEST_F(TransferDisplayTest, TheFixedRatesFollowTheOutgoingSettings) {
    ThePreferences.AdapterModel = ModelBitSURFR;
    Controls().Select(IDC_PROTOCOL, 0);
    Controls().Check(IDC_56K, true);
    Controls().Check(IDC_2B, true);
    // 1000000 / 14500 + 1 = 69 seconds.
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:01:09");
    Controls().Check(IDC_2B, false);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:02:56");  // 5700
    Controls().Check(IDC_56K, false);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:02:19");  // 7200
    Controls().Check(IDC_2B, true);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:01:05");  // 15500

    // AIMUX takes two channels whatever 2B says.
    Controls().Select(IDC_PROTOCOL, 1);
    const std::string withTwo = Estimate(*window_, 1000000);
    Controls().Check(IDC_2B, false);
    EXPECT_EQ(Estimate(*window_, 1000000), withTwo);
    EXPECT_EQ(withTwo, "Est. Time: 00:01:05");
    // On a ZyXEL the second row is X.75, where 2B decides.
    ThePreferences.AdapterModel = ModelZyXEL;
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:02:19");
    Controls().Select(IDC_PROTOCOL, 2);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:02:19");
    Controls().Check(IDC_2B, true);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:01:05");
    // V.42 does not enter the estimate.
    Controls().Check(IDC_V42, true);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:01:05");

    // With no row chosen the estimate is V.120's: 2B decides.
    ThePreferences.AdapterModel = ModelBitSURFR;
    Controls().Select(IDC_PROTOCOL, -1);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:01:05");
    Controls().Check(IDC_2B, false);
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:02:19");

    // A measured rate takes over.
    MeasuredRate = 1000;
    EXPECT_EQ(Estimate(*window_, 1000000), "Est. Time: 00:16:41");
}

TEST_F(TransferDisplayTest, TheShownRateNeverPassesTheCeiling) {
    TheEngine.SendList[0] = FileEntry{};
    FileEntry& entry = TheEngine.SendList[0];
    RateEstimate = 16000;

    // Nothing has moved yet: nothing changes at all.
    Controls().SetText(IDC_BYTES_SEC, "untouched");
    window_->ShowThroughput(true, true);
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "untouched");
    EXPECT_EQ(MeasuredRate.load(), 0);

    entry.StartTime = 1000;
    entry.LastBlockTime = 2000;
    entry.BytesDone = 20000;
    window_->ShowThroughput(true, true);
    EXPECT_EQ(MeasuredRate.load(), 16000);
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "16000 Bytes/sec");
    EXPECT_EQ(Observed().back(), "Average throughput: 16000 Bytes/sec");

    entry.BytesDone = 12000;
    const size_t lines = Observed().size();
    window_->ShowThroughput(true, false);
    EXPECT_EQ(MeasuredRate.load(), 12000);
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "12000 Bytes/sec");
    EXPECT_EQ(Observed().size(), lines);

    // A file that finishes within its first millisecond keeps the last rate.
    entry.LastBlockTime = entry.StartTime;
    entry.BytesDone = 999999;
    window_->ShowThroughput(true, false);
    EXPECT_EQ(MeasuredRate.load(), 12000);
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "12000 Bytes/sec");

    // A huge count over a millisecond does not overflow.
    entry.LastBlockTime = entry.StartTime + 1;
    entry.BytesDone = 4000000000u;
    window_->ShowThroughput(true, false);
    EXPECT_EQ(MeasuredRate.load(), 16000);
    // The clock's wrap between the stamps does no harm.
    entry.StartTime = 0xFFFFFC18u;  // 1000 ms before the wrap
    entry.LastBlockTime = 1000;
    entry.BytesDone = 10000;
    window_->ShowThroughput(true, false);
    EXPECT_EQ(MeasuredRate.load(), 5000);

    // A ceiling of 0 shows 0 and leaves a rate the estimate can divide by.
    RateEstimate = 0;
    window_->ShowThroughput(true, false);
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "0 Bytes/sec");
    EXPECT_EQ(MeasuredRate.load(), 10);

    // The receiving side reads its own list.
    RateEstimate = 16000;
    TheEngine.ReceiveList[0] = FileEntry{};
    TheEngine.ReceiveList[0].StartTime = 10;
    TheEngine.ReceiveList[0].LastBlockTime = 2010;
    TheEngine.ReceiveList[0].BytesDone = 14000;
    window_->ShowThroughput(false, false);
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "7000 Bytes/sec");
}

TEST_F(TransferDisplayTest, ProgressIsComputedInSixtyFourBits) {
    window_->SetProgress(50u * 1024 * 1024, 60u * 1024 * 1024);
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 83);
    window_->SetProgress(4000000000u, 4200000000u);
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 95);
    window_->SetProgress(100, 100);
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 100);
    window_->SetProgress(0, 0);
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 0);
    window_->SetProgress(7, 5);
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 100);
}

TEST_F(TransferDisplayTest, TheTransferStateShowsTheBarAndShutsClearLog) {
    MeasuredRate = 500;
    Controls().SetText(IDC_BYTES_SEC, "old");
    window_->SetProgress(1, 2);
    window_->ShowTransferDisplay(true);
    EXPECT_TRUE(Controls().Shown(IDC_PROGRESS));
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 0);
    EXPECT_TRUE(Controls().Enabled(IDC_BYTES_SEC));
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "");
    EXPECT_FALSE(Controls().Enabled(IDC_CLEAR_LOG));
    EXPECT_EQ(MeasuredRate.load(), 0);

    Controls().SetText(IDC_BYTES_SEC, "7000 Bytes/sec");
    MeasuredRate = 7000;
    window_->SetProgress(1, 2);
    window_->ShowTransferDisplay(false);
    EXPECT_FALSE(Controls().Shown(IDC_PROGRESS));
    EXPECT_EQ(Controls().Position(IDC_PROGRESS), 0);
    EXPECT_FALSE(Controls().Enabled(IDC_BYTES_SEC));
    EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), "7000 Bytes/sec");
    EXPECT_TRUE(Controls().Enabled(IDC_CLEAR_LOG));
    EXPECT_EQ(MeasuredRate.load(), 0);
}

TEST_F(TransferDisplayTest, TheElapsedTimeIsLoggedOncePerSession) {
    window_->LogElapsedTime();
    const size_t lines = Observed().size();
    EXPECT_EQ(lines, 1u);  // nothing ran: no line
    TheEngine.TransferStartTime = WallSeconds() - 3725;
    window_->LogElapsedTime();
    window_->LogElapsedTime();
    const std::vector<std::string> observed = Observed();
    ASSERT_EQ(observed.size(), 2u);
    // A second may pass between the two readings of the clock.
    EXPECT_TRUE(observed[1] == "Elapsed Time: 01:02:05" || observed[1] == "Elapsed Time: 01:02:06")
        << observed[1];
    EXPECT_EQ(TheEngine.TransferStartTime.load(), 0);
}

TEST_F(TransferDisplayTest, TheIncomingListShowsTheWireSizesAndLosesItsTopRow) {
    FileEntry* list = TheEngine.ReceiveList;
    list[0] = FileEntry{};
    list[0].DisplayName.Set("Smith-A");
    list[0].EntryKind = KindFolderMarker;
    list[1] = FileEntry{};
    list[1].DisplayName.Set("report.txt");
    list[1].TotalLength = 131075;
    list[2] = FileEntry{};
    list[2].DisplayName.Set("tool.exe");
    list[2].EntryKind = KindProgramFile;
    list[2].TotalLength = 12;
    TheEngine.ReceiveCount = 3;
    window_->ListIncomingFiles();
    std::vector<ListRow> rows = Controls().Rows(IDC_FILE_LIST);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].Text, "Smith-A");
    EXPECT_EQ(rows[0].Detail, "");
    EXPECT_EQ(rows[0].Image, KindFolderMarker);
    EXPECT_EQ(rows[1].Detail, "131075");
    EXPECT_EQ(rows[2].Image, KindProgramFile);
    window_->RemoveTopFileRow();
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"report.txt", "tool.exe"}));
    TheEngine.ReceiveCount = 0;
}

}  // namespace
