#include "virtual-ta/data_path.h"

#include <algorithm>
#include <cmath>

#include "virtual-ta/deadline.h"

namespace kb::virtual_ta {

namespace {

// SplitMix64: small, fast, and the same sequence on every machine, which the
// library's engines and distributions do not all promise.
uint64_t NextRandom(uint64_t& state) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

// The clean bytes before the next garbled one: a geometric draw, so that the
// cost is per garbled byte rather than per byte carried.
uint64_t CleanRun(FaultSetting& noise) {
    // Uniform in (0, 1]: the log below stays finite.
    const double uniform = static_cast<double>((NextRandom(noise.State) >> 11) + 1) * 0x1.0p-53;
    const double run = std::floor(std::log(uniform) / std::log1p(-noise.Probability));
    return run >= 0x1.0p62 ? uint64_t{1} << 62 : static_cast<uint64_t>(run);
}

}  // namespace

DataPath::DataPath(size_t capacity, uint64_t bytesPerSecond, uint64_t nowNs)
    : data_(capacity + HeadroomBytes), capacity_(capacity + HeadroomBytes), limit_(capacity) {
    bucket_.Start(bytesPerSecond, nowNs);
    // An adapter hands the data of its B channels to the port frame by frame,
    // not byte by byte: at least a frame of 256 bytes (V.120's information
    // field is 260), or 5 ms of line when that is more.
    chunk_ = std::max<uint64_t>(FrameBytes, bytesPerSecond / 200);
}

uint8_t* DataPath::WriteArea(size_t& length, bool watched) {
    const size_t at = static_cast<size_t>(tail_ % capacity_);
    const size_t room = Free() == 0 && watched ? capacity_ - Used() : Free();
    length = std::min(room, capacity_ - at);
    return data_.data() + at;
}

bool DataPath::Release(uint64_t nowNs, std::vector<const FaultSetting*>& acted) {
    return Put(nowNs, acted, false);
}

bool DataPath::ReleaseAll(std::vector<const FaultSetting*>& acted) {
    holding_ = false;
    return Put(0, acted, true);
}

bool DataPath::Put(uint64_t nowNs, std::vector<const FaultSetting*>& acted, bool unpaced) {
    // The nearest drop fault still to act bounds what may go.
    FaultSetting* drop = nullptr;
    for (FaultSetting* fault : faults_) {
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
    for (FaultSetting* fault : faults_) {
        if (!fault->Acted && fault->Kind == FaultKind::Corrupt && fault->Offset >= released_ &&
            fault->Offset < released_ + count) {
            data_[static_cast<size_t>(fault->Offset % capacity_)] ^= 0x01;
            fault->Acted = true;
            acted.push_back(fault);
        }
    }
    for (FaultSetting* fault : faults_) {
        if (fault->Kind == FaultKind::Noise) {
            AddNoise(*fault, count);
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

void DataPath::AddNoise(FaultSetting& noise, uint64_t count) {
    if (!noise.Started) {
        noise.Started = true;
        noise.State = noise.Seed;
        noise.UntilNext = CleanRun(noise);
    }
    uint64_t at = released_;
    const uint64_t end = released_ + count;
    while (end - at > noise.UntilNext) {
        at += noise.UntilNext;
        data_[static_cast<size_t>(at % capacity_)] ^=
            static_cast<uint8_t>(1 + NextRandom(noise.State) % 255);
        ++garbled_;
        ++at;
        noise.UntilNext = CleanRun(noise);
    }
    noise.UntilNext -= end - at;
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

}  // namespace kb::virtual_ta
