// The terminal adapter: how the search for it ends, and the hand-over of the
// port for one exchange with it. The search and the exchanges themselves are
// the Line's (line/line.h).
#pragma once

#include <cstdint>

namespace kb::line {

class Line;

// The longest an adapter takes to answer the escape "+++" with OK, and to
// answer its hang-up, ATH; in a call the answers come behind the call's data.
inline constexpr int16_t EscapeReplyLimitMs = 2250;
inline constexpr int16_t HangUpReplyLimitMs = 1000;

// The message of a search that found nothing, and of an adapter that stopped
// answering before its speed was tested. On a PC that never had an adapter,
// cables and power are not the answer: its second paragraph names the two
// ways such a PC gets one, and where the manual tells more.
inline constexpr const char* NoAdapterMessage =
    "Could not find your ISDN TA.  Please check your cables\rand make sure the ISDN TA is "
    "powered on.\r\rNo ISDN TA on this PC? Start a virtual adapter (virtual-ta), or make "
    "\"COM1\" in the installation folder a link to your adapter's port. The manual's page "
    "Troubleshooting, \"No adapter found\", tells how.";

// One conversation with the adapter of a line, from any thread: for its
// lifetime the communications thread is kept off the port and this thread
// alone reads it. It clears the line's LinePollingEnabled, wakes the
// communications thread out of its wait, and holds its PortReadLock; at its
// end the flag goes back to what it was before the first of the
// conversations then under way began, or to what SetLinePolling has asked
// for meanwhile. Conversations nest, also across
// threads, so two of them never leave the flag wrong.
class PortConversation {
public:
    explicit PortConversation(Line& line);
    ~PortConversation();
    PortConversation(const PortConversation&) = delete;
    PortConversation& operator=(const PortConversation&) = delete;

private:
    Line& line_;
};

// How the search for the adapter ended.
enum class AdapterSearch {
    NotFound,         // no adapter answered; the user has been told
    ProfileRefused,   // found, but it did not take the incoming profile
    WaitingForCalls,  // found, and it holds the incoming profile
};

}  // namespace kb::line
