/// @file
/// TLS as a client, without sockets: bytes of the wire in, text out, and the other way round.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zr_types.h"

struct ssl_ctx_st;
struct ssl_st;

namespace zr::dispatch {

/// What connections share: whom to trust, and TLS 1.2 as the least. Made on any thread.
using TlsContext = std::shared_ptr<ssl_ctx_st>;

/// Makes the library ready, so that an exit handler that is registered afterwards runs before the library's own.
void prepareTls();

/// Whom to trust.
struct Trust
{
    std::string caFile;                   ///< PEM; empty: the system's store
    std::vector<std::string> moreCaFiles; ///< PEM, besides
    bool verify = true;                   ///< false: whoever answers
};

/// @return null when a file cannot be used; the log says why
TlsContext makeTlsContext(const Trust &trust);

/// How a connection is secured.
struct Security
{
    TlsContext context; ///< null: not at all
    std::string host;   ///< name or numeric address that the server's certificate must hold for
};

/// One TLS connection. One thread at a time. The far side's certificate is verified in the handshake (RFC 5280; its
/// names by RFC 6125); renegotiation and compression are refused. Memory is bounded by a record and the handshake's
/// own limits; what takeOutgoing gives grows with what is fed and sent, and is the caller's to bound.
class TlsStream
{
public:
    enum class State
    {
        Handshaking,
        Open,
        Ended, ///< the far side has closed it in good order
        Failed
    };

    /// @return null when there is no memory
    static std::unique_ptr<TlsStream> create(const Security &security);

    /// Takes bytes of the wire; the first call, without bytes, begins the handshake.
    /// @param plain  what they say is appended to it
    State receive(std::string_view bytes, std::string &plain);
    /// Encrypts. In state Open only.
    void send(std::string_view plain);
    /// Says that nothing more is sent (close_notify). Idempotent; nothing unless open.
    void end();
    /// The bytes for the wire since the last call, after any of the operations above.
    std::string takeOutgoing();
    /// The version that was agreed on, such as "TLSv1.3"; once open.
    const char *version() const;
    /// Why it failed.
    const std::string &problem() const { return m_problem; }
    /// A tagZrConnectionProblem: what a failure means now, also one of the connection beneath.
    ZR_ULONG problemCode() const { return m_problemCode; }

private:
    struct Deleter
    {
        void operator()(ssl_st *ssl) const;
    };
    explicit TlsStream(ssl_st *ssl, std::string host);

    bool handshake();
    State fail();

    std::unique_ptr<ssl_st, Deleter> m_ssl;
    const std::string m_host;
    State m_state = State::Handshaking;
    std::string m_problem;
    ZR_ULONG m_problemCode;
};

} // namespace zr::dispatch
