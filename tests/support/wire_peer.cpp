#include "support/wire_peer.h"

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <thread>
#include <utility>

namespace kb::test {

namespace peer {

namespace {

constexpr size_t Chunk = 1024;

void Put32(std::string& out, std::initializer_list<uint32_t> values) {
    for (const uint32_t value : values) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            out += static_cast<char>((value >> shift) & 0xFF);
        }
    }
}

uint32_t Get32(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) {
        value = (value << 8) | static_cast<uint8_t>(bytes[at + i]);
    }
    return value;
}

// The two-level checksum of a section's file bytes.
uint16_t Crc16(const uint8_t* bytes, size_t length, uint16_t start) {
    uint16_t c = start;
    for (size_t i = 0; i < length; ++i) {
        c = static_cast<uint16_t>(c ^ (bytes[i] << 8));
        for (int bit = 0; bit < 8; ++bit) {
            c = (c & 0x8000) ? static_cast<uint16_t>((c << 1) ^ 0x1021)
                             : static_cast<uint16_t>(c << 1);
        }
    }
    return c;
}

uint16_t SectionChecksum(const uint8_t* bytes, size_t length) {
    const size_t chunks = length <= Chunk ? 0 : (length - 1) / Chunk;
    std::string values;
    for (size_t i = 0; i < chunks; ++i) {
        const uint16_t value = Crc16(bytes + i * Chunk, Chunk, 0);
        values += static_cast<char>(value >> 8);
        values += static_cast<char>(value & 0xFF);
    }
    return Crc16(reinterpret_cast<const uint8_t*>(values.data()), values.size(), 0);
}

}  // namespace

std::string Header(uint32_t fileCount, uint32_t totalBytes, uint32_t magic) {
    std::string out;
    Put32(out, {magic});
    out.append(10, '\0');
    out += std::string("W100\0\0", 6);
    Put32(out, {fileCount, totalBytes});
    return out;
}

std::string Entry(const std::string& name, int32_t kind, uint32_t totalLength,
                  uint32_t dataLength) {
    std::string out = name.substr(0, 31);
    out.resize(32, '\0');
    Put32(out, {static_cast<uint32_t>(kind), totalLength, dataLength, 0});
    out += "dosaTEXT";
    return out;
}

std::string DirectoryEntry(const std::string& name, const std::string& number, bool hasPickUp) {
    std::string bytes(140, '\0');
    bytes.replace(0, name.size(), name);
    bytes.replace(32, number.size(), number);
    bytes.replace(64, 8, std::string("\0\0\0\x01\0\0\0\x01", 8));
    bytes[78] = hasPickUp ? 1 : 0;
    bytes.replace(136, 4, "KBDe");
    return bytes;
}

std::string RecoveryBody(uint32_t dataLength, uint32_t section, uint32_t receiveRemaining) {
    constexpr uint32_t BlockBytes = 8192;
    const uint32_t nextBlock = section * 16;
    std::string out;
    // The block expected next, a whole one; what is left of the list; a plain
    // file; its total and data lengths; no second stream.
    Put32(out, {BlockBytes, receiveRemaining, 0, dataLength, dataLength, 0});
    out += "asodTXET";  // the two codes, each turned like a number
    // Not complete; the next block; the stream's whole blocks; the blocks
    // done; the bytes of its short last block; data not done; the second
    // stream's position, four fields; the empty second stream done; the
    // bytes done.
    Put32(out, {0, nextBlock, dataLength / BlockBytes, nextBlock, dataLength % BlockBytes, 0, 0, 0,
                0, 0, 1, nextBlock * BlockBytes});
    return out;
}

std::string Stream(const std::string& fileBytes) {
    std::string out;
    for (size_t at = 0; at < fileBytes.size(); at += SectionData) {
        const size_t length = std::min(SectionData, fileBytes.size() - at);
        const uint16_t sum =
            SectionChecksum(reinterpret_cast<const uint8_t*>(fileBytes.data() + at), length);
        out += static_cast<char>(sum >> 8);
        out += static_cast<char>(sum & 0xFF);
        out.append(fileBytes, at, length);
    }
    return out;
}

uint32_t StreamLength(size_t fileSize) {
    return static_cast<uint32_t>(fileSize + 2 * ((fileSize + SectionData - 1) / SectionData));
}

