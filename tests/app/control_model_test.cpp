#include "app/control_model.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "window_fixture.h"

namespace kb::test {

using namespace kb::app;

namespace {

ControlState Control(int id, ControlKind kind = ControlKind::ListBox) {
    ControlState state;
    state.Id = id;
    state.Kind = kind;
    return state;
}

}  // namespace

// Two threads add rows while a third changes a text, and the listener reads
// the model as a front end drawing a change would: it sees the rows in the
// order the list holds them, every announced row is in the model, and no
// writer ever waits for a listener that waits for it.
TEST(ControlModel, ListenersThatReadTheModelSeeItsOrderAndNeverDeadlockWithWriters) {
    ControlModel model;
    model.Create(Control(7));
    model.Create(Control(8, ControlKind::Edit));
    std::mutex seenLock;
    std::vector<std::string> seen;
    std::atomic<int> announced{0};
    std::atomic<int> readsSawRow{0};
    model.AddListener([&](const ControlEvent& event) {
        if (event.Change == ControlChange::RowAdded) {
            std::lock_guard<std::mutex> guard(seenLock);
            seen.push_back(event.Text);
            if (model.RowCount(7) > event.Row) {
                readsSawRow.fetch_add(1);
            }
        }
        announced.fetch_add(1);
    });
    auto rows = [&](char name) {
        for (int i = 0; i < 2000; ++i) {
            model.AddRow(7, {std::string(1, name) + std::to_string(i), "", 0});
        }
    };
    std::thread a(rows, 'a');
    std::thread b([&] {
        for (int i = 0; i < 2000; ++i) {
            model.SetText(8, std::to_string(i));
        }
    });
    std::thread c(rows, 'c');
    a.join();
    b.join();
    c.join();
    const std::vector<std::string> texts = RowTexts(7, model);
    ASSERT_EQ(texts.size(), 4000u);
    EXPECT_EQ(seen, texts);
    EXPECT_EQ(announced.load(), 6000);
    EXPECT_EQ(readsSawRow.load(), 4000) << "an announced row is in the model";
}

TEST(ControlModel, ListenerMayChangeTheModelAndRemovalWaitsForDelivery) {
    ControlModel model;
    model.Create(Control(1, ControlKind::Edit));
    model.Create(Control(2));
    // A listener that reacts to a text change by adding a row, as a window's
    // handler of an edit notification would.
    const int handle = model.AddListener([&](const ControlEvent& event) {
        if (event.Id == 1 && event.Change == ControlChange::Text) {
            model.AddRow(2, {event.Text, "", 0});
        }
    });
    model.SetText(1, "typed");
    EXPECT_EQ(model.RowText(2, 0), "typed");
    model.SetText(1, "typed");  // no change, no announcement
    EXPECT_EQ(model.RowCount(2), 1);

    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    const int slow = model.AddListener([&](const ControlEvent& event) {
        if (event.Id == 2 && event.Change == ControlChange::RowsCleared) {
            inside.store(true);
            while (!release.load()) {
                std::this_thread::yield();
            }
            inside.store(false);
        }
    });
    std::thread clearer([&] { model.ClearRows(2); });
    while (!inside.load()) {
        std::this_thread::yield();
    }
    std::atomic<bool> removed{false};
    std::thread remover([&] {
        model.RemoveListener(slow);
        removed.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(removed.load()) << "removal must wait for the delivery under way";
    release.store(true);
    clearer.join();
    remover.join();
    EXPECT_FALSE(inside.load());
    model.RemoveListener(handle);
}

TEST(ControlModel, SelectionFollowsRowsThatComeAndGoAndUnknownControlsAreHarmless) {
    ControlModel model;
    model.Create(Control(3));
    for (const char* text : {"a", "b", "c", "d"}) {
        model.AddRow(3, {text, "", 0});
    }
    model.Select(3, 2);  // "c"
    model.DeleteRow(3, 0);
    EXPECT_EQ(model.Selection(3), 1);
    EXPECT_EQ(model.RowText(3, 1), "c");
    model.InsertRow(3, 0, {"z", "", 0});
    EXPECT_EQ(model.Selection(3), 2);
    model.DeleteRow(3, 2);
    EXPECT_EQ(model.Selection(3), -1) << "the selected row went";
    model.Select(3, 7);
    EXPECT_EQ(model.Selection(3), -1) << "a row that does not exist selects none";
    EXPECT_TRUE(model.DeleteRowWithText(3, "d"));
    EXPECT_FALSE(model.DeleteRowWithText(3, "d"));
    model.DeleteFirstRows(3, 5);
    EXPECT_EQ(model.RowCount(3), 0);
    EXPECT_EQ(model.RowText(3, 0), "");

    model.SetText(99, "x");
    model.AddRow(99, {"x", "", 0});
    model.Select(99, 0);
    EXPECT_FALSE(model.Exists(99));
    EXPECT_EQ(model.Text(99), "");
    EXPECT_EQ(model.Selection(99), -1);
    EXPECT_FALSE(model.Enabled(99));
}

}  // namespace kb::test
