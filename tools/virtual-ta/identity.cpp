#include "virtual-ta/identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

namespace kb::virtual_ta {

namespace {

constexpr char Alphabet[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
constexpr int Base = 32;
constexpr size_t Groups = 6;
constexpr size_t GroupLength = 4;  // characters of the ID in a group, before its check

// The value of a character as read: -1 for one that is in no line ID.
int ValueOf(char c) {
    if (c >= 'a' && c <= 'z') {
        c = static_cast<char>(c - 'a' + 'A');
    }
    if (c == 'I' || c == 'L') {
        c = '1';
    } else if (c == 'O') {
        c = '0';
    }
    const char* at = std::strchr(Alphabet, c);
    return c != '\0' && at != nullptr ? static_cast<int>(at - Alphabet) : -1;
}

// Luhn mod 32: every second value from the right doubled, the digits of
// the sum in base 32 added. Catches any one character wrong and any two
// neighbours swapped.
int LuhnSum(const int* values, size_t count, bool withCheck) {
    int factor = withCheck ? 1 : 2;
    int sum = 0;
    for (size_t i = count; i-- > 0;) {
        const int addend = factor * values[i];
        sum += addend / Base + addend % Base;
        factor = 3 - factor;
    }
    return sum % Base;
}

// The five bits of the ID at position index (0 to 23), the first bit of the
// fingerprint the highest of the first.
int Quintet(const LineId& id, size_t index) {
    int value = 0;
    for (size_t bit = index * 5; bit < index * 5 + 5; ++bit) {
        value = (value << 1) | ((id.Bits[bit / 8] >> (7 - bit % 8)) & 1);
    }
    return value;
}

void SetQuintet(LineId& id, size_t index, int value) {
    for (size_t k = 0; k < 5; ++k) {
        const size_t bit = index * 5 + k;
        if (((value >> (4 - k)) & 1) != 0) {
            id.Bits[bit / 8] = static_cast<uint8_t>(id.Bits[bit / 8] | (0x80 >> (bit % 8)));
        }
    }
}

std::string Failure(const std::string& path, const char* what) {
    return "the identity key '" + path + "' " + what + ": " + std::strerror(errno);
}

// Folders up to the key's are made for the user alone.
bool MakeFolders(const std::string& folder) {
    if (folder.empty() || ::access(folder.c_str(), F_OK) == 0) {
        return true;
    }
    const size_t slash = folder.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeFolders(folder.substr(0, slash))) {
        return false;
    }
    return ::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST;
}

Key MakeKey(const std::string& path, std::string& error) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && !MakeFolders(path.substr(0, slash))) {
        error = Failure(path, "cannot be made in its folder");
        return nullptr;
    }
    Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    if (!key) {
        error = "cannot make a key pair";
        return nullptr;
    }
    // Made afresh, never over a file that appeared meanwhile.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = Failure(path, "cannot be made");
        return nullptr;
    }
    FILE* file = ::fdopen(fd, "w");
    const bool written = file != nullptr && PEM_write_PrivateKey(file, key.get(), nullptr, nullptr,
                                                                 0, nullptr, nullptr) == 1;
    const bool closed = file != nullptr ? std::fclose(file) == 0 : ::close(fd) == 0;
    if (!written || !closed) {
        ::unlink(path.c_str());
        error = "the identity key '" + path + "' cannot be written";
        return nullptr;
    }
    return key;
}

}  // namespace

std::string LineId::Text() const {
    std::string text;
    for (size_t group = 0; group < Groups; ++group) {
        int values[GroupLength];
        for (size_t i = 0; i < GroupLength; ++i) {
            values[i] = Quintet(*this, group * GroupLength + i);
            text += Alphabet[values[i]];
        }
        text += Alphabet[(Base - LuhnSum(values, GroupLength, false)) % Base];
        if (group + 1 < Groups) {
            text += '-';
        }
    }
    return text;
}

std::optional<LineId> ParseLineId(std::string_view text, std::string& error) {
    std::string kept;
    for (const char c : text) {
        if (c != ' ' && c != '\t' && c != '-') {
            kept += c;
        }
    }
    constexpr size_t Length = Groups * (GroupLength + 1);
    if (kept.size() != Length) {
        error = "a line ID has " + std::to_string(Length) + " characters in 6 groups of 5, not " +
                std::to_string(kept.size());
        return std::nullopt;
    }
    LineId id;
    for (size_t group = 0; group < Groups; ++group) {
        int values[GroupLength + 1];
        bool read = true;
        for (size_t i = 0; i <= GroupLength; ++i) {
            values[i] = ValueOf(kept[group * (GroupLength + 1) + i]);
            read = read && values[i] >= 0;
        }
        if (!read || LuhnSum(values, GroupLength + 1, true) != 0) {
            error = "group " + std::to_string(group + 1) + " of the line ID (" +
                    kept.substr(group * (GroupLength + 1), GroupLength + 1) + ") has a typo";
            return std::nullopt;
        }
        for (size_t i = 0; i < GroupLength; ++i) {
            SetQuintet(id, group * GroupLength + i, values[i]);
        }
    }
    return id;
}

LineId LineIdOf(const EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    unsigned char digest[SHA256_DIGEST_LENGTH] = {};
    if (length > 0) {
        SHA256(der, static_cast<size_t>(length), digest);
    }
    OPENSSL_free(der);
    LineId id;
    std::memcpy(id.Bits.data(), digest, id.Bits.size());
    return id;
}

std::string DefaultIdentityPath() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && config[0] == '/') {
        return std::string(config) + "/kestrelbound/line.key";
    }
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr ? home : ".") + "/.config/kestrelbound/line.key";
}

Key LoadOrMakeKey(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            return MakeKey(path, error);
        }
        error = Failure(path, "cannot be read");
        return nullptr;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        error = "the identity key '" + path + "' is not a file";
        return nullptr;
    }
    if ((status.st_mode & 077) != 0) {
        ::close(fd);
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        error = "the identity key '" + path + "' may be read by others (mode " + mode +
                "): make it the user's alone with chmod 600";
        return nullptr;
    }
    FILE* file = ::fdopen(fd, "r");
    // A key under a pass phrase is refused rather than asked for: the tool
    // runs without a terminal.
    pem_password_cb* noPassPhrase = [](char*, int, int, void*) { return 0; };
    Key key(file != nullptr ? PEM_read_PrivateKey(file, nullptr, noPassPhrase, nullptr) : nullptr);
    if (file != nullptr) {
        std::fclose(file);
    } else {
        ::close(fd);
    }
    if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519) {
        error = "the identity key '" + path + "' is not an Ed25519 key in PEM";
        return nullptr;
    }
    return key;
}

}  // namespace kb::virtual_ta
