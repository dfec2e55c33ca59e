// The data side of the exchange: taking bytes from a port in data mode onto
// the line, watching for the escape, and pumping the line.
#include <algorithm>
#include <cstring>

#include "exchange.h"
#include "trace.h"

namespace {

uint64_t GuardNs(const Adapter& adapter) {
    // S12 counts fiftieths of a second.
    return static_cast<uint64_t>(adapter.Setting("S12")) * 20 * kNsPerMs;
}

}  // namespace

size_t Exchange::ReadData(Adapter& adapter, uint64_t now) {
    Call& call = *adapter.call;
    DataPath& path = call.From(adapter);
    size_t room = 0;
    uint8_t* area = path.WriteArea(room);
    if (room == 0) {
        return 0;
    }
    size_t count = 0;
    const bool fromPushback = !adapter.pushback.empty();
    if (fromPushback) {
        count = std::min(room, adapter.pushback.size());
        std::memcpy(area, adapter.pushback.data(), count);
        adapter.pushback.erase(0, count);
    } else {
        count = ReadPort(adapter.pty.master, area, room);
    }
    if (count == 0) {
        // Nothing came: the port is quiet, and has been since the last bytes
        // if it was known to be empty then.
        if (!adapter.knownEmpty) {
            adapter.knownEmpty = true;
            adapter.emptySince = now;
        }
        adapter.blind = false;
        return 0;
    }
    // The escape: "+++" after a silence of the guard time, and followed by
    // one. Silence counts only as far as the port was watched.
    const uint64_t guard = GuardNs(adapter);
    const uint64_t watchedUntil = adapter.blind ? adapter.blindSince : now;
    const bool quietBefore = adapter.knownEmpty && watchedUntil >= adapter.emptySince + guard;
    const int escape = adapter.Setting("S2");
    bool allEscape = escape <= 127 && count <= 3;
    for (size_t i = 0; allEscape && i < count; ++i) {
        allEscape = area[i] == escape;
    }
    if (adapter.escapeCount > 0) {
        if (allEscape && adapter.escapeCount + static_cast<int>(count) <= 3) {
            adapter.escapeCount += static_cast<int>(count);
            adapter.escapeDeadline = now + guard;
        } else {
            path.Unhold();  // more came: the "+" were data
            adapter.escapeCount = 0;
            adapter.escapeDeadline = kNever;
        }
    } else if (allEscape && quietBefore) {
        path.Hold(path.Tail());
        adapter.escapeCount = static_cast<int>(count);
        adapter.escapeDeadline = now + guard;
    }
    path.Commit(count);
    if (!fromPushback && count < room) {
        adapter.knownEmpty = true;
        adapter.emptySince = now;
    } else {
        adapter.knownEmpty = false;
    }
    adapter.blind = false;
    Pump(call, now);
    return count;
}

void Exchange::CheckEscape(Call& call, Adapter& end, uint64_t now) {
    if (end.escapeCount == 0 || now < end.escapeDeadline) {
        return;
    }
    DataPath& path = call.From(end);
    const bool escaped = end.escapeCount == 3 && end.pushback.empty() &&
                         end.mode == AdapterMode::Data && BytesWaiting(end.pty.master) == 0;
    path.Unhold();
    if (escaped) {
        path.DropTail(3);
    }
    end.escapeCount = 0;
    end.escapeDeadline = kNever;
    if (!escaped) {
        return;  // the held "+" go on as data
    }
    // Command mode within the call. What the line had brought for the port
    // goes before the OK; more data for it waits on the line meanwhile.
    end.mode = AdapterMode::OnlineCommand;
    call.To(end).TakeReady(end.out);
    TraceLine(end.who, "escape to command mode");
    Result(end, "OK");
}

void Exchange::Pump(Call& call, uint64_t now) {
    for (Adapter* sender : {call.caller, call.answerer}) {
        std::vector<const FaultSpec*> acted;
        const bool up = call.From(*sender).Release(now, acted);
        for (const FaultSpec* fault : acted) {
            TraceLine(sender->who,
                      fault->kind == FaultKind::Corrupt
                          ? "fault: byte " + std::to_string(fault->offset) + " corrupted"
                          : "fault: line falls after " + std::to_string(fault->offset) + " bytes");
        }
        if (!up) {
            EndCall(call, EndReason::LineFell, sender);
            return;
        }
    }
    Flush(*call.caller);
    Flush(*call.answerer);
}
