// The tool's identity: an Ed25519 key pair kept in a file of the user's own,
// and the line ID that names it. The ID is what two people pass on to each
// other, like a telephone number: the first 120 bits of the SHA-256 of the
// public key (its DER SubjectPublicKeyInfo), written as 24 characters of
// Crockford's base32 in 6 groups of 4, each group followed by a check
// character, e.g. "7K2M9-QX4TZ-...". A typo is caught in its group.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <openssl/evp.h>

namespace kb::virtual_ta {

struct LineId {
    std::array<uint8_t, 15> Bits{};  // the first 120 bits of the fingerprint

    // "XXXXC-XXXXC-XXXXC-XXXXC-XXXXC-XXXXC".
    [[nodiscard]] std::string Text() const;
    bool operator==(const LineId&) const = default;
};

// Reads a line ID as a person may have typed it: in lower case, with I or L
// for 1 and O for 0, with blanks and dashes anywhere. Empty with a reason,
// naming the group that holds the typo, when it is not one.
std::optional<LineId> ParseLineId(std::string_view text, std::string& error);

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;

// The line ID of a public key (or of a key pair's public half); empty if
// the key cannot be encoded, which no ID may stand for.
std::optional<LineId> LineIdOf(const EVP_PKEY* key);

// The user's home folder: $HOME, or the user database's when it is unset
// (a service may be started without it); empty if neither says.
std::string HomeFolder();

// A file's permission bits in octal, "0644", for the messages that refuse a
// file others may read or change.
std::string ModeText(unsigned mode);

// Where the key is kept unless --identity says otherwise:
// $XDG_CONFIG_HOME/kestrelbound/line.key, or ~/.config/kestrelbound/line.key.
std::string DefaultIdentityPath();

// Whether making a new key is told in the tool's log. A new key at a start
// gives the tool an ID that every peer refuses, so it is logged, except when
// the user asked for the ID to pass on.
enum class NewKey { Logged, Quiet };

// The key pair in the file; made there, with mode 0600 and its folders as
// needed, when the file does not exist. Null with a reason when the file can
// be read by others, is no Ed25519 key, or cannot be read or made; a key
// given has a line ID. Several tools starting at once on a new path all end
// with the one key made.
Key LoadOrMakeKey(const std::string& path, std::string& error, NewKey told = NewKey::Logged);

}  // namespace kb::virtual_ta
