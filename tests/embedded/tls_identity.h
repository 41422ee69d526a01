/// @file
/// Certificates made for a test, and the server's side of TLS.
#pragma once

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

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
    Authority()
    {
        FILE *const file = fopen(m_file.c_str(), "w");
        EXPECT_TRUE(file && PEM_write_X509(file, m_certificate.get()) == 1 && fclose(file) == 0);
    }
    ~Authority() { std::remove(m_file.c_str()); }
    Authority(const Authority &) = delete;
    Authority &operator=(const Authority &) = delete;

    /// PEM, to be trusted.
    const std::string &file() const { return m_file; }
    /// What a server uses.
    std::shared_ptr<SSL_CTX> issue(const Certificate &what) const
    {
        const auto key = makeKey();
        std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
        EXPECT_EQ(SSL_CTX_use_certificate(context.get(), certify(key.get(), what, false).get()), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey(context.get(), key.get()), 1);
        SSL_CTX_set_max_proto_version(context.get(), what.newest);
        SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0"); // or it would refuse old versions by itself
        return context;
    }

private:
    static std::shared_ptr<EVP_PKEY> makeKey() { return {EVP_EC_gen("P-256"), EVP_PKEY_free}; }
    std::shared_ptr<X509> certify(EVP_PKEY *key, const Certificate &what, bool authority) const
    {
        std::shared_ptr<X509> made(X509_new(), X509_free);
        X509_set_version(made.get(), X509_VERSION_3);
        ASN1_INTEGER_set(X509_get_serialNumber(made.get()), static_cast<long>(++count));
        X509_gmtime_adj(X509_getm_notBefore(made.get()), what.begin);
        X509_gmtime_adj(X509_getm_notAfter(made.get()), what.end);
        const std::string name = authority ? "authority " + std::to_string(count) : "camera";
        X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>(name.c_str()), -1, -1, 0);
        X509_set_issuer_name(made.get(), X509_get_subject_name(authority ? made.get() : m_certificate.get()));
        X509_EXTENSION *const extension =
            X509V3_EXT_conf_nid(nullptr, nullptr, authority ? NID_basic_constraints : NID_subject_alt_name,
                                authority ? "critical,CA:TRUE" : what.names.c_str());
        X509_add_ext(made.get(), extension, -1);
        X509_EXTENSION_free(extension);
        X509_set_pubkey(made.get(), key);
        EXPECT_GT(X509_sign(made.get(), m_key.get(), EVP_sha256()), 0);
        return made;
    }

    static inline std::atomic<unsigned> count{0};
    const std::shared_ptr<EVP_PKEY> m_key = makeKey();
    const std::shared_ptr<X509> m_certificate = certify(m_key.get(), {}, true);
    const std::string m_file =
        testing::TempDir() + "zr_authority_" + std::to_string(getpid()) + "_" + std::to_string(count) + ".pem";
};

} // namespace zr::test
