#include "engine/resume_record.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "engine/checksum.h"
#include "engine/recovery.h"
#include "engine/sessions.h"
#include "engine/transfer_engine.h"
#include "engine/wire.h"
#include "platform/files.h"

namespace kb::engine {

using namespace kb::platform;

namespace {

// The record's layout: the magic, the body in wire order, the three texts of
// the entry at their fixed widths, and the Crc16 of all that, low byte first
// as the stores keep their integers.
constexpr std::string_view RecordMagic = "KBRESUME";
constexpr size_t BodyAt = RecordMagic.size();
constexpr size_t WireNameAt = BodyAt + sizeof(RecoveryBody);
constexpr size_t DisplayNameAt = WireNameAt + sizeof(FileEntry::WireName);
constexpr size_t FilePathAt = DisplayNameAt + sizeof(FileEntry::DisplayName);
constexpr size_t CheckAt = FilePathAt + sizeof(FileEntry::FilePath);
constexpr size_t RecordBytes = CheckAt + 2;
using Record = std::array<uint8_t, RecordBytes>;

uint16_t CheckOf(const Record& record) {
    return Crc16(record.data(), static_cast<uint32_t>(CheckAt), 0);
}

void WriteRecord(TransferEngine& engine, const Record& record, bool create) {
    const std::string path = engine.Stores().Paths.ResumeRecordPath;
    File file;
    if (!file.Open(path, File::Mode::Write) &&
        !(create && file.Open(path, File::Mode::CreateReadWrite))) {
        return;
    }
    // A record not written is one that the next start does not take up.
    static_cast<void>(file.Write(record.data(), static_cast<uint32_t>(RecordBytes)));
}

// Whether the part that the entry names may be taken up: a part this program
// made in "Incoming Files", holding the recorded sections and at most one
// section more, which is cut off. Anything else is left as it stands.
bool PartTakesUp(TransferEngine& engine, const FileEntry& entry) {
    const std::string path(entry.FilePath.View());
    const std::string_view view(path);
    const std::string folder = engine.Stores().Paths.IncomingPath + "/";
    if (entry.WireName.IsEmpty() || entry.DisplayName.IsEmpty() ||
        view.substr(0, folder.size()) != folder || view.find("/../") != std::string_view::npos ||
        view.size() <= PartMarker.size() ||
        view.substr(view.size() - PartMarker.size()) != PartMarker ||
        KindOfPath(path) != PathKind::File) {
        return false;
    }
    File file;
    if (!file.Open(path, File::Mode::Write)) {
        return false;
    }
    const int64_t recorded = PartialFileLength(entry.NextBlock);
    // A part whose length cannot be told is left as it stands.
    const std::optional<int64_t> length = file.Length();
    if (!length || *length < recorded || *length > recorded + int64_t{SectionFileBytes}) {
        return false;
    }
    return *length == recorded || file.Truncate(recorded);
}

}  // namespace

void SaveResumeCandidate(TransferEngine& engine) {
    const FileEntry& saved = engine.SavedEntry;
    Record record{};
    std::memcpy(record.data(), RecordMagic.data(), RecordMagic.size());
    std::memcpy(record.data() + BodyAt, &engine.RecoveryRecord.Body, sizeof(RecoveryBody));
    std::memcpy(record.data() + WireNameAt, saved.WireName.Bytes, sizeof saved.WireName);
    std::memcpy(record.data() + DisplayNameAt, saved.DisplayName.Bytes, sizeof saved.DisplayName);
    std::memcpy(record.data() + FilePathAt, saved.FilePath.Bytes, sizeof saved.FilePath);
    const uint16_t check = CheckOf(record);
    record[CheckAt] = static_cast<uint8_t>(check & 0xFF);
    record[CheckAt + 1] = static_cast<uint8_t>(check >> 8);
    WriteRecord(engine, record, true);
}

void ForgetResumeCandidate(TransferEngine& engine) {
    engine.SavedEntry.WireName.Clear();
    // Nothing in it is a record: no magic.
    WriteRecord(engine, Record{}, false);
}

void LoadResumeCandidate(TransferEngine& engine) {
    engine.SavedEntry = FileEntry{};
    Record record{};
    {
        File file;
        if (!file.Open(engine.Stores().Paths.ResumeRecordPath, File::Mode::Read) ||
            file.Read(record.data(), static_cast<uint32_t>(RecordBytes)) != RecordBytes) {
            return;
        }
    }
    const uint16_t check = static_cast<uint16_t>(record[CheckAt] | (record[CheckAt + 1] << 8));
    if (std::memcmp(record.data(), RecordMagic.data(), RecordMagic.size()) != 0 ||
        check != CheckOf(record)) {
        return;  // torn, cleared, or not ours
    }
    const RecoveryBody body = RecordFromBytes<RecoveryBody>(record.data() + BodyAt);
    FileEntry entry;
    ApplyRecoveryBody(body, entry);
    std::memcpy(entry.WireName.Bytes, record.data() + WireNameAt, sizeof entry.WireName);
    std::memcpy(entry.DisplayName.Bytes, record.data() + DisplayNameAt, sizeof entry.DisplayName);
    std::memcpy(entry.FilePath.Bytes, record.data() + FilePathAt, sizeof entry.FilePath);
    // The texts are terminated whatever the record held.
    entry.WireName.Bytes[sizeof entry.WireName - 1] = 0;
    entry.DisplayName.Bytes[sizeof entry.DisplayName - 1] = 0;
    entry.FilePath.Bytes[sizeof entry.FilePath - 1] = 0;
    if (!RecoveryBodySound(body) ||
        RecoveryPositionOf(body).ExpectedBlock != ExpectedBlockOf(entry) ||
        !PartTakesUp(engine, entry)) {
        ForgetResumeCandidate(engine);
        return;
    }
    engine.SavedEntry = entry;
    engine.RecoveryRecord = MakeRecoveryMessage(TokenFileRecovr, body);
}

int64_t PartialFileLength(int16_t nextBlock) {
    return SectionFileOffset(nextBlock);
}

bool SavedPartialIntact(TransferEngine& engine) {
    const FileEntry& saved = engine.SavedEntry;
    if (saved.WireName.IsEmpty() || saved.NextBlock < 0 ||
        saved.NextBlock % static_cast<int16_t>(BlocksPerSection) != 0) {
        return false;
    }
    File file;
    if (!file.Open(std::string(saved.FilePath.View()), File::Mode::Read)) {
        return false;
    }
    return file.Length() == PartialFileLength(saved.NextBlock);
}

}  // namespace kb::engine
