// The serial port: the only code that touches the device behind port COMn.
//
// One CommPort record exists for the process, from CommPortCreate to
// CommPortDestroy. The byte operations below are what the rest of the program
// uses of the line. Every time limit here is measured on the interval clock
// and every wait blocks in the kernel, so an idle or slow line costs no CPU.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/port_lock.h"
#include "platform/serial_device.h"

// Size of the shared buffer into which AT replies and wire tokens are read.
// ReadUntilToken writes at most this many bytes, its terminator included.
constexpr uint32_t TokenBufferSize = 1024;

// The one buffer into which AT replies and wire tokens are read; the 80-byte
// bodies behind recovery tokens too. Callers clear it before a read when they
// want it clear.
extern char TokenBuffer[TokenBufferSize];

// Bits of FlowControlFlags.
constexpr uint8_t FlowDtrDsr = 1;
constexpr uint8_t FlowRtsCts = 2;
constexpr uint8_t FlowXonXoff = 4;

struct CommPort {
    SerialDevice Handle;              // the open device, valid while IsOpen is set
    PortLock Lock;                    // the port's lock file, held while the device is open
    uint8_t PortNumber = 1;           // the n of COMn
    std::atomic<bool> IsOpen{false};  // set after a fully successful open
    uint8_t ByteSize = 8;             // data bits
    uint8_t FlowControlFlags = FlowXonXoff;
    uint8_t Parity = 0;    // 0 none
    uint8_t StopBits = 0;  // 0 one stop bit
    std::atomic<uint32_t> BaudRate{9600};
    // "Serial Limit Reached" has been logged since the last ResetSerialLimitLine.
    std::atomic<bool> SerialLimitTold{false};
    // NowMs when the last write was handed over whole to the device.
    std::atomic<uint32_t> LastWriteAt{0};
};

// The record; null before CommPortCreate and after CommPortDestroy.
extern CommPort* ThePort;

// The device that port n means: the file "COMn" in the installation's folder if
// there is one, else /dev/ttyS(n-1).
std::string CommPortDevicePath(uint8_t portNumber);

// Makes the record; false when memory is short.
[[nodiscard]] bool CommPortCreate();
// Closes the port and frees the record; false if there was none.
bool CommPortDestroy();
// True when the port is open and configured. A port whose lock file a living
// process holds counts as missing; a lock left by a process that has gone is
// removed. Where no lock file can be written the port is used without one,
// and the log says so the first time.
[[nodiscard]] bool CommPortOpen();
// True when the device took the record's settings.
[[nodiscard]] bool CommPortConfigure();
// Closes the port, if it was open, and removes its lock file; false if there
// is no record.
bool CommPortClose();
// True when every byte went to the device.
[[nodiscard]] bool CommPortWrite(const void* bytes, uint32_t length);

// Sends the text and one CR. A text of more than 254 characters is refused and
// nothing is sent: every command of the program is shorter.
//
// Neither of these two reports a write that failed (the device has gone, or a
// purge cut the write off): whatever was sent waits for an answer, which then
// does not come, and the time limit of that wait ends the exchange.
void SendCommand(const char* text);
// Sends the bytes as they are.
void SendBytes(const void* bytes, int16_t length);

// Reads into buffer (TokenBufferSize bytes) until the token has arrived, the
// time limit on the whole read has passed, or 1023 bytes are held. NUL bytes
// are dropped. Returns a pointer to the token in the buffer, or null. A read
// that gives up on 1023 bytes logs "Serial Limit Reached", once until
// ResetSerialLimitLine: a stream that fills read after read says it once.
[[nodiscard]] char* ReadUntilToken(const char* token, int16_t timeoutMs, char* buffer);
// As ReadUntilToken, but bytes that keep coming do not end the read: when
// the buffer is full, its older half is dropped, and the read goes on until
// the token or the time. For a reply that comes behind a stream of data.
[[nodiscard]] char* ReadUntilTokenInStream(const char* token, int16_t timeoutMs, char* buffer);
// Lets "Serial Limit Reached" be logged again: at the start and the end of a
// call, and when the port is opened.
void ResetSerialLimitLine();
// As ReadUntilToken with the token "\r\n".
[[nodiscard]] char* ReadLine(int16_t timeoutMs, char* buffer);
// As ReadUntilToken with the token "OK\r\n".
[[nodiscard]] char* ReadUntilOk(int16_t timeoutMs, char* buffer);
// Reads exactly count bytes. The time limit is one on silence: it restarts
// whenever more has arrived. At the limit it logs "Read Buffer Timeout" and
// delivers what there is. Returns the number of bytes delivered.
[[nodiscard]] uint32_t ReadBlock(void* buffer, uint32_t count, int16_t timeoutMs);
// Throws input away until the line has been quiet for the whole quiet time,
// or, within, until longestMs have passed on NowMs's clock, however long the
// input goes on. True if the line fell quiet.
[[nodiscard]] bool DrainInputWithin(int16_t quietMs, uint32_t longestMs);
// Throws input away until the line has been quiet for the whole quiet time.
void DrainInput(int16_t quietMs);
// Throws input away until one of the texts has come, however much else came
// before it, or the time limit on the whole read has passed: how an answer
// of the adapter is found behind the data of a call, which a token read
// would give up on after 1023 bytes. Returns the index of the text that
// came, nothing if none did.
[[nodiscard]] std::optional<size_t> DrainUntilAny(std::initializer_list<std::string_view> texts,
                                                  int16_t timeoutMs);
// The port's two queues.
enum class PortQueue { Output, Input };
// Bytes in the queue; 0 without a record.
uint32_t PortQueueCount(PortQueue queue);
// Empties both queues; a write under way stops.
void PurgePort();
// Empties the output queue, and a write under way stops; what has come in
// stays to be read. Only what has had the time to go out and has not goes:
// bytes written within the last graceMs are still on their way to the
// adapter (a token sent just before), and the purge waits until that time
// has passed.
void PurgeStuckOutput(uint32_t graceMs);
// Switches to RTS/CTS. False after the message
// "Cannot set hardware handshaking on comm port."
[[nodiscard]] bool EnableHardwareHandshake();
// Switches to RTS/CTS at the speed; true when the device took it. The port
// stays open and its queues are kept.
[[nodiscard]] bool SetPortSpeed(uint32_t bitsPerSecond);
// Takes effect at the next open.
void SelectPortNumber(uint8_t portNumber);
// Takes effect at the next configure.
void SelectPortBaud(uint32_t bitsPerSecond);

// Waits until new input may have arrived, another thread interrupts the wait,
// or the time is up. This is how a reader idles without spinning.
WaitResult WaitForPortInput(int timeoutMs);
// Ends a WaitForPortInput or WaitForPortWake under way, or the next one.
void InterruptPortWait();
// Waits for an InterruptPortWait or the time, without looking at the port:
// how a reader idles while another thread holds a conversation on the port.
void WaitForPortWake(int timeoutMs);

// The port's read side belongs to one thread at a time. The communications
// thread holds this lock for each pass in which it reads; any other thread
// that reads the port (an AT exchange, a hang-up) first clears
// LinePollingEnabled, interrupts the reader's wait, and then holds the lock
// for its whole exchange. The communications thread may take it again inside
// its own pass, when a handler of its own talks to the adapter.
extern std::recursive_mutex PortReadLock;
