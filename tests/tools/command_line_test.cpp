// The tool's command line, its links, its trace and its end.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "vta_harness.h"

namespace {

using namespace std::chrono_literals;

// The tool run to its end, as for bad arguments.
struct ToolRun {
    int ExitCode = -1;
    std::string Out;
    std::string Err;
};
ToolRun RunTool(const std::vector<std::string>& arguments) {
    ChildProcess run(VIRTUAL_TA_PATH, arguments, "", ChildProcess::Errors::Kept);
    ToolRun result;
    result.ExitCode = run.WaitForExit(10s);
    for (const std::string& line : run.AllLines()) {
        result.Out += line + "\n";
    }
    result.Err = run.ErrorText();
    return result;
}

bool IsLink(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

TEST(VirtualTaCommandLine, BadArgumentsGiveOneLineAndExit2) {
    TempFolder folder;
    const std::string good = folder / "COM1=bitsurfr:5551000";
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"--rate"},
        {"--rate", "fast", good},
        {"--bogus", good},
        {folder / "COM1=modem:5551000"},
        {folder / "COM1=bitsurfr:55-51"},
        {folder / "COM1=bitsurfr:"},
        {folder / "COM1bitsurfr5551000"},
        {folder / "missing/COM1=bitsurfr:5551000"},
        {folder / "COM1=bitsurfr:5551000,max-speed=fast"},
        {folder / "COM1=bitsurfr:5551000,dip230400"},
        {folder / "COM1=bitsurfr:5551000,turbo"},
        {good, folder / "COM2=3com:5551000"},
        {good, good},
        {"--fault", "corrupt:5551000", good},
        {"--fault", "melt:5551000:10", good},
        {"--fault", "drop:5559999:10", good},
        {"--fault", "drop:5551000:-1", good},
        {"--answer-wait", "0", good},
        {"--trace", folder / "missing/trace.txt", good},
    };
    for (const auto& arguments : cases) {
        std::string shown;
        for (const auto& argument : arguments) {
            shown += argument + " ";
        }
        const ToolRun run = RunTool(arguments);
        EXPECT_EQ(run.ExitCode, 2) << shown;
        EXPECT_EQ(run.Out, "") << shown;
        EXPECT_EQ(std::count(run.Err.begin(), run.Err.end(), '\n'), 1) << shown << run.Err;
        EXPECT_EQ(run.Err.rfind("virtual-ta: ", 0), 0u) << run.Err;
    }
    EXPECT_FALSE(IsLink(folder / "COM1")) << "no link is left by a refused start";
}

TEST(VirtualTaCommandLine, HelpDescribesTheAdapters) {
    const ToolRun run = RunTool({"--help"});
    EXPECT_EQ(run.ExitCode, 0);
    for (const char* word :
         {"PATH=FAMILY:NUMBER", "bitsurfr", "adtran-xrt", "zyxel-ta128", "3com", "max-speed=N",
          "dip230400", "no-dialtone", "--rate", "--fault", "--trace"}) {
        EXPECT_NE(run.Out.find(word), std::string::npos) << word;
    }
}

TEST(VirtualTaCommandLine, LinksAreMadeReplacedAndRemoved) {
    TempFolder folder;
    ASSERT_EQ(::symlink("/dev/pts/nowhere", (folder / "COM1").c_str()), 0);
    ChildProcess tool(VIRTUAL_TA_PATH, std::vector<std::string>{folder / "COM1=bitsurfr:5551001",
                                                                folder / "COM2=3com:5551002"});
    ASSERT_TRUE(tool.WaitForLine("ready", 10s));
    ASSERT_TRUE(IsLink(folder / "COM1"));
    ASSERT_TRUE(IsLink(folder / "COM2"));
    {
        FarEnd port(folder / "COM1");  // throws if the stale link was not replaced
        EXPECT_EQ(port.Command("AT"), "AT\r\r\nOK\r\n");
    }
    EXPECT_EQ(tool.Stop(SIGTERM, 5s), 0);
    EXPECT_FALSE(IsLink(folder / "COM1"));
    EXPECT_FALSE(IsLink(folder / "COM2"));
}

TEST(VirtualTaCommandLine, AnInterruptEndsItCleanly) {
    TempFolder folder;
    ChildProcess tool(VIRTUAL_TA_PATH,
                      std::vector<std::string>{folder / "COM1=zyxel-omninet:5551001"});
    ASSERT_TRUE(tool.WaitForLine("ready", 10s));
    EXPECT_TRUE(IsLink(folder / "COM1"));
    EXPECT_EQ(tool.Stop(SIGINT, 5s), 0);
    EXPECT_FALSE(IsLink(folder / "COM1"));
}

