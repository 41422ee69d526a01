#include "tls_identity.h"

#include <atomic>
#include <cstdio>

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace zr::test {

namespace {

std::atomic<unsigned> count{0};

std::shared_ptr<EVP_PKEY> makeKey()
{
    return {EVP_EC_gen("P-256"), EVP_PKEY_free};
}

} // namespace

Authority::Authority()
    : m_key(makeKey())
    , m_certificate(certify(m_key.get(), {}, true))
    , m_file(testing::TempDir() + "zr_authority_" + std::to_string(getpid()) + "_" + std::to_string(count) + ".pem")
{
    FILE *const file = fopen(m_file.c_str(), "w");
    EXPECT_TRUE(file && PEM_write_X509(file, m_certificate.get()) == 1 && fclose(file) == 0);
}

std::shared_ptr<X509> Authority::certify(EVP_PKEY *key, const Certificate &what, bool authority) const
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

std::shared_ptr<SSL_CTX> Authority::issue(const Certificate &what) const
{
    const auto key = makeKey();
    std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    EXPECT_EQ(SSL_CTX_use_certificate(context.get(), certify(key.get(), what, false).get()), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey(context.get(), key.get()), 1);
    SSL_CTX_set_max_proto_version(context.get(), what.newest);
    SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0"); // or it would refuse old versions by itself
    return context;
}

} // namespace zr::test
