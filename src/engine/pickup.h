// The pick-up folders that a correspondent fetches by calling in or that go
// out by themselves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kb::engine {

struct TransferEngine;

// The pick-up folder that answers a retrieve request: its record, and
// whether it holds anything to send.
struct RetrieveFolder {
    int16_t Index = 0;
    bool HasFiles = false;
};
// The folder that answers a retrieve request for the number; nothing if no
// record with a pick-up folder knows the number.
[[nodiscard]] std::optional<RetrieveFolder> FindRetrieveFolder(TransferEngine& engine,
                                                               const std::string& number);
// Fills the send list from record index's pick-up folder.
void LoadPickUpFolder(TransferEngine& engine, int16_t index);
// The 15-second look at the hot folders: the record whose folder goes out
// now, having stood unchanged since the last look, if any. Every folder's
// total is noted for the next look.
[[nodiscard]] std::optional<int16_t> HotFolderDue(TransferEngine& engine);

// The holder's answer to a line holding RETRIEVE: reads the request behind
// it and sends the pick-up folder, or says why there is none.
void AnswerRetrieveRequest(TransferEngine& engine);

// The pick-up folders themselves, below PickUpPath under each FirmName.
// The number of plain files directly in record index's folder, of its first
// 100 entries, with their bytes in total; nothing if the folder is missing.
[[nodiscard]] std::optional<int16_t> ScanPickUpFolder(TransferEngine& engine, int16_t index,
                                                      uint32_t& total);
// Makes the folder "Sent Files" inside record index's pick-up folder.
void EnsureSentFilesFolder(TransferEngine& engine, int16_t index);

}  // namespace kb::engine
