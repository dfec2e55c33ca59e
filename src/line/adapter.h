// The terminal adapter: which family it is, and the exchange of one AT command
// with it.
#pragma once

#include <atomic>
#include <cstdint>

// Values of AdapterModel, which are also offsets into the string table.
enum : int16_t {
    ModelBitSURFR = 0,
    ModelAdTran = 10,
    ModelZyXEL = 20,
    Model3Com = 30,
};

// The message of a search that found nothing, and of an adapter that stopped
// answering before its speed was tested.
inline constexpr const char* NoAdapterMessage =
    "Could not find your ISDN TA.  Please check your cables\rand make sure the ISDN TA is "
    "powered on.";

// An adapter was identified in this run; never cleared.
extern std::atomic<int32_t> AdapterFound;
// The communications thread may touch the port.
extern std::atomic<int32_t> LinePollingEnabled;
// 0 until known; 1 if the port tops out at 57600 bps or lower; 2 above.
extern std::atomic<int16_t> SpeedClass;

// Sets LinePollingEnabled and wakes the communications thread, so that it
// takes the port up, or leaves it, at once. While a PortConversation is under
// way the flag stays clear and the value given here is the one it gets back
// when the last conversation ends. Every write of the flag goes through here.
void SetLinePolling(int32_t enabled);

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

// Searches for the adapter, or goes to the saved port, and brings it to its
// incoming profile. 1 when an adapter stands ready for calls.
int FindAdapter();
// Identifies the adapter on the port and speed the port record has selected.
int IdentifyAdapter();
// One AT exchange with the communications thread held off the port: sends the
// command and waits for "OK\r\n", 4000 ms or 1000 ms. The reply stays in
// TokenBuffer.
bool SendAndWaitOk(const char* command);
bool SendAndWaitOkShort(const char* command);