TEST(VirtualTaCommandLine, APathTakenByAFileIsLeftAlone) {
    TempFolder folder;
    WriteWholeFile(folder / "COM1", "mine");
    const ToolRun run = RunTool({folder / "COM1=bitsurfr:5551000"});
    EXPECT_EQ(run.ExitCode, 2);
    EXPECT_EQ(run.Out, "");
    EXPECT_EQ(ReadWholeFile(folder / "COM1"), "mine");
}

// The second number names the second B channel: a call whose second number
// reaches another adapter, or none, runs on one channel; one whose second
// number reaches the called adapter, here behind a carrier code, on two. The
// trace tells.
TEST(VirtualTaCommandLine, TheTraceTellsTheChannelsOfEachCall) {
    TempFolder folder;
    const std::string trace = folder / "trace.txt";
    ChildProcess tool(
        VIRTUAL_TA_PATH,
        std::vector<std::string>{"--trace", trace, "--fault", "drop:1:0", "--fault", "drop:1:0",
                                 "--fault", "drop:1:0", folder / "a=bitsurfr:1",
                                 folder / "b=adtran-xr:2", folder / "c=3com:3"});
    ASSERT_TRUE(tool.WaitForLine("ready", 10s));
    FarEnd a(folder / "a");
    FarEnd b(folder / "b");
    ASSERT_EQ(a.Command("AT%A2=3%A4=0"), "AT%A2=3%A4=0\r\r\nOK\r\n");
    ASSERT_EQ(b.Command("AT&F4S53=3"), "AT&F4S53=3\r\r\nOK\r\n");
    for (const char* dial : {"2&3", "2&9", "2&103332"}) {
        // Each call falls at once, by the drop faults at offset 0.
        const CallSetUp call = SetUpCall(a, b, dial);
        ASSERT_TRUE(call.Connected) << dial;
        EXPECT_EQ(a.ReceiveUntil("NO CARRIER\r\n", 1000), "\r\nNO CARRIER\r\n");
        EXPECT_EQ(b.ReceiveUntil("NO CARRIER\r\n", 1000), "\r\nNO CARRIER\r\n");
    }
    const std::string text = ReadWholeFile(trace);
    const auto count = [&text](const std::string& line) {
        size_t found = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
            ++found;
        }
        return found;
    };
    EXPECT_EQ(count("AIMUX 64K to AIMUX 64K, 1 channel, 8000 bytes/s each way"), 2u) << text;
    EXPECT_EQ(count("AIMUX 64K to AIMUX 64K, 2 channels, 16000 bytes/s each way"), 1u) << text;
    EXPECT_EQ(count("fault: line falls after 0 bytes"), 3u) << "each fault acts once, one per call";
}

TEST(VirtualTaCommandLine, TheTraceShowsCommandsRepliesAndCallsWhileItRuns) {
    TempFolder folder;
    const std::string trace = folder / "trace.txt";
    ChildProcess tool(VIRTUAL_TA_PATH, std::vector<std::string>{"--trace", trace, "--rate", "0",
                                                                folder / "a=bitsurfr:5551001",
                                                                folder / "b=3com:5551002"});
    ASSERT_TRUE(tool.WaitForLine("ready", 10s));
    FarEnd a(folder / "a");
    FarEnd b(folder / "b");
    ASSERT_TRUE(SetUpCall(a, b, "5551002").Connected);
    ASSERT_EQ(TransferBothWays(a, b, "12345", "123", 2000).AtA, "123");
    ::usleep(600000);
    a.Send("+++");
    ASSERT_EQ(a.ReceiveUntil("OK\r\n", 2250), "\r\nOK\r\n");
    ASSERT_EQ(a.Command("ATH"), "ATH\r\r\nOK\r\n");
    const std::string text = ReadWholeFile(trace);
    std::istringstream lines(text);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        // "SECONDS.MMM WHO TEXT"
        const size_t dot = line.find('.');
        ASSERT_NE(dot, std::string::npos) << line;
        EXPECT_EQ(line.find(' '), dot + 4) << line;
    }
    EXPECT_GT(count, 5);
    for (const char* expected :
         {"5551001 <- ATD5551002", "5551002 -> RING", "5551002 <- ATA", "5551001 -> CONNECT 115200",
          "5551001 escape to command mode", "5551001 <- ATH",
          "5551001 sent 5 bytes, 5551002 sent 3 bytes", "5551002 -> NO CARRIER"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
    }
}

}  // namespace
