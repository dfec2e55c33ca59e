#include "virtual-ta/data_path.h"

#include <algorithm>

#include "virtual-ta/deadline.h"

DataPath::DataPath(size_t capacity, uint64_t bytesPerSecond, uint64_t nowNs)
    : data_(capacity), capacity_(capacity) {
    bucket_.Start(bytesPerSecond, nowNs);
    // An adapter hands the data of its B channels to the port frame by frame,
    // not byte by byte: at least a frame of 256 bytes (V.120's information
    // field is 260), or 5 ms of line when that is more.
    chunk_ = std::max<uint64_t>(FrameBytes, bytesPerSecond / 200);
}

uint8_t* DataPath::WriteArea(size_t& length) {
    const size_t at = static_cast<size_t>(tail_ % capacity_);
    length = std::min(Free(), capacity_ - at);
    return data_.data() + at;
}

bool DataPath::Release(uint64_t nowNs, std::vector<const FaultSpec*>& acted) {
    return Put(nowNs, acted, false);
}

bool DataPath::ReleaseAll(std::vector<const FaultSpec*>& acted) {
    holding_ = false;
    return Put(0, acted, true);
}

bool DataPath::Put(uint64_t nowNs, std::vector<const FaultSpec*>& acted, bool unpaced) {
    // The nearest drop fault still to act bounds what may go.
    FaultSpec* drop = nullptr;
    for (FaultSpec* fault : faults_) {
        if (!fault->Acted && fault->Kind == FaultKind::Drop &&
            (drop == nullptr || fault->Offset < drop->Offset)) {
            drop = fault;
        }
    }
    const auto fall = [&]() {
        drop->Acted = true;
        acted.push_back(drop);
        return false;
    };
    if (drop != nullptr && drop->Offset <= released_) {
        return fall();
    }
    const uint64_t limit = holding_ ? std::max(holdFrom_, released_) : tail_;
    uint64_t count = limit - released_;
    if (count == 0) {
        return true;
    }
    if (!unpaced) {
        count = std::min(count, bucket_.Available(nowNs));
    }
    if (drop != nullptr) {
        count = std::min(count, drop->Offset - released_);
    }
    if (count == 0) {
        return true;
    }
    for (FaultSpec* fault : faults_) {
        if (!fault->Acted && fault->Kind == FaultKind::Corrupt && fault->Offset >= released_ &&
            fault->Offset < released_ + count) {
            data_[static_cast<size_t>(fault->Offset % capacity_)] ^= 0x01;
            fault->Acted = true;
            acted.push_back(fault);
        }
    }
    released_ += count;
    if (!unpaced) {
        bucket_.Take(count);
    }
    if (drop != nullptr && drop->Offset == released_) {
        return fall();
    }
    return true;
}

uint64_t DataPath::NextReleaseAt(uint64_t nowNs) {
    const uint64_t limit = holding_ ? std::max(holdFrom_, released_) : tail_;
    const uint64_t waiting = limit - released_;
    if (waiting == 0) {
        return Never;
    }
    return bucket_.TimeWhen(std::min(waiting, chunk_), nowNs);
}

const uint8_t* DataPath::Ready(size_t& length) const {
    const size_t at = static_cast<size_t>(head_ % capacity_);
    length = std::min(ReadyCount(), capacity_ - at);
    return data_.data() + at;
}

void DataPath::AppendRange(uint64_t from, uint64_t to, std::string& into) const {
    for (uint64_t at = from; at < to;) {
        const size_t index = static_cast<size_t>(at % capacity_);
        const size_t run = static_cast<size_t>(std::min<uint64_t>(to - at, capacity_ - index));
        into.append(reinterpret_cast<const char*>(data_.data()) + index, run);
        at += run;
    }
}

void DataPath::TakeReady(std::string& into) {
    AppendRange(head_, released_, into);
    head_ = released_;
}

void DataPath::MoveReleased(std::string& into) {
    AppendRange(head_, released_, into);
    head_ = released_ = tail_;
    holding_ = false;
}
