// One direction of a connected call: the bytes that one adapter has taken
// from its port, on their way over the line to the far adapter's port.
//
// Bytes pass three marks, counted from the first data byte of the call:
//   head      handed to the far port
//   released  put on the line (paced by the token bucket; faults act here)
//   tail      taken from the near port
// Between released and tail wait bytes that the line has not carried yet, and
// possibly, at the very end, a "+++" that may turn out to be an escape and is
// held back until that is decided.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "virtual-ta/options.h"
#include "virtual-ta/token_bucket.h"

namespace kb::virtual_ta {

class DataPath {
public:
    DataPath(size_t capacity, uint64_t bytesPerSecond, uint64_t nowNs);

    // Faults of the sending adapter that act in this call.
    void Arm(FaultSetting* fault) { faults_.push_back(fault); }

    // Taking bytes in from the near port. Free is the line's own room; a
    // port that the adapter has been watching while it was quiet may bring a
    // few bytes more, the headroom that a real adapter keeps when it holds
    // its port back, so that an escape still reaches it on a full line.
    [[nodiscard]] size_t Free() const { return Used() < limit_ ? limit_ - Used() : 0; }
    [[nodiscard]] bool HasHeadroom() const { return Used() < capacity_; }
    // The contiguous free space at the tail; with the line's own room gone,
    // the headroom, if the port has been watched.
    uint8_t* WriteArea(size_t& length, bool watched = false);
    void Commit(size_t count) { tail_ += count; }
    [[nodiscard]] uint64_t Tail() const { return tail_; }
    // Holds back the bytes from position on, until Unhold.
    void Hold(uint64_t position) {
        holding_ = true;
        holdFrom_ = position;
    }
    void Unhold() { holding_ = false; }
    // Takes the last count bytes back out (a "+++" that was an escape).
    void DropTail(size_t count) { tail_ -= count; }

    // Puts what the bucket allows on the line, and acts the faults whose
    // offsets it passes; those that act are added to acted. False when a drop
    // fault made the line fall: nothing beyond its offset is released.
    [[nodiscard]] bool Release(uint64_t nowNs, std::vector<const FaultSetting*>& acted);
    // Puts every byte taken in on the line at once, held ones included: what
    // an adapter had taken from its port goes out before its hang-up. False
    // if a drop fault made the line fall on the way.
    [[nodiscard]] bool ReleaseAll(std::vector<const FaultSetting*>& acted);
    // When Release can put more on the line; Never if nothing waits for it.
    uint64_t NextReleaseAt(uint64_t nowNs);

    // Handing bytes out to the far port: the contiguous run of released bytes.
    const uint8_t* Ready(size_t& length) const;
    void Consume(size_t count) { head_ += count; }
    [[nodiscard]] size_t ReadyCount() const { return static_cast<size_t>(released_ - head_); }
    [[nodiscard]] size_t Waiting() const { return static_cast<size_t>(tail_ - head_); }

    // Appends the released bytes to the text and counts them as handed out.
    void TakeReady(std::string& into);
    // At the end of a call: appends the released bytes to the text, and
    // empties the path; bytes that the line had not carried are lost.
    void MoveReleased(std::string& into);

    // Bytes put on the line so far, and how many of them noise garbled.
    [[nodiscard]] uint64_t Sent() const { return released_; }
    [[nodiscard]] uint64_t Garbled() const { return garbled_; }

private:
    [[nodiscard]] bool Put(uint64_t nowNs, std::vector<const FaultSetting*>& acted, bool unpaced);
    // Garbles the bytes of [released_, released_ + count) that the noise hits.
    void AddNoise(FaultSetting& noise, uint64_t count);
    void AppendRange(uint64_t from, uint64_t to, std::string& into) const;

    [[nodiscard]] size_t Used() const { return static_cast<size_t>(tail_ - head_); }

    std::vector<uint8_t> data_;
    size_t capacity_;  // the line's room and the headroom
    size_t limit_;     // the line's room
    uint64_t head_ = 0;
    uint64_t released_ = 0;
    uint64_t tail_ = 0;
    uint64_t garbled_ = 0;
    bool holding_ = false;
    uint64_t holdFrom_ = 0;
    TokenBucket bucket_;
    static constexpr uint64_t FrameBytes = 256;
    // As many as an escape has characters.
    static constexpr size_t HeadroomBytes = 3;
    uint64_t chunk_;  // bytes worth waking up for: a frame, or 5 ms of line
    std::vector<FaultSetting*> faults_;
};

}  // namespace kb::virtual_ta
