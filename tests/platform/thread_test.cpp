#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/test_data.h"

namespace kb::test {

using namespace kb::platform;

namespace {

constexpr int Rounds = 20000;

struct PingPong {
    ThreadHandle Self;
    ThreadHandle Other;
    std::atomic<int> Turns{0};
};

// Parks right after handing the turn over: exactly the window in which a wake
// could be lost if an early wake were not kept.
unsigned Player(void* parameter) {
    auto* game = static_cast<PingPong*>(parameter);
    for (int i = 0; i < Rounds; ++i) {
        game->Turns.fetch_add(1);
        WakeThread(game->Other);
        ParkThread(game->Self);
    }
    WakeThread(game->Other);
    return 0;
}

unsigned CountOnce(void* parameter) {
    static_cast<std::atomic<int>*>(parameter)->fetch_add(1);
    return 0;
}

struct Parker {
    ThreadHandle Self;
    std::atomic<int> Passes{0};
};

unsigned ParkTwice(void* parameter) {
    auto* parker = static_cast<Parker*>(parameter);
    // Give the test time to wake it several times before it first parks.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ParkThread(parker->Self);
    parker->Passes.fetch_add(1);
    ParkThread(parker->Self);
    parker->Passes.fetch_add(1);
    return 0;
}

}  // namespace

TEST(Thread, WakesBeforeParksAreNeverLost) {
    PingPong a;
    PingPong b;
    // Both start suspended so that each handle is known before either runs.
    a.Self = StartThread(Player, &a, ThreadPriority::Normal, true);
    b.Self = StartThread(Player, &b, ThreadPriority::Normal, true);
    ASSERT_TRUE(a.Self && b.Self);
    a.Other = b.Self;
    b.Other = a.Self;
    WakeThread(a.Self);
    WakeThread(b.Self);
    JoinThread(a.Self);
    JoinThread(b.Self);
    EXPECT_EQ(a.Turns.load() + b.Turns.load(), 2 * Rounds);
}

TEST(Thread, ASuspendedThreadRunsOnlyAfterItsWakeAndSeveralWakesBeforeAParkCountAsOne) {
    std::atomic<int> runs{0};
    ThreadHandle thread = StartThread(CountOnce, &runs, ThreadPriority::Highest, true);
    ASSERT_TRUE(thread);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(runs.load(), 0);
    EXPECT_FALSE(ThreadFinished(thread));
    WakeThread(thread);
    JoinThread(thread);
    EXPECT_EQ(runs.load(), 1);
    EXPECT_TRUE(ThreadFinished(thread));

    // A record may outlive its last other owner: the thread still runs.
    thread = StartThread(CountOnce, &runs, ThreadPriority::Normal, false);
    ASSERT_TRUE(thread);
    thread = nullptr;
    EXPECT_TRUE(PollUntil([&] { return runs.load() == 2; }, std::chrono::seconds(5)));

    // Several wakes before a park count as one.
    Parker parker;
    parker.Self = StartThread(ParkTwice, &parker, ThreadPriority::Normal, true);
    ASSERT_TRUE(parker.Self);
    WakeThread(parker.Self);  // starts it
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // Three wakes while it runs, before its first park, leave one kept wake.
    WakeThread(parker.Self);
    WakeThread(parker.Self);
    WakeThread(parker.Self);
    EXPECT_TRUE(PollUntil([&] { return parker.Passes.load() >= 1; }, std::chrono::seconds(5)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(parker.Passes.load(), 1);  // parked the second time, not passed through
    WakeThread(parker.Self);
    JoinThread(parker.Self);
    EXPECT_EQ(parker.Passes.load(), 2);
}

TEST(Thread, AThreadKeptOnAProcessorRunsThere) {
    const int processor = CurrentProcessor();
    ASSERT_NE(processor, AnyProcessor);
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> ranOn{AnyProcessor};
        ThreadHandle thread = StartThread(
            [](void* ranOn) {
                static_cast<std::atomic<int>*>(ranOn)->store(CurrentProcessor());
                return 0u;
            },
            &ranOn, ThreadPriority::Normal, false, processor);
        ASSERT_TRUE(thread);
        JoinThread(thread);
        EXPECT_EQ(ranOn.load(), processor);
    }
}

}  // namespace kb::test
