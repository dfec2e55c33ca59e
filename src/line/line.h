// The line to the terminal adapter as one object: the serial port, the
// adapter found on it, the hand-over of the port between the threads that
// read it, and what the adapter has told of itself.
//
// It exists so that none of this is kept at namespace scope: each front end's
// main makes one and hands it down, every thread that talks to the adapter
// works on the Line it was given, and a test makes as many as it likes, side
// by side in one process. Its operations are defined beside the part of the
// line they belong to: the port's in comm_port.cpp, the search and the
// exchanges in adapter.cpp, the set-ups in profiles.cpp, the speed in
// port_speed.cpp.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "line/adapter.h"
#include "line/adapter_family.h"
#include "line/comm_port.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/port_device.h"
#include "platform/serial_device.h"
#include "stores/installation.h"

namespace kb::line {

using platform::IntervalClock;
using platform::PortDeviceMaker;
using platform::WaitResult;
using stores::Installation;

class Line {
public:
    // The line of that installation, whose preferences tell it of the
    // adapter and whose log it tells what happens, timing its reads and
    // pauses on the clock; both outlive the line. Its port's device is made
    // by makeDevice: the serial device on the port's path for the program,
    // another device where a test or a fuzz target stands at the far end.
    Line(Installation& stores, const platform::Clock& clock,
         PortDeviceMaker makeDevice = platform::MakeSerialDevice);
    // Closes the port, if it is open, and frees its record.
    ~Line();
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // The installation the line serves.
    Installation& Stores;
    // The clock of every time limit and pause of the line, and of the
    // threads that talk to the adapter through it. The type is named with
    // its namespace, since the field bears its name.
    const platform::Clock& Clock;

    // ---- The port (line/comm_port.cpp) ----
    //
    // One CommPort record exists for the line, from CommPortCreate to
    // CommPortDestroy. The byte operations below are what the rest of the
    // program uses of the line. Every time limit here is measured on the
    // interval clock and every wait blocks in the kernel, so an idle or slow
    // line costs no CPU.

    // The record; null before CommPortCreate and after CommPortDestroy.
    [[nodiscard]] CommPort* Port() const { return port_.get(); }

    // Makes the record; false when memory is short.
    [[nodiscard]] bool CommPortCreate();
    // Closes the port and frees the record; false if there was none.
    bool CommPortDestroy();
    // True when the port is open and configured. A port whose lock file a
    // living process holds counts as missing; a lock left by a process that
    // has gone is removed. Where no lock file can be written the port is used
    // without one, and the log says so the first time.
    [[nodiscard]] bool CommPortOpen();
    // True when the device took the record's settings.
    [[nodiscard]] bool CommPortConfigure();
    // Closes the port, if it was open, and removes its lock file; false if
    // there is no record.
    bool CommPortClose();
    // True when every byte went to the device.
    [[nodiscard]] bool CommPortWrite(const void* bytes, uint32_t length);

    // Sends the text and one CR. A text of more than 254 characters is
    // refused and nothing is sent: every command of the program is shorter.
    //
    // Neither of these two reports a write that failed (the device has gone,
    // or a purge cut the write off): whatever was sent waits for an answer,
    // which then does not come, and the time limit of that wait ends the
    // exchange.
    void SendCommand(const char* text);
    // Sends the bytes as they are.
    void SendBytes(const void* bytes, int16_t length);

