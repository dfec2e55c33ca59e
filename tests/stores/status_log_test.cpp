#include "stores/status_log.h"

#include <chrono>
#include <future>
#include <thread>

#include "platform/files.h"
#include "store_fixture.h"
#include "support/process_state.h"

namespace kb::test {

using namespace kb::stores;

namespace {

std::vector<std::string> Numbered(int from, int count) {
    std::vector<std::string> lines;
    for (int i = from; i < from + count; ++i) {
        lines.push_back("line " + std::to_string(i));
    }
    return lines;
}

using StatusLogFileTest = StoreTest;

TEST_F(StatusLogFileTest, NoLineFakesTheEndMarkAStaleTailAndWhatPasses28000BytesAreLeftOut) {
    // A new installation gets a log of one byte, the end mark.
    ASSERT_TRUE(stores_.Log.Load());
    EXPECT_EQ(ReadWholeFile(stores_.Paths.LogPath), std::string(1, '\0'));
    EXPECT_TRUE(stores_.Log.StoredLines().empty());
    // An empty line would be the end mark, and a NUL inside a line would end
    // it early; neither may hide the lines after it.
    ASSERT_TRUE(stores_.Log.Save({"first", "", std::string("sec\0ond", 7), "third"}));
    // How a saved file loads, the 700 lines below show.
    EXPECT_EQ(ReadWholeFile(stores_.Paths.LogPath), std::string("first\0sec\0third\0\0", 17));

    // A stored log of 700 lines comes back whole; the next line trims it.
    ASSERT_TRUE(stores_.Log.Save(Numbered(0, 700)));
    const std::string before = ReadWholeFile(stores_.Paths.LogPath);
    stores_.Log.Free();
    ASSERT_TRUE(stores_.Log.Load());
    std::vector<std::string> lines = stores_.Log.StoredLines();
    ASSERT_EQ(lines, Numbered(0, 700));
    EXPECT_EQ(AppendLogLine(lines, "Starting Kestrelbound"), 300u);
    ASSERT_EQ(lines.size(), 401u);
    EXPECT_EQ(lines.front(), "line 300");
    EXPECT_EQ(lines.back(), "Starting Kestrelbound");
    // Trimming in batches, 600 lines and then 301, is the window's log test's.

    // The user cleared the log; at exit only the Stopping line is there.
    const std::string stopping = "Stopping Kestrelbound Tue Nov 18 21:00:00 1997";
    ASSERT_TRUE(stores_.Log.Save({stopping}));

    // The file keeps its length: the tail behind the new end mark is the old.
    const std::string after = ReadWholeFile(stores_.Paths.LogPath);
    EXPECT_EQ(after.substr(0, stopping.size() + 2), stopping + std::string(2, '\0'));
    EXPECT_EQ(after.substr(stopping.size() + 2), before.substr(stopping.size() + 2));

    stores_.Log.Free();
    ASSERT_TRUE(stores_.Log.Load());
    EXPECT_EQ(stores_.Log.StoredLines(), std::vector<std::string>{stopping});

    // Only the first 28000 bytes are read, and a line cut there is left out.
    // Lines of 99 characters and their NUL fill the first 27900 bytes; the
    // next line starts there and runs past byte 28000.
    std::string cut;
    std::vector<std::string> whole;
    for (int i = 0; i < 279; ++i) {
        std::string line = "line " + std::to_string(i) + " ";
        line.resize(99, 'x');
        whole.push_back(line);
        cut += line + '\0';
    }
    cut += std::string(150, 'c') + '\0' + "after the limit" + std::string(2, '\0');
    // A line whose NUL is the buffer's last byte is whole.
    const std::string last = std::string(27999, 'a') + '\0' + "beyond" + '\0';
    for (const auto& [file, lines] :
         {std::pair{cut, whole},
          std::pair{last, std::vector<std::string>{std::string(27999, 'a')}}}) {
        stores_.Log.Free();
        WriteWholeFile(stores_.Paths.LogPath, file);
        ASSERT_TRUE(stores_.Log.Load());
        EXPECT_EQ(stores_.Log.StoredLines(), lines);
        // Loading reads; it never changes the file.
        EXPECT_EQ(ReadWholeFile(stores_.Paths.LogPath), file);
    }
    // A walk never reads past the buffer; that it stops at the end mark is
    // the stale tail's test's.
    // The bytes that follow the buffer end the cut line; a walk that looked at
    // them would return it.
    const std::string memory = std::string("kept\0", 5) + std::string(30, 'z') + '\0';
    EXPECT_EQ(LogLinesFromBuffer(memory.data(), 20), std::vector<std::string>{"kept"});
    EXPECT_TRUE(LogLinesFromBuffer(memory.data() + 5, 30).empty());
    EXPECT_TRUE(LogLinesFromBuffer(memory.data(), 0).empty());
}

TEST(LogTimeTest, TimeTextIsCtimeWithoutTheLineEndAndStartAndStopLinesNameTheTimeNow) {
    {
        const EnvironmentValue zone("TZ", "UTC");
        ::tzset();
        EXPECT_EQ(TimeText(879885485), "Tue Nov 18 20:38:05 1997");
        EXPECT_EQ(TimeText(878972589), "Sat Nov  8 07:03:09 1997");
    }
    ::tzset();

    const std::time_t before = std::time(nullptr);
    const std::string starting = StartStopLine(true);
    const std::string stopping = StartStopLine(false);
    const std::time_t after = std::time(nullptr);
    // Which line starts with which word is the program's start test's.
    for (const std::string& line : {starting, stopping}) {
        const std::string time = line.substr(22);
        EXPECT_TRUE(time == TimeText(before) || time == TimeText(after)) << line;
    }
}

// ---- Lines from any thread ----

class LogSinkTest : public ::testing::Test {
protected:
    // A log of its own for each test; these never touch its file.
    StatusLog log_{std::string()};
};

TEST_F(LogSinkTest, LinesArriveInOrderHeldBeforeTheSinkOrFromThreadsAndRemovalWaitsForOne) {
    for (const std::string& line : Numbered(1, 601)) {
        log_.Add(line);
    }
    std::vector<std::string> seen;
    log_.SetSink([&seen](const std::string& line) { seen.push_back(line); });
    log_.Add("later");
    std::vector<std::string> expected = Numbered(301, 301);
    expected.push_back("later");
    EXPECT_EQ(seen, expected);

    // After removal lines are held again for the next sink, not lost.
    log_.SetSink(nullptr);
    log_.Add("after the window");
    log_.Add("held two");
    std::vector<std::string> next;
    log_.SetSink([this, &next](const std::string& line) {
        next.push_back(line);
        if (line == "after the window") {
            // Another thread logs while the hand-over is under way; it must
            // neither overtake the held lines nor wait for them.
            std::thread([this] { log_.Add("meanwhile"); }).join();
        }
    });
    EXPECT_EQ(next, (std::vector<std::string>{"after the window", "held two", "meanwhile"}));

    // Lines from several threads all arrive, each thread's in its order.
    std::mutex arrivedLock;
    std::vector<std::string> arrived;
    log_.SetSink([&](const std::string& line) {
        std::lock_guard<std::mutex> guard(arrivedLock);
        arrived.push_back(line);
    });
    constexpr int Threads = 4;
    constexpr int Lines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < Lines; ++i) {
                log_.Add(std::to_string(t) + " " + std::to_string(i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    log_.SetSink(nullptr);

    ASSERT_EQ(arrived.size(), static_cast<size_t>(Threads * Lines));
    std::vector<int> nextOf(Threads, 0);
    for (const std::string& line : arrived) {
        const int t = std::stoi(line.substr(0, line.find(' ')));
        const int i = std::stoi(line.substr(line.find(' ') + 1));
        ASSERT_EQ(i, nextOf[t]) << line;
        ++nextOf[t];
    }

    // Removing the sink waits for a line in progress.
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> sinkDone{false};
    log_.SetSink([&](const std::string&) {
        entered.set_value();
        released.wait();
        sinkDone = true;
    });
    std::thread logger([this] { log_.Add("slow"); });
    entered.get_future().wait();

    std::atomic<bool> removed{false};
    std::thread remover([&] {
        log_.SetSink(nullptr);
        removed = true;
    });
    // Give a remover that did not wait the chance to return early.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(removed);
    release.set_value();
    remover.join();
    EXPECT_TRUE(sinkDone);
    logger.join();
}

}  // namespace

}  // namespace kb::test
