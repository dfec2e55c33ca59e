// The terminal adapter: which family it is, and the exchange of one AT command
// with it.
#pragma once

#include <atomic>
#include <cstdint>

#include "line/adapter_family.h"

// The longest an adapter takes to answer the escape "+++" with OK, and to
// answer its hang-up, ATH; in a call the answers come behind the call's data.
inline constexpr int16_t EscapeReplyLimitMs = 2250;
inline constexpr int16_t HangUpReplyLimitMs = 1000;

// The message of a search that found nothing, and of an adapter that stopped
// answering before its speed was tested.
inline constexpr const char* NoAdapterMessage =
    "Could not find your ISDN TA.  Please check your cables\rand make sure the ISDN TA is "
    "powered on.";

// An adapter was identified in this run; never cleared.
class Installation;
// The installation whose preferences and log the line uses; set by the front
// end before any thread starts. It goes when the line becomes an object of
// its own, which then holds the installation it serves.
extern Installation* LineStores;

extern std::atomic<bool> AdapterFound;
// The communications thread may touch the port.
extern std::atomic<bool> LinePollingEnabled;
// 0 until known; 1 if the port tops out at 57600 bps or lower; 2 above.
extern std::atomic<int16_t> SpeedClass;

// Sets LinePollingEnabled and wakes the communications thread, so that it
// takes the port up, or leaves it, at once. While a PortConversation is under
// way the flag stays clear and the value given here is the one it gets back
// when the last conversation ends. Every write of the flag goes through here.
void SetLinePolling(bool enabled);

// One conversation with the adapter, from any thread: for its lifetime the
// communications thread is kept off the port and this thread alone reads it.
// It clears LinePollingEnabled, wakes the communications thread out of its
// wait, and holds PortReadLock; at its end the flag goes back to what it was
// before the first of the conversations then under way began, or to what
// SetLinePolling has asked for meanwhile. Conversations nest, also across
// threads, so two of them never leave the flag wrong.
class PortConversation {
public:
    PortConversation();
    ~PortConversation();
    PortConversation(const PortConversation&) = delete;
    PortConversation& operator=(const PortConversation&) = delete;
};

// How the search for the adapter ended.
enum class AdapterSearch {
    NotFound,         // no adapter answered; the user has been told
    ProfileRefused,   // found, but it did not take the incoming profile
    WaitingForCalls,  // found, and it holds the incoming profile
};
// Searches for the adapter, or goes to the saved port, and brings it to its
// incoming profile; the communications thread then takes the port up. The
// preferences hold what was found: the port, the family, the speeds.
[[nodiscard]] AdapterSearch FindAdapter();
// Identifies the adapter on the port and speed the port record has selected;
// true if it is one of the families.
[[nodiscard]] bool IdentifyAdapter();
// One AT exchange with the communications thread held off the port: sends the
// command and waits for "OK\r\n", 4000 ms or 1000 ms. The reply stays in
// TokenBuffer.
[[nodiscard]] bool SendAndWaitOk(const char* command);
[[nodiscard]] bool SendAndWaitOkShort(const char* command);