    // Reads into buffer (TokenBufferSize bytes) until the token has arrived,
    // the time limit on the whole read has passed, or 1023 bytes are held.
    // NUL bytes are dropped. Returns a pointer to the token in the buffer, or
    // null. A read that gives up on 1023 bytes logs "Serial Limit Reached",
    // once until ResetSerialLimitLine: a stream that fills read after read
    // says it once.
    [[nodiscard]] char* ReadUntilToken(const char* token, int16_t timeoutMs, char* buffer);
    // As ReadUntilToken, but bytes that keep coming do not end the read: when
    // the buffer is full, its older half is dropped, and the read goes on
    // until the token or the time. For a reply that comes behind a stream of
    // data.
    [[nodiscard]] char* ReadUntilTokenInStream(const char* token, int16_t timeoutMs, char* buffer);
    // Lets "Serial Limit Reached" be logged again: at the start and the end
    // of a call, and when the port is opened.
    void ResetSerialLimitLine();
    // As ReadUntilToken with the token "\r\n".
    [[nodiscard]] char* ReadLine(int16_t timeoutMs, char* buffer);
    // As ReadUntilToken with the token "OK\r\n".
    [[nodiscard]] char* ReadUntilOk(int16_t timeoutMs, char* buffer);
    // Reads exactly count bytes. The time limit is one on silence: it
    // restarts whenever more has arrived. At the limit it logs "Read Buffer
    // Timeout" and delivers what there is. Returns the number of bytes
    // delivered.
    [[nodiscard]] uint32_t ReadBlock(void* buffer, uint32_t count, int16_t timeoutMs);
    // Throws input away until the line has been quiet for the whole quiet
    // time, or, within, until longestMs have passed on the line's clock, however
    // long the input goes on. True if the line fell quiet.
    [[nodiscard]] bool DrainInputWithin(int16_t quietMs, uint32_t longestMs);
    // Throws input away until the line has been quiet for the whole quiet
    // time.
    void DrainInput(int16_t quietMs);
    // Throws input away until one of the texts has come, however much else
    // came before it, or the time limit on the whole read has passed: how an
    // answer of the adapter is found behind the data of a call, which a token
    // read would give up on after 1023 bytes. Returns the index of the text
    // that came, nothing if none did.
    [[nodiscard]] std::optional<size_t> DrainUntilAny(std::initializer_list<std::string_view> texts,
                                                      int16_t timeoutMs);
    // Bytes in the queue; 0 without a record.
    uint32_t PortQueueCount(PortQueue queue);
    // Empties both queues; a write under way stops.
    void PurgePort();
    // Empties the output queue, and a write under way stops; what has come in
    // stays to be read. Only what has had the time to go out and has not
    // goes: bytes written within the last graceMs are still on their way to
    // the adapter (a token sent just before), and the purge waits until that
    // time has passed.
    void PurgeStuckOutput(uint32_t graceMs);
    // Switches to RTS/CTS. False after the message
    // "Cannot set hardware handshaking on comm port."
    [[nodiscard]] bool EnableHardwareHandshake();
    // Switches to RTS/CTS at the speed; true when the device took it. The
    // port stays open and its queues are kept.
    [[nodiscard]] bool SetPortSpeed(uint32_t bitsPerSecond);
    // Takes effect at the next open.
    void SelectPortNumber(uint8_t portNumber);
    // Takes effect at the next configure.
    void SelectPortBaud(uint32_t bitsPerSecond);

    // Waits until new input may have arrived, another thread interrupts the
    // wait, or the time is up. This is how a reader idles without spinning.
    WaitResult WaitForPortInput(int timeoutMs);
    // Ends a WaitForPortInput or WaitForPortWake under way, or the next one.
    void InterruptPortWait();
    // Waits for an InterruptPortWait or the time, without looking at the
    // port: how a reader idles while another thread holds a conversation on
    // the port.
    void WaitForPortWake(int timeoutMs);

    // The one buffer into which AT replies and wire tokens are read; the
    // 80-byte bodies behind recovery tokens too. Callers clear it before a
    // read when they want it clear.
    char TokenBuffer[TokenBufferSize] = {};

    // The port's read side belongs to one thread at a time. The
    // communications thread holds this lock for each pass in which it reads;
    // any other thread that reads the port (an AT exchange, a hang-up) first
    // clears LinePollingEnabled, interrupts the reader's wait, and then holds
    // the lock for its whole exchange (a PortConversation). The
    // communications thread may take it again inside its own pass, when a
    // handler of its own talks to the adapter.
    std::recursive_mutex PortReadLock;

    // ---- The adapter (line/adapter.cpp) ----

    // An adapter was identified on this line; never cleared.
    std::atomic<bool> AdapterFound{false};
    // The communications thread may touch the port.
    std::atomic<bool> LinePollingEnabled{false};
    // 0 until known; 1 if the port tops out at 57600 bps or lower; 2 above.
    std::atomic<int16_t> SpeedClass{0};

    // Sets LinePollingEnabled and wakes the communications thread, so that it
    // takes the port up, or leaves it, at once. While a PortConversation is
    // under way the flag stays clear and the value given here is the one it
    // gets back when the last conversation ends. Every write of the flag
    // goes through here.
    void SetLinePolling(bool enabled);

