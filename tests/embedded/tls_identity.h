/// @file
/// Certificates made for a test, and the server's side of TLS.
#pragma once

#include <memory>
#include <string>

#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace zr::test {

struct Certificate
{
    std::string names = "IP:127.0.0.1,DNS:localhost"; ///< subjectAltName
    long begin = -3600;                               ///< seconds from now
    long end = 3600;
    int newest = TLS1_3_VERSION; ///< that its server speaks
};

/// An authority of its own, known by its file.
class Authority
{
public:
    Authority();
    /// PEM, to be trusted.
    const std::string &file() const { return m_file; }
    /// What a server uses.
    std::shared_ptr<SSL_CTX> issue(const Certificate &what) const;

private:
    std::shared_ptr<X509> certify(EVP_PKEY *key, const Certificate &what, bool authority) const;

    const std::shared_ptr<EVP_PKEY> m_key;
    const std::shared_ptr<X509> m_certificate;
    std::string m_file;
};

} // namespace zr::test
