#include "virtual-ta/tls.h"

#include <algorithm>

#include <openssl/err.h>
#include <openssl/x509.h>

namespace kb::virtual_ta {

namespace {

struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using Certificate = std::unique_ptr<X509, CertificateFree>;

// The certificate only carries the key: its names and dates say nothing
// that is checked, so it is valid from yesterday for a century.
Certificate SelfSigned(EVP_PKEY* key) {
    const std::optional<LineId> id = LineIdOf(key);
    if (!id) {
        return nullptr;
    }
    Certificate certificate(X509_new());
    X509_NAME* name = X509_NAME_new();
    const bool made =
        certificate && name != nullptr &&
        X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
        ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) == 1 &&
        X509_time_adj_ex(X509_getm_notBefore(certificate.get()), -1, 0, nullptr) != nullptr &&
        X509_time_adj_ex(X509_getm_notAfter(certificate.get()), 36525, 0, nullptr) != nullptr &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(id->Text().c_str()), -1,
                                   -1, 0) == 1 &&
        X509_set_subject_name(certificate.get(), name) == 1 &&
        X509_set_issuer_name(certificate.get(), name) == 1 &&
        X509_set_pubkey(certificate.get(), key) == 1 &&
        X509_sign(certificate.get(), key, nullptr) > 0;
    X509_NAME_free(name);
    return made ? std::move(certificate) : nullptr;
}

// The peer's own certificate decides, by its key's line ID alone; a
// certificate above it in a chain it sends is of no account, since the
// handshake proves only the possession of the first one's key.
int VerifyPeer(int /*preverified*/, X509_STORE_CTX* store) {
    if (X509_STORE_CTX_get_error_depth(store) != 0) {
        return 1;
    }
    auto* ssl =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* session = ssl != nullptr ? static_cast<TlsSession*>(SSL_get_app_data(ssl)) : nullptr;
    const X509* certificate = X509_STORE_CTX_get_current_cert(store);
    const EVP_PKEY* key = certificate != nullptr ? X509_get0_pubkey(certificate) : nullptr;
    if (session == nullptr || key == nullptr) {
        return 0;
    }
    const std::optional<LineId> offered = LineIdOf(key);
    if (!offered) {
        return 0;
    }
    session->Offered = *offered;
    if (session->OfferedAccepted()) {
        return 1;
    }
    X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
}

// The key exchanges a handshake may use: both cheap, and one of them offered
// by every TLS 1.3 peer. OpenSSL's defaults also take finite-field groups up
// to 8192 bits, whose exchange costs the one loop of the tool a tenth of a
// second for each stranger's hello that asks for it.
constexpr const char* KeyExchangeGroups = "X25519:P-256";

std::string OpenSslReason() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) {
        return "the connection ended";
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

}  // namespace

TlsSession::~TlsSession() {
    SSL_free(Ssl);
}

bool TlsSession::OfferedAccepted() const {
    return Offered && std::find(Accepted.begin(), Accepted.end(), *Offered) != Accepted.end();
}

HandshakeStep ContinueHandshake(TlsSession& session, std::string& error) {
    ERR_clear_error();
    const int result = SSL_do_handshake(session.Ssl);
    if (result == 1) {
        // The check of the peer's line ID ran in the handshake; it is made
        // again on the certificate the handshake proved the peer holds the
        // key of, so that nothing but that certificate decides. A handshake
        // through without one is not taken either.
        const X509* certificate = SSL_get0_peer_certificate(session.Ssl);
        const EVP_PKEY* key = certificate != nullptr ? X509_get0_pubkey(certificate) : nullptr;
        session.Offered.reset();
        if (key != nullptr) {
            session.Offered = LineIdOf(key);
        }
        if (!session.OfferedAccepted()) {
            error = "no accepted line ID";
            return HandshakeStep::Failed;
        }
        return HandshakeStep::Done;
    }
    switch (SSL_get_error(session.Ssl, result)) {
        case SSL_ERROR_WANT_READ:
            session.WantsWrite = false;
            return HandshakeStep::Waiting;
        case SSL_ERROR_WANT_WRITE:
            session.WantsWrite = true;
            return HandshakeStep::Waiting;
        default:
            error = OpenSslReason();
            return HandshakeStep::Failed;
    }
}

TlsContext::~TlsContext() {
    SSL_CTX_free(context_);
}

bool TlsContext::Open(EVP_PKEY* key, std::string& error) {
    context_ = SSL_CTX_new(TLS_method());
    const Certificate certificate = SelfSigned(key);
    if (context_ == nullptr || !certificate ||
        SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(context_, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set1_groups_list(context_, KeyExchangeGroups) != 1 ||
        SSL_CTX_use_certificate(context_, certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context_, key) != 1) {
        error = "cannot set up TLS: " + OpenSslReason();
        return false;
    }
    // Both sides show their certificate, and each handshake checks it anew:
    // a resumed session would skip the check of the peer's line ID.
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, VerifyPeer);
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(context_, 0);
    SSL_CTX_set_options(context_, SSL_OP_NO_TICKET);
    // The link's output buffer may move between a write that waits and its
    // retry, and takes partial writes as the plain socket does.
    SSL_CTX_set_mode(context_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return true;
}

std::unique_ptr<TlsSession> TlsContext::Start(int fd, bool listening,
                                              std::vector<LineId> accepted) {
    auto session = std::make_unique<TlsSession>();
    session->Accepted = std::move(accepted);
    session->Ssl = SSL_new(context_);
    if (session->Ssl == nullptr || SSL_set_fd(session->Ssl, fd) != 1) {
        return nullptr;
    }
    SSL_set_app_data(session->Ssl, session.get());
    if (listening) {
        SSL_set_accept_state(session->Ssl);
    } else {
        SSL_set_connect_state(session->Ssl);
    }
    return session;
}

}  // namespace kb::virtual_ta
