/// @file
/// Digests as text, for whoever answers a challenge.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace zr::util {

/// A text that is a secret, or holds one: it is wiped in the end, on whichever way its scope is left.
class SecretText
{
public:
    /// @param text  moved from; one of less than 16 characters may stay where it was
    explicit SecretText(std::string text);
    /// The fields joined by colons.
    explicit SecretText(std::initializer_list<std::string_view> fields);
    ~SecretText();
    SecretText(const SecretText &) = delete;
    SecretText &operator=(const SecretText &) = delete;
    const std::string &text() const { return m_text; }

private:
    std::string m_text;
};

/// Bytes as lower-case hexadecimal digits, in memory that was not moved. Any thread.
std::string hex(const unsigned char *bytes, size_t size);

/// So many random bytes (32 at most), as hex() writes them. Any thread.
/// @return empty when there is no randomness
std::string randomHex(size_t size);

/// The digest of the fields joined by colons, as hex() writes it. What was joined is wiped; the digest is the caller's
/// to wipe, if it is a secret. Any thread.
/// @param algorithm  as OpenSSL names it: "MD5", "SHA256"
/// @return none when the cryptographic library refuses it (MD5 is not allowed everywhere), which is logged
std::optional<std::string> hexDigest(const char *algorithm, std::initializer_list<std::string_view> fields);

} // namespace zr::util
