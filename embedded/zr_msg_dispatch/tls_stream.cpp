#include "tls_stream.h"

#include <array>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "platform_log.h"
#include "result_codes.h"
#include "zr_platform.h"

namespace zr::dispatch {

namespace {

constexpr size_t recordSize = 16384;

std::string libraryError()
{
    const unsigned long error = ERR_peek_error(); // the first is the cause of those behind it
    if (ERR_SYSTEM_ERROR(error))
        return std::generic_category().message(ERR_GET_REASON(error));
    const char *const text = error == 0 ? nullptr : ERR_reason_error_string(error);
    return text ? text : "unknown error";
}

bool isNumeric(const std::string &host)
{
    in6_addr address = {};
    return inet_pton(AF_INET, host.c_str(), &address) == 1 || inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

/// An address stands in a certificate without its zone.
bool expectHost(ssl_st *ssl, const std::string &host)
{
    const std::string name = host.substr(0, host.find('%'));
    if (isNumeric(name))
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1;
    SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return !name.empty() && SSL_set1_host(ssl, name.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, name.c_str()) == 1;
}

bool trustFile(ssl_ctx_st *context, const std::string &file)
{
    const bool trusted = file.empty() ? SSL_CTX_set_default_verify_paths(context) == 1
                                      : SSL_CTX_load_verify_locations(context, file.c_str(), nullptr) == 1;
    if (!trusted)
        ZR_PLATFORM_LOG(ERROR, codeInvalidArgument, Dispatch, "the trusted certificates of \"%s\" cannot be read: %s",
                        file.empty() ? "the system" : file.c_str(), libraryError().c_str());
    return trusted;
}

ZR_ULONG problemOf(long verified)
{
    switch (verified)
    {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return ZR_CONNECTION_EXPIRED;
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return ZR_CONNECTION_NOT_YET_VALID;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return ZR_CONNECTION_WRONG_NAME;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
        return ZR_CONNECTION_FOREIGN_ISSUER;
    default:
        return ZR_CONNECTION_NOT_TRUSTED;
    }
}

} // namespace

void prepareTls()
{
    OPENSSL_init_ssl(0, nullptr);
}

TlsContext makeTlsContext(const Trust &trust)
{
    ERR_clear_error();
    TlsContext context(SSL_CTX_new(TLS_client_method()), [](ssl_ctx_st *gone) { SSL_CTX_free(gone); });
    if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1)
    {
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "TLS cannot be used: %s", libraryError().c_str());
        return nullptr;
    }
    if (!trustFile(context.get(), trust.caFile))
        return nullptr;
    if (!trust.moreCaFiles.empty()) // one of them may be the server's own
        X509_STORE_set_flags(SSL_CTX_get_cert_store(context.get()), X509_V_FLAG_PARTIAL_CHAIN);
    for (const std::string &file : trust.moreCaFiles)
    {
        if (!trustFile(context.get(), file))
            return nullptr;
    }
    if (!trust.verify)
        ZR_PLATFORM_LOG(WARNING, 0, Dispatch, "the certificates of rtsps servers are not verified, as the host wishes");
    SSL_CTX_set_verify(context.get(), trust.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    return context;
}

void TlsStream::Deleter::operator()(ssl_st *ssl) const
{
    SSL_free(ssl);
}

TlsStream::TlsStream(ssl_st *ssl, std::string host)
    : m_ssl(ssl)
    , m_host(std::move(host))
    , m_problemCode(ZR_CONNECTION_TLS_FAILED)
{
}

std::unique_ptr<TlsStream> TlsStream::create(const Security &security)
{
    std::unique_ptr<ssl_st, Deleter> ssl(SSL_new(security.context.get()));
    BIO *const in = BIO_new(BIO_s_mem());
    BIO *const out = BIO_new(BIO_s_mem());
    if (!ssl || !in || !out || !expectHost(ssl.get(), security.host))
    {
        BIO_free(in);
        BIO_free(out);
        return nullptr;
    }
    SSL_set_bio(ssl.get(), in, out);
    SSL_set_connect_state(ssl.get());
    return std::unique_ptr<TlsStream>(new TlsStream(ssl.release(), security.host));
}

TlsStream::State TlsStream::receive(std::string_view bytes, std::string &plain)
{
    if (m_state == State::Failed || m_state == State::Ended)
        return m_state;
    ERR_clear_error();
    if (!bytes.empty() && BIO_write(SSL_get_rbio(m_ssl.get()), bytes.data(), static_cast<int>(bytes.size())) <= 0)
        return fail();
    if (m_state == State::Handshaking && !handshake())
        return m_state;
    std::array<char, recordSize> text; // NOLINT(cppcoreguidelines-pro-type-member-init): SSL_read fills it
    size_t size = 0;
    while (SSL_read_ex(m_ssl.get(), text.data(), text.size(), &size) == 1)
        plain.append(text.data(), size);
    switch (SSL_get_error(m_ssl.get(), 0))
    {
    case SSL_ERROR_WANT_READ:
        return m_state;
    case SSL_ERROR_ZERO_RETURN:
        return m_state = State::Ended;
    default:
        return fail();
    }
}

bool TlsStream::handshake()
{
    const int result = SSL_do_handshake(m_ssl.get());
    if (result == 1)
    {
        m_state = State::Open;
        m_problemCode = ZR_CONNECTION_FAILED;
    }
    else if (SSL_get_error(m_ssl.get(), result) != SSL_ERROR_WANT_READ)
        fail();
    return result == 1;
}

TlsStream::State TlsStream::fail()
{
    const bool verifies = SSL_get_verify_mode(m_ssl.get()) != SSL_VERIFY_NONE;
    const long verified = verifies ? SSL_get_verify_result(m_ssl.get()) : X509_V_OK;
    if (verified != X509_V_OK)
    {
        m_problem = "the certificate of " + m_host + " is not trusted: " + X509_verify_cert_error_string(verified);
        m_problemCode = problemOf(verified);
    }
    else
    {
        m_problem = (m_state == State::Handshaking ? "the TLS handshake failed: " : "TLS failed: ") + libraryError();
        m_problemCode = ZR_CONNECTION_TLS_FAILED;
    }
    return m_state = State::Failed;
}

void TlsStream::send(std::string_view plain)
{
    if (m_state != State::Open || plain.empty())
        return;
    ERR_clear_error();
    size_t taken = 0;
    // into memory: it takes all or there is none
    if (SSL_write_ex(m_ssl.get(), plain.data(), plain.size(), &taken) != 1)
        fail();
}

void TlsStream::end()
{
    ERR_clear_error();
    if (m_state == State::Open || m_state == State::Ended)
        SSL_shutdown(m_ssl.get());
}

const char *TlsStream::version() const
{
    return SSL_get_version(m_ssl.get());
}

std::string TlsStream::takeOutgoing()
{
    BIO *const out = SSL_get_wbio(m_ssl.get());
    std::string bytes(BIO_ctrl_pending(out), '\0');
    if (!bytes.empty())
        BIO_read(out, bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
}

} // namespace zr::dispatch