std::string SendSession(FarEnd& port, const std::vector<File>& files, const std::string& folder) {
    port.Send("SYNCON\r\n");
    if (port.ReceiveUntil("RCVCON\r\n", 5000).find("RCVCON\r\n") == std::string::npos) {
        return "no RCVCON";
    }
    std::string list = folder.empty() ? "" : Entry(folder, 1, 0, 0);
    uint32_t total = 0;
    size_t withData = 0;
    for (const File& file : files) {
        const uint32_t length = StreamLength(file.Bytes.size());
        list += Entry(file.Name, file.Kind, length, length);
        total += length;
        withData += file.Bytes.empty() ? 0 : 1;
    }
    // Each entry is 56 bytes long.
    port.Send("H100\r\n" + Header(static_cast<uint32_t>(list.size() / 56), total) + list);
    const std::string answer = port.ReceiveUntil("\r\n", 5000);
    if (withData == 0) {
        return answer == "ACK2\r\n" ? "" : "list of empty files answered with " + answer;
    }
    if (answer != "ACK3\r\n") {
        return "list answered with " + answer;
    }
    size_t sent = 0;
    for (const File& file : files) {
        if (file.Bytes.empty()) {
            continue;
        }
        port.Send(Stream(file.Bytes));
        ++sent;
        const std::string expected = sent == withData ? "ACK2\r\n" : "ACK4\r\n";
        const std::string ack = port.ReceiveUntil("\r\n", 30000);
        if (ack != expected) {
            return file.Name + " answered with " + ack;
        }
    }
    return "";
}

namespace {

void SendToken(FarEnd& port, const std::string& token, int pauseMs) {
    if (pauseMs <= 0) {
        port.Send(token);
        return;
    }
    port.Send(token.substr(0, token.size() / 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    port.Send(token.substr(token.size() / 2));
}

}  // namespace

std::string ReceiveSession(FarEnd& port, std::vector<File>& files, std::string* folder,
                           int tokenPauseMs) {
    if (port.ReceiveUntil("SYNCON\r\n", 10000).find("SYNCON\r\n") == std::string::npos) {
        return "no SYNCON";
    }
    SendToken(port, "RCVCON\r\n", tokenPauseMs);
    const std::string token = port.ReceiveUntil("H100\r\n", 5000);
    if (token != "H100\r\n") {
        return "no H100 but " + token;
    }
    const std::string header = port.Receive(28, 2000);
    if (header.size() != 28 || Get32(header, 0) != 0xFFAA5500u ||
        header.compare(4, 10, std::string(10, '\0')) != 0 ||
        header.compare(14, 6, std::string("W100\0\0", 6)) != 0) {
        return "a bad header";
    }
    const uint32_t count = Get32(header, 20);
    const std::string list = port.Receive(56 * size_t{count}, 2000);
    if (list.size() != 56 * size_t{count}) {
        return "a short list";
    }
    // Each file announced, with the length of its stream.
    std::vector<std::pair<File, uint32_t>> announced;
    uint32_t total = 0;
    size_t left = 0;  // files with data still to come
    for (uint32_t i = 0; i < count; ++i) {
        const std::string entry = list.substr(56 * size_t{i}, 56);
        // What follows the name's terminator means nothing.
        const size_t end = entry.find('\0');
        if (end > 31) {
            return "a name without its terminator";
        }
        const std::string name = entry.substr(0, end);
        const uint32_t kind = Get32(entry, 32);
        if (kind == 1) {
            // A folder marker heads the list; nothing but its name counts.
            if (i != 0) {
                return "a folder marker behind a file";
            }
            if (folder != nullptr) {
                *folder = name;
            }
            continue;
        }
        if (kind != 0 && kind != 2) {
            return "an entry of kind " + std::to_string(kind);
        }
        const uint32_t dataLength = Get32(entry, 40);
        const uint32_t lastSection = dataLength % (SectionData + 2);
        if (Get32(entry, 36) != dataLength || Get32(entry, 44) != 0 ||
            entry.compare(48, 8, "dosaTEXT") != 0 || lastSection == 1 || lastSection == 2) {
            return "a bad entry for " + name;
        }
        total += dataLength;
        left += dataLength != 0 ? 1 : 0;
        announced.push_back({{name, "", static_cast<int32_t>(kind)}, dataLength});
    }
    if (total != Get32(header, 24)) {
        return "a total that is not the sum of the entries";
    }
    SendToken(port, "ACK3\r\n", tokenPauseMs);
    for (auto& [file, dataLength] : announced) {
        if (dataLength != 0) {
            const std::string stream = port.Receive(dataLength, 30000);
            if (stream.size() != dataLength) {
                return file.Name + " arrived short";
            }
            for (size_t at = 0; at < stream.size(); at += SectionData + 2) {
                const size_t length = std::min(SectionData, stream.size() - at - 2);
                const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data() + at + 2);
                const uint16_t sum = static_cast<uint16_t>((static_cast<uint8_t>(stream[at]) << 8) |
                                                           static_cast<uint8_t>(stream[at + 1]));
                if (sum != SectionChecksum(bytes, length)) {
                    return file.Name + " has a section that fails its checksum";
                }
                file.Bytes.append(stream, at + 2, length);
            }
            --left;
            SendToken(port, left == 0 ? "ACK2\r\n" : "ACK4\r\n", tokenPauseMs);
        }
        files.push_back(file);
    }
    return "";
}

}  // namespace peer

}  // namespace kb::test
