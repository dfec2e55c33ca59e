// The main loop's order of posted work and its timers after a long hold.
// That a timer repeats, and stops when killed in its own handler, the
// stations' hot-folder test (two looks) and the program's start test (one
// search) see.
#include "platform/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace kb::test {

using namespace kb::platform;

TEST(EventLoop, PostedWorkRunsInOrderOnTheLoopThreadAndAHoldDelaysTimersWithoutABurst) {
    EventLoop loop;
    std::vector<int> order;
    std::vector<int> expected;
    std::atomic<bool> onLoop{true};
    std::thread runner([&] { loop.Run(); });
    for (int i = 0; i < 100; ++i) {
        expected.push_back(i);
        loop.Post([&, i] {
            order.push_back(i);
            onLoop.store(onLoop.load() && loop.OnLoopThread());
        });
    }
    loop.Post([&] { loop.Quit(); });
    runner.join();
    EXPECT_EQ(order, expected);
    EXPECT_TRUE(onLoop.load());
    EXPECT_FALSE(loop.OnLoopThread());

    // Run again, here: work that holds the loop delays its timers, without a
    // burst after.
    std::atomic<int> ticks{0};
    std::atomic<int> afterHold{-1};
    loop.SetTimerHandler([&](int id) {
        if (id == 6) {
            loop.KillTimer(6);
            afterHold.store(ticks.load());
            loop.Quit();
        } else {
            ticks.fetch_add(1);
        }
    });
    loop.SetTimer(5, 10);
    // Hold the loop for 200 ms, as a search for the adapter would. Timer 5 is
    // then long overdue: it must go on ticking every 10 ms, not make up the
    // twenty ticks it missed in a burst.
    loop.Post([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ticks.store(0);
        loop.SetTimer(6, 25);
    });
    loop.Run();
    EXPECT_GE(afterHold.load(), 1);
    EXPECT_LE(afterHold.load(), 4);
}

}  // namespace kb::test