    // Searches for the adapter, or goes to the saved port, and brings it to
    // its incoming profile; the communications thread then takes the port
    // up. The preferences hold what was found: the port, the family, the
    // speeds.
    [[nodiscard]] AdapterSearch FindAdapter();
    // Identifies the adapter on the port and speed the port record has
    // selected; true if it is one of the families.
    [[nodiscard]] bool IdentifyAdapter();
    // One AT exchange with the communications thread held off the port:
    // sends the command and waits for "OK\r\n", 4000 ms or 1000 ms. The reply
    // stays in TokenBuffer.
    [[nodiscard]] bool SendAndWaitOk(const char* command);
    [[nodiscard]] bool SendAndWaitOkShort(const char* command);

    // Whether the adapter in hand offers the protocol on this port: every
    // family speaks V.120; AIMUX needs a family that bundles and a port above
    // 57600 bps (SpeedClass); X.75 is a matter of the product.
    [[nodiscard]] bool ProtocolOffered(LineProtocol protocol) const;

    // ---- The set-ups (line/profiles.cpp) ----

    // Bytes per second that the present set-up is expected to carry: the
    // ceiling of the throughput the window shows.
    std::atomic<uint16_t> RateEstimate{0};
    // This end's ISDN number: at most 31 characters, the rest zero, since a
    // retrieve request sends all 32 bytes. Written once at start, before the
    // communications thread takes up the port.
    char LocalNumber[32] = {};

    // The first incoming set-up, after the adapter has been found: the
    // adapter's own number is read, an incoming protocol the adapter does not
    // offer goes back to V.120, and the profile goes out. False, after its
    // message, when the adapter did not take the profile.
    [[nodiscard]] bool InitializeIncoming();
    // Every later incoming set-up: after a call, and after the user has
    // changed an incoming setting.
    void ReinitializeIncoming();
    // The outgoing set-up, before a dial. The adapter's answer is read with
    // the dial's.
    void InitializeOutgoing(const OutgoingSettings& settings);
    // What the window shows of the adapter's own number: "Your ISDN Number:
    // ", the number and the product's label. Empty while no adapter has told
    // it.
    [[nodiscard]] std::string OwnNumberCaption() const;
    // The adapter's last command, at exit.
    void SendClosingCommand();

    // ---- The speed (line/port_speed.cpp) ----

    // Tests 57600, 115200 and 230400 bps in turn and records the highest that
    // port and adapter reach together.
    void QualifyPortSpeed();
    // Brings port and adapter from 115200 to 230400 bps at start.
    void ResumeTopSpeed();
    // Tells an adapter found at 230400 bps, of a family moved by a command,
    // to go back to 115200, and moves the port with it, so that the search
    // goes on with the adapter where it looks for one. Such an adapter stays
    // at 230400 after a program that ended without its closing command.
    void ReturnAdapterTo115200();
    // The user's choice of speed, 115200 or 230400 bps: port and adapter
    // move, the preferences keep it, and the log says so.
    void ChangePortSpeed(uint32_t bitsPerSecond);

private:
    friend class PortConversation;

    // The read of ReadUntilToken; with inStream, a full buffer drops its
    // older half instead of ending the read.
    char* ReadToToken(const char* token, int16_t timeoutMs, char* buffer, bool inStream);

    // Makes the port's device with its record.
    PortDeviceMaker makeDevice_;
    std::unique_ptr<CommPort> port_;
    // The time limits of this line's reads.
    IntervalClock readClock_;
    // "Cannot write lock files" has been logged: every search and every
    // reopening would say it again.
    std::atomic<bool> lockFilesTold_{false};

    // The hand-over of the port. Remembering the flag in each exchange and
    // putting it back at the end is not enough once two threads talk to the
    // adapter: the one that started second would remember the cleared flag
    // and leave polling off for good. So the conversations under way are
    // counted, and the flag comes back only when the last of them ends.
    std::mutex handoverLock_;
    int conversationsUnderWay_ = 0;
    bool pollingAfterConversations_ = false;

    // The product's label behind the number; null while the adapter has not
    // told its number.
    const char* ownNumberLabel_ = nullptr;
};

}  // namespace kb::line
