#include "virtual-ta/identity.h"

#include <fcntl.h>
#include <pwd.h>
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

#include "virtual-ta/trace.h"

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

// The check of a group: its values as the coefficients of a polynomial over
// GF(32), the field of the polynomials over GF(2) of degree below 5 modulo
// x^5 + x^2 + 1, evaluated at x; the check character makes the group's value
// 0. Each position has its own non-zero weight (x^4 down to 1, the check
// character's), so one character wrong changes the value by a non-zero
// multiple of its weight, and two neighbours a and b swapped by
// (a + b)(w1 + w2), non-zero unless a = b. Unlike Luhn mod 32, which misses
// 0Z and Z0.
int TimesX(int value) {
    value <<= 1;
    return (value & Base) != 0 ? value ^ 0x25 : value;
}

int GroupValue(const int* values, size_t count) {
    int sum = 0;
    for (size_t i = 0; i < count; ++i) {
        sum = TimesX(sum) ^ values[i];
    }
    return sum;
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

Key ReadKey(const std::string& path, std::string& error);

// Made in a file of its own beside the key's name, written through to the
// disk and only then given that name, which link() gives only if no other
// file has it: a tool started at the same time on the same new path, or a
// crash half-way, never leaves a short key to be read, and all starts at once
// end with the one key that got the name.
Key MakeKey(const std::string& path, std::string& error, NewKey told) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    if (slash != std::string::npos && !MakeFolders(path.substr(0, slash))) {
        error = Failure(path, "cannot be made in its folder");
        return nullptr;
    }
    Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    const std::optional<LineId> id = key ? LineIdOf(key.get()) : std::nullopt;
    if (!id) {
        error = "cannot make a key pair";
        return nullptr;
    }
    std::string made = path + ".XXXXXX";
    const int fd = ::mkostemp(made.data(), O_CLOEXEC);  // mode 0600, O_EXCL
    if (fd < 0) {
        error = Failure(path, "cannot be made");
        return nullptr;
    }
    FILE* file = ::fdopen(fd, "w");
    const bool written =
        file != nullptr &&
        PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
        std::fflush(file) == 0 && ::fsync(fd) == 0;
    const bool closed = file != nullptr ? std::fclose(file) == 0 : ::close(fd) == 0;
    if (!written || !closed) {
        ::unlink(made.c_str());
        error = "the identity key '" + path + "' cannot be written";
        return nullptr;
    }
    const bool named = ::link(made.c_str(), path.c_str()) == 0;
    const int linkError = errno;
    ::unlink(made.c_str());
    if (!named) {
        if (linkError == EEXIST) {
            return ReadKey(path, error);  // another start made it first
        }
        errno = linkError;
        error = Failure(path, "cannot be made");
        return nullptr;
    }
    // The name too must reach the disk, or a crash brings back no key and a
    // new ID at the next start; a file system that cannot sync a folder
    // (EINVAL) keeps its names its own way.
    const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd < 0 || (::fsync(folderFd) != 0 && errno != EINVAL)) {
        error = Failure(path, "cannot be kept in its folder");
        if (folderFd >= 0) {
            ::close(folderFd);
        }
        return nullptr;
    }
    ::close(folderFd);
    if (told == NewKey::Logged) {
        LogLine("made a new identity key " + path + ", line ID " + id->Text());
    }
    return key;
}

// The existing key. Opened without waiting (a FIFO or a device at the
// key's path would hang the start) and following a link, which a user may
// keep to a key elsewhere; what is opened must then be a file.
Key ReadKey(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
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
        error = "the identity key '" + path + "' may be read by others (mode " +
                ModeText(status.st_mode) + "): make it the user's alone with chmod 600";
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
    if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519 || !LineIdOf(key.get())) {
        error = "the identity key '" + path + "' is not an Ed25519 key in PEM";
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
        text += Alphabet[TimesX(GroupValue(values, GroupLength))];
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
        if (!read || GroupValue(values, GroupLength + 1) != 0) {
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

std::optional<LineId> LineIdOf(const EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    const bool hashed = length > 0 && SHA256(der, static_cast<size_t>(length), digest) != nullptr;
    OPENSSL_free(der);
    if (!hashed) {
        return std::nullopt;
    }
    LineId id;
    std::memcpy(id.Bits.data(), digest, id.Bits.size());
    return id;
}

std::string HomeFolder() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        return home;
    }
    const passwd* user = ::getpwuid(::getuid());
    return user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "";
}

std::string ModeText(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & 07777);
    return text;
}

std::string DefaultIdentityPath() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && config[0] == '/') {
        return std::string(config) + "/kestrelbound/line.key";
    }
    return HomeFolder() + "/.config/kestrelbound/line.key";
}

Key LoadOrMakeKey(const std::string& path, std::string& error, NewKey told) {
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        return MakeKey(path, error, told);
    }
    return ReadKey(path, error);
}

}  // namespace kb::virtual_ta
