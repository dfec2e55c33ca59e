// The files to send, with their count and the wire bytes still to send.
//
// The window fills the list and the engine's threads empty it, entry by entry,
// as each file is through. So that the two never keep sums of their own that
// drift apart, every change of the count and the total is made here: the
// window asks the list to add, remove and clear, and reads it back for its
// rows and figures.
//
// The count and the total are atomic: the feeder books each block against the
// total and the communications thread drops finished entries while the window
// thread reads both for the display. The entries themselves are handed from
// thread to thread as the transfer engine's header tells: the main thread
// edits them only while no link is up, and during a transfer only the top
// entry changes, in the hands of whichever thread the link's state allows.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "engine/file_entry.h"
#include "engine/wire.h"

namespace kb::engine {

class SendList {
public:
    SendList() = default;
    SendList(const SendList&) = delete;
    SendList& operator=(const SendList&) = delete;

    // The slots are made once, before the engine's threads start, and freed
    // after they have stopped, by the engine's start and shutdown; a thread
    // still running at the process's exit finds them there.
    void Allocate();
    void Free();
    [[nodiscard]] bool Allocated() const { return entries_ != nullptr; }

    // Entries held, 0 to ListCapacity.
    [[nodiscard]] int16_t Count() const;
    [[nodiscard]] bool IsEmpty() const { return Count() == 0; }
    [[nodiscard]] bool IsFull() const { return Count() >= ListCapacity; }
    // Wire bytes still to send over the whole list.
    [[nodiscard]] uint32_t Remaining() const { return remaining_.load(); }

    // Entry i, 0 being the file in hand.
    FileEntry& operator[](int index) { return entries_[index]; }
    const FileEntry& operator[](int index) const { return entries_[index]; }

    // Appends an entry and counts its bytes; false, and nothing changed, when
    // the list is full.
    [[nodiscard]] bool Add(const FileEntry& entry);
    // Empties the list and puts the marker of a folder on top: the files of
    // the folder are added behind it. The marker carries no bytes.
    void StartFolder(const FileEntry& marker);
    // Takes entry index out, moves the later ones up and sums the list again;
    // false if there is no such entry.
    bool Remove(int index);
    // Empties the list.
    void Clear();
    // Takes the top entry off after it has been sent; the total becomes that
    // of the entries left. Nothing happens to an empty list.
    void DropFirst();
    // Sums the wire bytes of the list again, folder markers left out, and
    // returns the sum, which is the new total.
    uint32_t RecomputeTotal();
    // The feeder has handed out a block of bytes of the top entry; the total
    // never goes below 0.
    void Book(uint32_t bytes);
    // The far end's position has put the top entry back: what it reports is
    // still to send.
    void SetRemaining(uint32_t bytes) { remaining_.store(bytes); }

private:
    std::unique_ptr<FileEntry[]> entries_;
    std::atomic<int16_t> count_{0};
    std::atomic<uint32_t> remaining_{0};
};

}  // namespace kb::engine
