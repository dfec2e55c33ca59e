// The tool's command line, its links, its trace and its end.

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "support/tcp_relay.h"
#include "virtual-ta/identity.h"
#include "vta_harness.h"

namespace kb::test {

namespace {

using namespace std::chrono_literals;
class VirtualTaCommandLine : public VirtualTaTest {
protected:
    // Runs the tool in the folder with the words of run (split at blanks),
    // which it must refuse with the exit status and no output; what it said
    // on standard error.
    std::string Refusal(const std::string& run, int status) {
        std::istringstream split(run);
        const std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
        ChildProcess tool(VIRTUAL_TA_PATH, words, folder_.Path(), ChildProcess::Errors::Kept);
        EXPECT_EQ(tool.WaitForExit(10s), status);
        EXPECT_TRUE(tool.AllLines().empty());
        return tool.ErrorText();
    }
};

bool IsLink(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

// An IPv4 address of this computer's own beyond loopback; "" if it has none.
std::string AddressBeyondLoopback() {
    // hostname lists the computer's addresses without loopback's, IPv6 with ':'.
    ChildProcess hostname("/bin/hostname", {"-I"});
    hostname.WaitForExit(std::chrono::seconds(10));
    for (const std::string& line : hostname.AllLines()) {
        std::istringstream addresses(line);
        for (std::string address; addresses >> address;) {
            if (address.find(':') == std::string::npos) {
                return address;
            }
        }
    }
    return "";
}

// Every setting of the options, in the order given, or the reason they were
// refused.
std::string Parsed(const std::vector<std::string>& arguments) {
    virtual_ta::Options options;
    std::string error;
    if (!ParseArguments(arguments, options, error)) {
        return "refused: " + error;
    }
    std::ostringstream text;
    text << options.Rate << " " << options.TracePath << " " << options.AnswerWaitMs << " "
         << options.ListenHost << ":" << options.ListenPort;
    for (const virtual_ta::AdapterSetting& given : options.Adapters) {
        text << "\n"
             << given.Path << "=" << given.Model->Name << ":" << given.Number << ","
             << given.MaxSpeed << given.Dip230400 << given.NoDialTone;
    }
    for (const virtual_ta::FaultSetting& fault : options.Faults) {
        text << "\nfault " << static_cast<int>(fault.Kind) << ":" << fault.Number << ":"
             << fault.Offset << ":" << fault.Probability << ":" << fault.Seed;
    }
    for (const virtual_ta::RouteSetting& route : options.Routes) {
        text << "\nroute " << route.Number << "=" << route.Host << ":" << route.Port << "/"
             << route.PeerId;
    }
    for (const std::string& peer : options.Peers) {
        text << "\npeer " << peer;
    }
    text << "\n" << options.IdentityPath << " " << options.Insecure;
    return text.str();
}

TEST_F(VirtualTaCommandLine, BadArgumentsGiveOneLineAndExit2) {
    WriteWholeFile(folder_ / "taken", "mine");
    WriteWholeFile(folder_ / "bad.conf", "rate fast\n");
    const auto refused = [this](const std::string& run) {
        SCOPED_TRACE(run);
        const std::string errors = Refusal(run, 2);
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_EQ(errors.rfind("virtual-ta: ", 0), 0u) << errors;
    };
    for (const char* run :
         {"", "--rate", "COM1=modem:5551000", "COM1=bitsurfr:55-51", "COM1=bitsurfr:",
          "COM1bitsurfr5551000", "missing/COM1=bitsurfr:5551000", "taken=bitsurfr:5551000",
          "COM1=bitsurfr:5551000,max-speed=fast", "COM1=bitsurfr:5551000,dip230400",
          "COM1=bitsurfr:5551000,turbo", "COM1=bitsurfr:5551000 COM2=3com:5551000",
          "COM1=bitsurfr:5551000 COM1=bitsurfr:5551000"}) {
        refused(run);
    }
    // Each before a good adapter.
    for (const char* options :
         {"--rate fast", "--bogus", "--fault corrupt:5551000", "--fault melt:5551000:10",
          "--fault drop:5559999:10", "--fault drop:5551000:-1", "--fault noise:5551000:0",
          "--fault noise:5551000:1", "--fault noise:5551000:1e-5x",
          "--fault noise:5551000:1e-5:seven", "--answer-wait 0", "--trace missing/trace.txt",
          "--listen 4000", "--listen 127.0.0.1:65536", "--route 5552000=127.0.0.1:0",
          "--route 555-2000=127.0.0.1:4000", "--route 5551000=127.0.0.1:4000",
          "--route 5552000=a:1 --route 5552000=b:2", "--config bad.conf",
          "--config=", "--peer GBRVB-W61JJ-JS677",
          "--route 5552000=127.0.0.1:4000/GBRV3-W61J3-JS678-421RB-BEAA7-A4VPZ",
          "--insecure --peer GBRV3-W61J3-JS678-421RB-BEAA7-A4VPY",
          // Plain TCP beyond loopback, without --insecure.
          "--listen 0.0.0.0:0", "--route 5552000=192.0.2.7:4000"}) {
        refused(options + std::string(" COM1=bitsurfr:5551000"));
    }
    const std::string good = folder_ / "COM1=bitsurfr:5551000";
    EXPECT_FALSE(IsLink(folder_ / "COM1")) << "no link is left by a refused start";
    EXPECT_EQ(ReadWholeFile(folder_ / "taken"), "mine") << "what is not a link stays";
    // Those addresses are taken with an ID to take calls from (a route's
    // will do), or under --insecure; and only then is a plain call taken
    // from away.
    const std::string key = folder_ / "line.key";
    const std::string trace = folder_ / "trace.txt";
    const std::string away = AddressBeyondLoopback();
    const std::vector<std::string> taken[] = {
        {"--route", "5552000=192.0.2.7:4000/" + ShowIdentity(VIRTUAL_TA_PATH, key), "--identity",
         key},
        {"--route", "5552000=192.0.2.7:4000", "--insecure"},
    };
    for (const auto& options : taken) {
        const bool insecure = &options == &taken[1];
        SCOPED_TRACE(insecure ? "insecure" : "with an ID");
        Start(Concatenated({"--trace", trace, "--listen", "0.0.0.0:0", good}, options));
        struct stat traced {};
        ASSERT_EQ(::stat(trace.c_str(), &traced), 0);
        EXPECT_EQ(traced.st_mode & 0777, 0600u) << "the trace says who called whom, from where";
        if (away.empty()) {
            continue;
        }
        const int call = SilentConnection(ListeningPort(tool_->AllLines()), away);
        ASSERT_EQ(::send(call, "S", 1, MSG_NOSIGNAL), 1);
        EXPECT_TRUE(WaitForTrace(
            trace, insecure ? "in plain TCP (--insecure)" : "plain TCP is taken from loopback only",
            1, 5000));
        ::close(call);
    }
    if (away.empty()) {
        GTEST_SKIP() << "no address beyond loopback to call from";
    }
}

// The key is made once, for its user alone, by one of several starts at
// once, and gives the same line ID at each start, through a link too; a
// start that makes it says so in the log. One that others may read, that is
// no key, or that is no file is refused with an exit status of its own, at
// --show-identity as at a start that needs it.
TEST_F(VirtualTaCommandLine, TheIdentityKeyIsMadeOnceForItsUserAlone) {
    const std::string key = folder_ / "made/here/line.key";
    std::vector<std::unique_ptr<ChildProcess>> runs;
    for (int i = 0; i < 8; ++i) {
        runs.push_back(std::make_unique<ChildProcess>(
            VIRTUAL_TA_PATH, std::vector<std::string>{"--show-identity", "--identity", key}, "",
            ChildProcess::Errors::Kept));
    }
    const std::string id = ShowIdentity(VIRTUAL_TA_PATH, key);
    EXPECT_EQ(id.size(), 35u) << id;
    for (const auto& run : runs) {
        EXPECT_EQ(run->WaitForExit(10s), 0) << run->ErrorText();
        EXPECT_EQ(run->AllLines(), std::vector<std::string>{id});
        EXPECT_EQ(run->ErrorText(), "") << "no log at --show-identity";
    }
    struct stat status {};
    ASSERT_EQ(::stat(key.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    // The ID is the fingerprint of the public key's DER SubjectPublicKeyInfo,
    // as openssl itself computes it from the key file.
    ChildProcess fingerprint("/bin/sh",
                             {"-c", "openssl pkey -in '" + key +
                                        "' -pubout -outform DER | openssl dgst -sha256 -binary | "
                                        "head -c 15 | od -An -tx1 -v | tr -d ' \\n'; echo"});
    ASSERT_EQ(fingerprint.WaitForExit(10s), 0);
    std::string error;
    const std::optional<virtual_ta::LineId> read = virtual_ta::ParseLineId(id, error);
    ASSERT_TRUE(read.has_value()) << error;
    std::string bits;
    for (const uint8_t byte : read->Bits) {
        bits += "0123456789abcdef"[byte >> 4];
        bits += "0123456789abcdef"[byte & 15];
    }
    EXPECT_EQ(fingerprint.AllLines(), std::vector<std::string>{bits});
    ASSERT_EQ(::symlink(key.c_str(), (folder_ / "link.key").c_str()), 0);
    EXPECT_EQ(ShowIdentity(VIRTUAL_TA_PATH, folder_ / "link.key"), id) << "a link is followed";
    const std::string good = folder_ / "COM1=bitsurfr:5551000";
    const std::string trace = folder_ / "trace.txt";
    const std::string newKey = folder_ / "new.key";
    Start({"--trace", trace, "--identity", newKey, "--peer", id, good});
    EXPECT_EQ(Occurrences(ReadWholeFile(trace), "made a new identity key " + newKey + ", line ID " +
                                                    ShowIdentity(VIRTUAL_TA_PATH, newKey)),
              1u);
    tool_.reset();
    WriteWholeFile(folder_ / "junk.key", "not a key\n");
    ASSERT_EQ(::chmod((folder_ / "junk.key").c_str(), 0600), 0);
    ASSERT_EQ(::chmod(key.c_str(), 0640), 0);
    ASSERT_EQ(::mkfifo((folder_ / "fifo.key").c_str(), 0600), 0);
    for (const std::string& path : {key, folder_ / "junk.key", folder_ / "fifo.key"}) {
        for (const bool show : {true, false}) {
            const std::string run = show ? "--show-identity --identity " + path
                                         : "--identity " + path + " --peer " + id + " " + good;
            SCOPED_TRACE(run);
            const std::string errors = Refusal(run, 3);
            EXPECT_NE(errors.find(path), std::string::npos) << errors;
        }
    }
}

// A line ID is read as a person may type it, and any one character wrong, or
// two neighbours swapped, is caught in its group.
TEST_F(VirtualTaCommandLine, ALineIdIsReadAsTypedAndATypoNamesItsGroup) {
    // The values 1 1 1 1 | 1 1 1 1 | 0 31 0 0 | 0 0 29 31, the rest 0. Each
    // group's check c makes v1 x^4 + v2 x^3 + v3 x^2 + v4 x + c zero in GF(32)
    // modulo x^5 + x^2 + 1 (by Horner: s = s x + v): 1, 3, 7, 15 gives
    // c = 15 x = 30 (Y); 0, 31, 27, 19 gives c = 19 x = 3; 0, 0, 29, 31 ^ 31
    // gives c = 0.
    virtual_ta::LineId id;
    const uint8_t start[] = {0x08, 0x42, 0x10, 0x84, 0x21, 0x07, 0xC0, 0x00, 0x03, 0xBF};
    std::copy(std::begin(start), std::end(start), id.Bits.begin());
    const std::string text = "1111Y-1111Y-0Z003-00XZ0-00000-00000";
    EXPECT_EQ(id.Text(), text);
    for (const char* typed :
         {"1111Y-1111Y-0Z003-00XZ0-00000-00000", "llll-y iiiiy ozoo3 0OxzO 00000-0000-0"}) {
        std::string error;
        const std::optional<virtual_ta::LineId> read = virtual_ta::ParseLineId(typed, error);
        ASSERT_TRUE(read.has_value()) << typed << ": " << error;
        EXPECT_EQ(read->Text(), text);
    }
    for (const auto& [typed, group] : std::initializer_list<std::pair<const char*, const char*>>{
             {"1111Y1111Y0Z00300XZ0000000000000", "not 32"},
             {"1111Y-1111Y-0Z003-00XZ0-00080-00000", "group 5"},
             {"1111Y-111Y1-0Z003-00XZ0-00000-00000", "group 2"},
             {"1111Y-1111Y-Z0003-00XZ0-00000-00000", "group 3"},
             {"1111Y-1111Y-0Z003-00X0Z-00000-00000", "group 4"},
             {"1111Y-1111Y-0Z003-00XZ0-00000-0000U", "group 6"}}) {
        std::string error;
        EXPECT_FALSE(virtual_ta::ParseLineId(typed, error).has_value()) << typed;
        EXPECT_NE(error.find(group), std::string::npos) << typed << ": " << error;
    }
}

// A configuration file gives what the same settings on the command line
// give, read from the file's own folder or the home folder; the command line
// replaces its single values and adds to its lists; a bad line is named.
TEST_F(VirtualTaCommandLine, TheConfigurationFileGivesWhatTheCommandLineGives) {
    const std::string file = folder_ / "line.conf";
    ASSERT_NE(std::getenv("HOME"), nullptr);
    const std::string home = std::getenv("HOME");
    ASSERT_EQ(::mkdir((folder_ / "sub").c_str(), 0700), 0);
    const std::string id = "1111Y-1111Y-0Z003-00XZ0-00000-00000";
    const struct {
        std::string Text;
        std::string Refusal;                  // the reason the whole is refused, if it is
        std::vector<std::string> Added = {};  // to the command line, beside --config
        std::vector<std::string> Same = {};   // a command line alone that means the same
        mode_t Mode = 0644;
    } cases[] = {
        {"# Bob's PC\r\n\n\trate  0   # as fast as it goes\r\n"
         "adapter COM1=zyxel-2864:5552002,max-speed=57600\nadapter sub/COM2=adtran-xr:12,"
         "dip230400,no-dialtone\nfault drop:5552002:10\nfault noise:12:1e-5:7\n"
         "fault corrupt:12:3\ntrace ~/t.txt\nanswer-wait 5\r\nlisten 0.0.0.0:4000\n"
         "route 5551001=alices-pc:4000\nidentity keys/line.key\npeer " +
             id + "\nroute 5551003=carols-pc:4000/" + id + "\n",
         "",
         {},
         {"--rate", "0", "--fault", "drop:5552002:10", "--fault", "noise:12:1e-5:7", "--fault",
          "corrupt:12:3", "--answer-wait", "5", "--listen", "0.0.0.0:4000", "--route",
          "5551001=alices-pc:4000", "--peer", id, "--route", "5551003=carols-pc:4000/" + id,
          // The file's paths are taken from its own folder, "~/" from the home folder.
          folder_ / "COM1=zyxel-2864:5552002,max-speed=57600",
          folder_ / "sub/COM2=adtran-xr:12,dip230400,no-dialtone", "--trace", home + "/t.txt",
          "--identity", folder_ / "keys/line.key"}},
        {"insecure\nlisten 0.0.0.0:1\n",
         "",
         {folder_ / "COM1=3com:1"},
         {"--insecure", "--listen", "0.0.0.0:1", folder_ / "COM1=3com:1"}},
        {"insecure yes\n", file + ":1: insecure takes no value"},
        {"rate 0\ntrace /tmp/t\nadapter COM1=3com:1\nroute 2=a:1\n",
         "",
         {"--rate=100", "--route", "3=b:2", folder_ / "sub/COM2=3com:4"},
         {"--trace", "/tmp/t", folder_ / "COM1=3com:1", "--route", "2=a:1", "--rate", "100",
          "--route", "3=b:2", folder_ / "sub/COM2=3com:4"}},
        {"adapter COM1=3com:1\n\n# a typo\nrout 2=a:1\n", file + ":4: unknown setting 'rout'"},
        {"trace\n", file + ":1: trace needs a value"},
        {"adapter COM1=3com:1\nadapter COM2=3com:1\n", "two adapters with the number 1"},
        {"route 2=a:1\n", "two routes for 2", {folder_ / "COM1=3com:1", "--route", "2=b:1"}},
        {"rate 0\n",
         "the configuration file '" + file +
             "' may be changed by others (mode 0620): make it the user's alone with chmod go-w",
         {},
         {},
         0620},
    };
    for (const auto& [text, refusal, added, same, mode] : cases) {
        SCOPED_TRACE(text);
        WriteWholeFile(file, text);
        ASSERT_EQ(::chmod(file.c_str(), mode), 0);
        EXPECT_EQ(Parsed(Concatenated({"--config", file}, added)),
                  refusal.empty() ? Parsed(same) : "refused: " + refusal);
    }
    EXPECT_EQ(Parsed({"--config", folder_ / "sub", folder_ / "COM1=3com:1"}),
              "refused: cannot read the configuration file '" + folder_ / "sub" + "'");
    // Nor is another user's file read, which only root can make here.
    if (::geteuid() == 0) {
        ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
        ASSERT_EQ(::chown(file.c_str(), 1, 1), 0);
        EXPECT_EQ(Parsed({"--config", file}),
                  "refused: the configuration file '" + file +
                      "' belongs to another user (1): make it the user's own with chown");
    }
}

// (The options are the manual page's test's: each that the page describes
// must be in the help in the same words.)
TEST_F(VirtualTaCommandLine, HelpDescribesTheAdapters) {
    ChildProcess run(VIRTUAL_TA_PATH, {"--help"});
    EXPECT_EQ(run.WaitForExit(10s), 0);
    for (const char* word : {"PATH=FAMILY:NUMBER", "bitsurfr", "adtran-xrt", "zyxel-ta128", "3com",
                             "max-speed=N", "dip230400", "no-dialtone"}) {
        EXPECT_FALSE(LinesHolding(run.AllLines(), {word}).empty()) << word;
    }
}

// A link left by an earlier run is replaced; each of the stop signals ends
// the tool with its links removed. The first adapter comes from a
// configuration file, its link in the file's folder, not the tool's.
TEST_F(VirtualTaCommandLine, LinksAreMadeReplacedAndRemovedAtEachStopSignal) {
    WriteWholeFile(folder_ / "line.conf", "adapter COM1=bitsurfr:5551001\n");
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(signal);
        ASSERT_EQ(::symlink("/dev/pts/nowhere", (folder_ / "COM1").c_str()), 0);
        Start({"--config", folder_ / "line.conf", folder_ / "COM2=zyxel-omninet:5551002"});
        ASSERT_TRUE(IsLink(folder_ / "COM2"));
        EXPECT_EQ(Port("COM1").Command("AT"), "AT\r\r\nOK\r\n") << "the stale link was replaced";
        ports_.clear();
        EXPECT_EQ(tool_->Stop(signal, 5s), 0);
        EXPECT_FALSE(IsLink(folder_ / "COM1"));
        EXPECT_FALSE(IsLink(folder_ / "COM2"));
    }
}

// The trace, read while the tool runs, shows commands, replies and calls.
// The second number names the second B channel: a call whose second number
// reaches another adapter, or none, runs on one channel; one whose second
// number reaches the called adapter, here behind a carrier code, on two, as
// does one without a second number.
TEST_F(VirtualTaCommandLine, TheTraceShowsCommandsRepliesAndTheChannelsOfEachCall) {
    const std::string trace = folder_ / "trace.txt";
    Start({"--trace", trace, "--fault", "drop:1:0", "--fault", "drop:1:0", "--fault", "drop:1:0",
           folder_ / "a=bitsurfr:1", folder_ / "b=adtran-xr:2", folder_ / "c=3com:3"});
    FarEnd& a = Port("a");
    FarEnd& b = Port("b");
    ASSERT_EQ(a.Command("AT%A2=3%A4=0"), "AT%A2=3%A4=0\r\r\nOK\r\n");
    ASSERT_EQ(b.Command("AT&F4S53=3"), "AT&F4S53=3\r\r\nOK\r\n");
    for (const char* dial : {"2&3", "2&9", "2&103332"}) {
        // Each call falls at once, by the drop faults at offset 0.
        ASSERT_TRUE(SetUpCall(a, b, dial)) << dial;
        EXPECT_EQ(a.ReceiveUntil("NO CARRIER\r\n", 1000), "\r\nNO CARRIER\r\n");
        EXPECT_EQ(b.ReceiveUntil("NO CARRIER\r\n", 1000), "\r\nNO CARRIER\r\n");
    }
    // The faults are spent: the next call stands until a hangs up.
    ASSERT_TRUE(SetUpCall(a, b, "2"));
    ExpectCarried(a, b, "12345", "123");
    ASSERT_TRUE(a.HangUp());

    const std::string text = ReadWholeFile(trace);
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        // "SECONDS.MMM WHO TEXT"
        const size_t dot = line.find('.');
        ASSERT_NE(dot, std::string::npos) << line;
        EXPECT_EQ(line.find(' '), dot + 4) << line;
    }
    const auto count = [&text](const std::string& part) { return Occurrences(text, part); };
    EXPECT_EQ(count("AIMUX 64K to AIMUX 64K, 1 channel, 8000 bytes/s each way"), 2u) << text;
    EXPECT_EQ(count("AIMUX 64K to AIMUX 64K, 2 channels, 16000 bytes/s each way"), 2u) << text;
    EXPECT_EQ(count("fault: line falls after 0 bytes"), 3u) << "each fault acts once, one per call";
    for (const char* expected :
         {"1 <- ATD2\n", "2 -> RING", "2 <- ATA", "1 -> CONNECT 115200", "1 escape to command mode",
          "1 <- ATH", "ATH by 1): 1 sent 5 bytes, 2 sent 3 bytes", "2 -> NO CARRIER"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
    }
}

}  // namespace

}  // namespace kb::test
