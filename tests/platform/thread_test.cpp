#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

struct PingPong {
    ThreadHandle self;
    ThreadHandle other;
    std::atomic<int> turns{0};
    int rounds = 0;
};

// Parks right after handing the turn over: exactly the window in which a wake
// could be lost if an early wake were not kept.
unsigned Player(void* parameter) {
    auto* game = static_cast<PingPong*>(parameter);
    for (int i = 0; i < game->rounds; ++i) {
        game->turns.fetch_add(1);
        WakeThread(game->other);
        ParkThread(game->self);
    }
    WakeThread(game->other);
    return 0;
}

unsigned CountOnce(void* parameter) {
    static_cast<std::atomic<int>*>(parameter)->fetch_add(1);
    return 0;
}

struct Parker {
    ThreadHandle self;
    std::atomic<int> passes{0};
};

unsigned ParkTwice(void* parameter) {
    auto* parker = static_cast<Parker*>(parameter);
    // Give the test time to wake it several times before it first parks.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ParkThread(parker->self);
    parker->passes.fetch_add(1);
    ParkThread(parker->self);
    parker->passes.fetch_add(1);
    return 0;
}

}  // namespace

TEST(Thread, WakesBeforeParksAreNeverLost) {
    PingPong a;
    PingPong b;
    a.rounds = b.rounds = 20000;
    // Both start suspended so that each handle is known before either runs.
    a.self = StartThread(Player, &a, ThreadPriority::Normal, true);
    b.self = StartThread(Player, &b, ThreadPriority::Normal, true);
    ASSERT_TRUE(a.self && b.self);
    a.other = b.self;
    b.other = a.self;
    WakeThread(a.self);
    WakeThread(b.self);
    JoinThread(a.self);
    JoinThread(b.self);
    EXPECT_EQ(a.turns.load() + b.turns.load(), 40000);
}

TEST(Thread, SuspendedThreadRunsOnlyAfterItsWake) {
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
}

TEST(Thread, SeveralWakesBeforeAParkCountAsOne) {
    Parker parker;
    parker.self = StartThread(ParkTwice, &parker, ThreadPriority::Normal, true);
    ASSERT_TRUE(parker.self);
    WakeThread(parker.self);  // starts it
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // Three wakes while it runs, before its first park, leave one kept wake.
    WakeThread(parker.self);
    WakeThread(parker.self);
    WakeThread(parker.self);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (parker.passes.load() < 1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(parker.passes.load(), 1);  // parked the second time, not passed through
    WakeThread(parker.self);
    JoinThread(parker.self);
    EXPECT_EQ(parker.passes.load(), 2);
}

TEST(Thread, ARecordMayOutliveItsLastOtherOwner) {
    std::atomic<int> runs{0};
    {
        ThreadHandle thread = StartThread(CountOnce, &runs, ThreadPriority::Normal, false);
        ASSERT_TRUE(thread);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (runs.load() == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(runs.load(), 1);
}

namespace {

unsigned RecordProcessor(void* parameter) {
    static_cast<std::atomic<int>*>(parameter)->store(CurrentProcessor());
    return 0;
}

}  // namespace

TEST(Thread, AThreadKeptOnAProcessorRunsThere) {
    const int processor = CurrentProcessor();
    ASSERT_NE(processor, AnyProcessor);
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> ranOn{AnyProcessor};
        ThreadHandle thread =
            StartThread(RecordProcessor, &ranOn, ThreadPriority::Normal, false, processor);
        ASSERT_TRUE(thread);
        JoinThread(thread);
        EXPECT_EQ(ranOn.load(), processor);
    }
}
