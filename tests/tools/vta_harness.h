// What the tests of virtual-ta share: the tool run in a folder of the test's
// own, its ports opened there as a program opens a serial port, and calls and
// transfers between those ports.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/far_end.h"
#include "support/temp_folder.h"
#include "support/test_data.h"
#include "virtual-ta/options.h"

namespace kb::test {

class VirtualTaTest : public testing::Test {
protected:
    // Starts the tool with the arguments, allowed that many open descriptors
    // if descriptorLimit is not 0, as an unprivileged user if asked (see
    // ChildProcess), its standard error kept if asked, and waits for its
    // "ready"; throws if it does not come. A tool started before is stopped
    // first, and the ports opened on it are closed.
    void Start(const std::vector<std::string>& arguments, int descriptorLimit = 0,
               bool unprivileged = false,
               ChildProcess::Errors errors = ChildProcess::Errors::PassedThrough);
    // The port whose link is name in the folder, open until the test ends.
    FarEnd& Port(const std::string& name, uint32_t speed = 115200);

    TempFolder folder_;
    std::unique_ptr<ChildProcess> tool_;
    std::vector<std::unique_ptr<FarEnd>> ports_;
};

// The words of first, then those of second.
std::vector<std::string> Concatenated(std::vector<std::string> first,
                                      const std::vector<std::string>& second);

// Reads the tool's options from the arguments as its start reads its
// command line; false, with the reason in error, if they are refused.
bool ParseArguments(const std::vector<std::string>& arguments, virtual_ta::Options& options,
                    std::string& error);

// A connection to the port at the IPv4 address that says nothing, made from
// the address from if one is given; -1 if it is not made within 10 s.
int SilentConnection(uint16_t port, const std::string& address = "127.0.0.1",
                     const std::string& from = "");

// Waits until the trace file holds count lines with the text in them; false
// if it does not within the time.
bool WaitForTrace(const std::string& path, const std::string& text, size_t count, int timeoutMs);

// Sends aToB into a and bToA into b at once and reads what comes out at the
// other ends, until each has the length sent or the time is up.
struct Transfer {
    std::string AtB;
    std::string AtA;
    double Seconds = 0;  // until the last byte arrived
};
Transfer TransferBothWays(FarEnd& a, FarEnd& b, const std::string& aToB, const std::string& bToA,
                          int timeoutMs);

// Sends aToB into a and bToA into b at once: each arrives at the other end
// unchanged, and nothing more within the transfer.
void ExpectCarried(FarEnd& a, FarEnd& b, const std::string& aToB, const std::string& bToA);

// The caller dials the number and the answerer answers its RING with ATA;
// whether both saw CONNECT, the caller's whole line of it taken.
bool SetUpCall(FarEnd& caller, FarEnd& answerer, const std::string& dialString);

// Alice calls Bob, who answers: he rings at once, and each CONNECT tells the
// speed of its own end's port, Alice's 57600 and Bob's 115200; up and down
// cross the call at once, unchanged. Alice hangs up, and Bob calls her back
// on callBack: his last words arrive before the NO CARRIER of his hang-up.
void CallEachWay(FarEnd& alice, FarEnd& bob, const std::string& bobsNumber,
                 const std::string& callBack, const std::string& up, const std::string& down);

// A dial that fails: the result comes after the exchange's delay, and the
// caller is back in command mode.
void ExpectFailedDial(FarEnd& caller, const std::string& number, const std::string& result);

}  // namespace kb::test
