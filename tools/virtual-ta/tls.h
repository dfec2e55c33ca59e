// TLS between two tools: 1.3 only, each side presenting a self-signed
// certificate of its identity key and taking the other's only when that
// key's line ID is one it expects. No certificate authority is involved: the
// line ID, passed on between the two people, is the whole of the trust.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <openssl/ssl.h>

#include "virtual-ta/identity.h"

namespace kb::virtual_ta {

// The TLS of one connection: what its peer must be, and what it offered.
struct TlsSession {
    SSL* Ssl = nullptr;
    std::vector<LineId> Accepted;
    std::optional<LineId> Offered;  // the line ID of the certificate the peer presented
    bool WantsWrite = false;        // the handshake waits to write rather than to read

    TlsSession() = default;
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    [[nodiscard]] bool OfferedAccepted() const;
};

enum class HandshakeStep { Done, Waiting, Failed };

// Takes the handshake as far as the socket lets it. Failed when it cannot
// be completed, among others when the peer's line ID is not accepted; the
// reason is in error.
HandshakeStep ContinueHandshake(TlsSession& session, std::string& error);

// One per tool: the certificate made from its key, the rules above.
class TlsContext {
public:
    TlsContext() = default;
    ~TlsContext();
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    [[nodiscard]] bool Open(EVP_PKEY* key, std::string& error);
    // A session on the connected socket, taking the peers given; null if
    // OpenSSL cannot make one.
    std::unique_ptr<TlsSession> Start(int fd, bool listening, std::vector<LineId> accepted);

private:
    SSL_CTX* context_ = nullptr;
};

}  // namespace kb::virtual_ta
