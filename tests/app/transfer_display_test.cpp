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

// One 64K channel carries 7200 bytes a second, and a whole second is added;
// the size is shown in whole KB, rounded up, and hours of three digits whole.
TEST_F(TransferDisplayTest, TheEstimateIsNeverNothingAndRoundsTheSizeUp) {
    struct SizeCase {
        uint32_t Bytes;
        const char* Kb;
        const char* Time;
    };
    const SizeCase cases[] = {
        {1, "1 KB", "00:00:01"},
        {1023, "1 KB", "00:00:01"},
        {1024, "2 KB", "00:00:01"},
        {7199, "8 KB", "00:00:01"},
        {7200, "8 KB", "00:00:02"},
        {3599u * 7200u, "25306 KB", "01:00:00"},
        {359999u * 7200u, "2531243 KB", "100:00:00"},
        {4294967295u, "4194304 KB", "165:42:04"},
    };
    Controls().Select(IDC_PROTOCOL, 0);
    for (const SizeCase& c : cases) {
        SCOPED_TRACE(c.Bytes);
        window_->ShowBatchEstimate(c.Bytes);
        EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), c.Kb);
        EXPECT_EQ(Controls().Text(IDC_EST_TIME), std::string("Est. Time: ") + c.Time);
        EXPECT_TRUE(Controls().Enabled(IDC_TOTAL_KB));
        EXPECT_TRUE(Controls().Enabled(IDC_EST_TIME));
    }
    // Nothing to send: the last texts stay, grey.
    window_->ShowBatchEstimate(0);
    EXPECT_FALSE(Controls().Enabled(IDC_TOTAL_KB));
    EXPECT_FALSE(Controls().Enabled(IDC_EST_TIME));
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 165:42:04");
}

// The time for 1000000 bytes: 1000000 / rate + 1 seconds, at 7200 bytes a
// second for one 64K channel, 5700 at 56K, 15500 for two channels, 14500
// for two at 56K.
TEST_F(TransferDisplayTest, TheFixedRatesFollowTheOutgoingSettings) {
    struct RateCase {
        const char* What;
        int16_t Model;
        int Row;
        bool At56k;
        bool TwoChannels;
        bool V42;
        const char* Time;
    };
    const RateCase cases[] = {
        {"V.120, 2B at 56K", ModelBitSURFR, 0, true, true, false, "00:01:09"},
        {"V.120 at 56K", ModelBitSURFR, 0, true, false, false, "00:02:56"},
        {"V.120", ModelBitSURFR, 0, false, false, false, "00:02:19"},
        {"V.120, 2B", ModelBitSURFR, 0, false, true, false, "00:01:05"},
        // AIMUX takes two channels whatever 2B says.
        {"AIMUX with 2B", ModelBitSURFR, 1, false, true, false, "00:01:05"},
        {"AIMUX without 2B", ModelBitSURFR, 1, false, false, false, "00:01:05"},
        // The rows' texts name the protocol: on a ZyXEL, X.75, where 2B decides.
        {"ZyXEL, AIMUX's row", ModelZyXEL, 1, false, false, false, "00:02:19"},
        {"ZyXEL X.75", ModelZyXEL, 2, false, false, false, "00:02:19"},
        {"ZyXEL X.75, 2B", ModelZyXEL, 2, false, true, false, "00:01:05"},
        {"V.42 does not enter", ModelZyXEL, 2, false, true, true, "00:01:05"},
        // With no row chosen the estimate is V.120's.
        {"no row, 2B", ModelBitSURFR, -1, false, true, true, "00:01:05"},
        {"no row", ModelBitSURFR, -1, false, false, false, "00:02:19"},
    };
    for (const RateCase& c : cases) {
        SCOPED_TRACE(c.What);
        ThePreferences.AdapterModel = c.Model;
        Controls().Select(IDC_PROTOCOL, c.Row);
        Controls().Check(IDC_56K, c.At56k);
        Controls().Check(IDC_2B, c.TwoChannels);
        Controls().Check(IDC_V42, c.V42);
        window_->ShowBatchEstimate(1000000);
        EXPECT_EQ(Controls().Text(IDC_EST_TIME), std::string("Est. Time: ") + c.Time);
    }
    // A measured rate takes over.
    MeasuredRate = 1000;
    window_->ShowBatchEstimate(1000000);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:16:41");
}

