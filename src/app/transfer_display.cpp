#include "app/transfer_display.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/transfer_engine.h"
#include "engine/wire.h"
#include "line/adapter_family.h"
#include "line/line.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "resources/resource.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::engine;
using namespace kb::platform;
using namespace kb::resources;

namespace {

// Bytes per second expected before anything has been measured.
constexpr uint32_t Rate64kOneChannel = 7200;
constexpr uint32_t Rate64kTwoChannels = 15500;
constexpr uint32_t Rate56kOneChannel = 5700;
constexpr uint32_t Rate56kTwoChannels = 14500;

// Hours, minutes and seconds joined by ":", each of at least two digits;
// hours of three digits and more are shown whole.
std::string ClockText(uint64_t seconds) {
    char text[48];
    std::snprintf(text, sizeof text, "%02llu:%02llu:%02llu",
                  static_cast<unsigned long long>(seconds / 3600),
                  static_cast<unsigned long long>((seconds % 3600) / 60),
                  static_cast<unsigned long long>(seconds % 60));
    return text;
}

constexpr int DisplayControls[] = {IDC_TOTAL_KB, IDC_EST_TIME, IDC_BYTES_SEC, IDC_PROGRESS};

}  // namespace

std::span<const int> TransferDisplay::ControlIds() const {
    return DisplayControls;
}

uint32_t TransferDisplay::FixedRate() const {
    const OutgoingLine line = window_.Correspondents().EstimatedLine();
    if (line.At56k) {
        return line.TwoChannels ? Rate56kTwoChannels : Rate56kOneChannel;
    }
    return line.TwoChannels ? Rate64kTwoChannels : Rate64kOneChannel;
}

void TransferDisplay::ShowBatchEstimate(uint32_t bytes) {
    ControlModel& controls = Controls();
    if (bytes == 0) {
        // Figures of a list that has gone would be read as the list's.
        controls.SetText(IDC_TOTAL_KB, "");
        controls.SetText(IDC_EST_TIME, "");
        controls.Enable(IDC_TOTAL_KB, false);
        controls.Enable(IDC_EST_TIME, false);
        return;
    }
    controls.Enable(IDC_TOTAL_KB, true);
    controls.Enable(IDC_EST_TIME, true);
    // Rounded up by a whole kilobyte even for an exact multiple.
    controls.SetText(IDC_TOTAL_KB, std::to_string((bytes >> 10) + 1) + " KB");
    const int32_t measured = measuredRate_.load();
    const uint32_t rate = measured > 0 ? static_cast<uint32_t>(measured) : FixedRate();
    // Never an estimate of nothing.
    const uint64_t seconds = uint64_t{bytes} / rate + 1;
    controls.SetText(IDC_EST_TIME, "Est. Time: " + ClockText(seconds));
}

void TransferDisplay::RecomputeSendTotal() {
    ShowBatchEstimate(window_.Engine().SendList.RecomputeTotal());
}

void TransferDisplay::ShowTransferDisplay(bool starting) {
    ControlModel& controls = Controls();
    controls.SetPosition(IDC_PROGRESS, 0);
    if (starting) {
        controls.Show(IDC_PROGRESS, true);
        controls.SetText(IDC_BYTES_SEC, "");
        controls.Enable(IDC_BYTES_SEC, true);
        measuredRate_.store(0);
        window_.Log().AllowClearing(false);
    } else {
        controls.Show(IDC_PROGRESS, false);
        // Its last text stays, grey.
        controls.Enable(IDC_BYTES_SEC, false);
        window_.Log().AllowClearing(true);
        measuredRate_.store(0);
    }
}

void TransferDisplay::SetProgress(uint32_t done, uint32_t total) {
    // In 64 bits, so that files past 42 MB do not overflow the product. An
    // empty total has nothing to show, and the bar never passes its end.
    const uint64_t position = total == 0 ? 0 : uint64_t{done} * 100 / total;
    Controls().SetPosition(IDC_PROGRESS, static_cast<int>(std::min<uint64_t>(position, 100)));
}

void TransferDisplay::ShowThroughput(bool sending, bool log) {
    if (sending ? !window_.Engine().SendList.Allocated()
                : window_.Engine().ReceiveList == nullptr) {
        return;
    }
    const FileEntry& entry =
        sending ? window_.Engine().SendList[0] : window_.Engine().ReceiveList[0];
    const uint32_t start = entry.StartTime;
    if (start == 0) {
        return;  // nothing has moved yet
    }
    const uint32_t elapsed = entry.LastBlockTime - start;
    // A rate from bytes and milliseconds, in 64 bits; the ceiling below
    // brings it back into range.
    int64_t rate = measuredRate_.load();
    if (elapsed != 0) {
        rate = static_cast<int64_t>(uint64_t{entry.BytesDone} * 1000 / elapsed);
    }
    const int64_t ceiling = window_.AdapterLine().RateEstimate.load();
    if (rate > ceiling || rate == 0) {
        rate = ceiling;
    }
    std::string text = std::to_string(rate);
    measuredRate_.store(static_cast<int32_t>(rate));
    if (text[0] == '0') {
        // Only a ceiling of 0 gets here: the estimate must not divide by it.
        measuredRate_.store(10);
    }
    text += " Bytes/sec";
    if (log) {
        stores_.Log.Add("Average throughput: " + text);
    }
    Controls().SetText(IDC_BYTES_SEC, text);
}

void TransferDisplay::LogElapsedTime() {
    // Taken and cleared in one step: a second call in the same session, from
    // whichever thread, logs nothing.
    const std::time_t started = TakeTransferStart(window_.Engine());
    if (started == 0) {
        return;
    }
    const std::time_t now = WallSeconds();
    const uint64_t seconds = now > started ? static_cast<uint64_t>(now - started) : 0;
    stores_.Log.Add("Elapsed Time: " + ClockText(seconds));
}

}  // namespace kb::app
