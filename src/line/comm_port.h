// The serial port's record, and what the line's byte operations share
// (line/line.h, where the operations are members of the Line).
//
// The record is the only thing that touches the device behind port COMn.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/port_device.h"
#include "platform/port_lock.h"

namespace kb::line {

using platform::PortDevice;
using platform::PortLock;

// Size of the shared buffer into which AT replies and wire tokens are read.
// ReadUntilToken writes at most this many bytes, its terminator included.
constexpr uint32_t TokenBufferSize = 1024;

// Bits of FlowControlFlags.
constexpr uint8_t FlowDtrDsr = 1;
constexpr uint8_t FlowRtsCts = 2;
constexpr uint8_t FlowXonXoff = 4;

struct CommPort {
    // The device, made with the record by the line's maker; open while IsOpen
    // is set.
    std::unique_ptr<PortDevice> Handle;
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
    // The line clock's NowMs when the last write was handed over whole to the device.
    std::atomic<uint32_t> LastWriteAt{0};
};

// The device that port n means: the file "COMn" in the installation's folder (root) if
// there is one, else /dev/ttyS(n-1).
std::string CommPortDevicePath(const std::string& root, uint8_t portNumber);

// The port's two queues.
enum class PortQueue { Output, Input };

}  // namespace kb::line