// The rate of the file on top of a list, from its stamps, never above the
// ceiling; the steps run in order, each on what the one before left.
TEST_F(TransferDisplayTest, TheShownRateNeverPassesTheCeiling) {
    struct RateStep {
        const char* What;
        bool Sending;
        uint32_t StartTime;
        uint32_t LastBlockTime;
        uint32_t BytesDone;
        int32_t Ceiling;
        bool Log;
        int32_t Measured;
        const char* Shown;
    };
    const RateStep steps[] = {
        {"nothing has moved yet: nothing changes", true, 0, 0, 0, 16000, true, 0, "untouched"},
        {"at the ceiling, logged", true, 1000, 2000, 20000, 16000, true, 16000, "16000 Bytes/sec"},
        {"below it", true, 1000, 2000, 12000, 16000, false, 12000, "12000 Bytes/sec"},
        {"within the first millisecond: the last rate stays", true, 1000, 1000, 999999, 16000,
         false, 12000, "12000 Bytes/sec"},
        {"a huge count over a millisecond does not overflow", true, 1000, 1001, 4000000000u, 16000,
         false, 16000, "16000 Bytes/sec"},
        {"the clock wraps between the stamps", true, 0xFFFFFC18u, 1000, 10000, 16000, false, 5000,
         "5000 Bytes/sec"},
        {"a ceiling of 0 leaves a rate the estimate can divide by", true, 0xFFFFFC18u, 1000, 10000,
         0, false, 10, "0 Bytes/sec"},
        {"the receiving side reads its own list", false, 10, 2010, 14000, 16000, false, 7000,
         "7000 Bytes/sec"},
    };
    TheEngine.SendList[0] = FileEntry{};
    TheEngine.ReceiveList[0] = FileEntry{};
    Controls().SetText(IDC_BYTES_SEC, "untouched");
    for (const RateStep& step : steps) {
        SCOPED_TRACE(step.What);
        FileEntry& entry = step.Sending ? TheEngine.SendList[0] : TheEngine.ReceiveList[0];
        entry.StartTime = step.StartTime;
        entry.LastBlockTime = step.LastBlockTime;
        entry.BytesDone = step.BytesDone;
        RateEstimate = step.Ceiling;
        const size_t lines = Observed().size();
        window_->ShowThroughput(step.Sending, step.Log);
        EXPECT_EQ(MeasuredRate.load(), step.Measured);
        EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), step.Shown);
        const bool logged = step.Log && step.StartTime != 0;
        ASSERT_EQ(Observed().size(), lines + (logged ? 1 : 0));
        if (logged) {
            EXPECT_EQ(Observed().back(), std::string("Average throughput: ") + step.Shown);
        }
    }
}

TEST_F(TransferDisplayTest, ProgressIsComputedInSixtyFourBitsAndShownOnlyDuringATransfer) {
    const uint32_t progress[][3] = {{50u << 20, 60u << 20, 83},
                                    {4000000000u, 4200000000u, 95},
                                    {100, 100, 100},
                                    {0, 0, 0},
                                    {7, 5, 100}};
    for (const auto& [done, total, position] : progress) {
        window_->SetProgress(done, total);
        EXPECT_EQ(Controls().Position(IDC_PROGRESS), static_cast<int>(position)) << done;
    }

    // The transfer state shows the bar afresh and shuts Clear Log; its end
    // hides the bar and leaves the last rate in grey.
    for (const bool transfer : {true, false}) {
        SCOPED_TRACE(transfer);
        MeasuredRate = 7000;
        Controls().SetText(IDC_BYTES_SEC, "7000 Bytes/sec");
        window_->SetProgress(1, 2);
        window_->ShowTransferDisplay(transfer);
        EXPECT_EQ(Controls().Shown(IDC_PROGRESS), transfer);
        EXPECT_EQ(Controls().Position(IDC_PROGRESS), 0);
        EXPECT_EQ(Controls().Enabled(IDC_BYTES_SEC), transfer);
        EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), transfer ? "" : "7000 Bytes/sec");
        EXPECT_EQ(Controls().Enabled(IDC_CLEAR_LOG), !transfer);
        EXPECT_EQ(MeasuredRate.load(), 0);
    }
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
