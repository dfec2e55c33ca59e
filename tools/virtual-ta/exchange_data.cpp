// The data side of the exchange: taking bytes from a port in data mode onto
// the line, watching for the escape, and pumping the line.

#include <algorithm>
#include <cstring>

#include "virtual-ta/exchange.h"
#include "virtual-ta/trace.h"

namespace kb::virtual_ta {

namespace {

uint64_t GuardNs(const Adapter& adapter) {
    // S12 counts fiftieths of a second.
    return static_cast<uint64_t>(adapter.Setting("S12")) * 20 * NsPerMs;
}

}  // namespace

size_t Exchange::ReadData(Adapter& adapter, uint64_t now) {
    Call& call = *adapter.InCall;
    DataPath& path = call.From(adapter);
    // A port watched while it was quiet may still bring the headroom's few
    // bytes when the line has no room left.
    size_t room = 0;
    uint8_t* area = path.WriteArea(room, adapter.KnownEmpty);
    if (room == 0) {
        return 0;
    }
    size_t count = 0;
    const bool fromPushback = !adapter.Pushback.empty();
    if (fromPushback) {
        count = std::min(room, adapter.Pushback.size());
        std::memcpy(area, adapter.Pushback.data(), count);
        adapter.Pushback.erase(0, count);
    } else {
        bool purged = false;
        count = ReadPort(adapter.Pty.Master, area, room, &purged);
        if (purged) {
            PortPurged(adapter, now);
            return 0;
        }
    }
    if (count == 0) {
        // Nothing came: the port is quiet, and has been since the last bytes
        // if it was known to be empty then.
        if (!adapter.KnownEmpty) {
            adapter.KnownEmpty = true;
            adapter.EmptySince = now;
        }
        adapter.Blind = false;
        return 0;
    }
    // The escape: "+++" after a silence of the guard time, and followed by
    // one. Silence counts only as far as the port was watched.
    const uint64_t guard = GuardNs(adapter);
    const uint64_t watchedUntil = adapter.Blind ? adapter.BlindSince : now;
    const bool quietBefore = adapter.KnownEmpty && watchedUntil >= adapter.EmptySince + guard;
    const int escape = adapter.Setting("S2");
    bool allEscape = escape <= 127 && count <= 3;
    for (size_t i = 0; allEscape && i < count; ++i) {
        allEscape = area[i] == escape;
    }
    if (adapter.EscapeCount > 0) {
        if (allEscape && adapter.EscapeCount + static_cast<int>(count) <= 3) {
            adapter.EscapeCount += static_cast<int>(count);
            adapter.EscapeDeadline = now + guard;
        } else {
            path.Unhold();  // more came: the "+" were data
            adapter.EscapeCount = 0;
            adapter.EscapeDeadline = Never;
        }
    } else if (allEscape && quietBefore) {
        path.Hold(path.Tail());
        adapter.EscapeCount = static_cast<int>(count);
        adapter.EscapeDeadline = now + guard;
    }
    path.Commit(count);
    if (!fromPushback && count < room) {
        adapter.KnownEmpty = true;
        adapter.EmptySince = now;
    } else {
        adapter.KnownEmpty = false;
    }
    adapter.Blind = false;
    Pump(call, now);
    return count;
}

void Exchange::PortPurged(Adapter& adapter, uint64_t now) {
    // The program threw away what it had written and the adapter had not yet
    // taken, as a port's driver does at a purge; the port is quiet from now.
    DiscardPortInput(adapter.Pty.Master);
    adapter.KnownEmpty = true;
    adapter.EmptySince = now;
    adapter.Blind = false;
    TraceLine(adapter.Who, "port purged");
}

void Exchange::CheckEscape(Call& call, Adapter& end, uint64_t now) {
    if (end.EscapeCount == 0 || now < end.EscapeDeadline) {
        return;
    }
    DataPath& path = call.From(end);
    const bool escaped = end.EscapeCount == 3 && end.Pushback.empty() &&
                         end.Mode == AdapterMode::Data && BytesWaiting(end.Pty.Master) == 0;
    path.Unhold();
    if (escaped) {
        path.DropTail(3);
    }
    end.EscapeCount = 0;
    end.EscapeDeadline = Never;
    if (!escaped) {
        return;  // the held "+" go on as data
    }
    TraceLine(end.Who, "escape to command mode");
    EnterOnlineCommand(call, end);
}

void Exchange::EnterOnlineCommand(Call& call, Adapter& end) {
    // Command mode within the call. What the line had brought for the port
    // goes before the OK; more data for it waits on the line meanwhile.
    end.Mode = AdapterMode::OnlineCommand;
    call.To(end).TakeReady(end.Out);
    Result(end, "OK");
}

void Exchange::Pump(Call& call, uint64_t now) {
    for (Adapter* sender : {call.Caller, call.Answerer}) {
        if (sender == nullptr) {
            continue;  // an end away paces what it sends itself
        }
        std::vector<const FaultSetting*> acted;
        const bool up = call.From(*sender).Release(now, acted);
        for (const FaultSetting* fault : acted) {
            TraceLine(sender->Who,
                      fault->Kind == FaultKind::Corrupt
                          ? "fault: byte " + std::to_string(fault->Offset) + " corrupted"
                          : "fault: line falls after " + std::to_string(fault->Offset) + " bytes");
        }
        if (!up) {
            EndCall(call, EndReason::LineFell, sender);
            return;
        }
    }
    if (call.Away) {
        Forward(call, false);
        Flush(*call.Local());
        return;
    }
    Flush(*call.Caller);
    Flush(*call.Answerer);
}

}  // namespace kb::virtual_ta
