/// @file
/// Answers to a server's challenges: Basic (RFC 7617) and Digest (RFC 2617, RFC 7616) with MD5 and SHA-256.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "challenge.h"
#include "host_orders.h"
#include "rtsp_message.h"

namespace zr::dispatch {

/// What a session's server has challenged with, answered with the host's credentials in every request from then on: a
/// server whose nonces end with their connection challenges anew. On the loop's turn.
class Authenticator
{
public:
    enum class Verdict
    {
        Answer,   ///< ask again
        Refused,  ///< a right answer was
        Unusable, ///< nothing that can be answered
    };

    /// A request that was answered 401.
    struct Attempt
    {
        unsigned challenge = 0; ///< the number of the challenge that it answered; 0: none
        unsigned answered = 0;  ///< how often it was asked again for a challenge
    };

    /// Takes the strongest of an answer's challenges as the one to answer from now on. A right answer is tried once; a
    /// second time only where the server calls its nonce stale.
    /// @param mayShow  whether Basic would be acceptable
    /// @param problem  receives why there is nothing to answer
    Verdict take(const rtsp::Message &response, const Attempt &attempt, bool mayShow, std::string &problem);
    /// The number of the challenge that is answered now; 0: none.
    unsigned challenge() const;
    /// The value of an Authorization header.
    /// @param uri  as it stands in the request
    /// @param mayShow  whether Basic is acceptable, which credentials that were set meanwhile may not allow
    /// @return empty without a challenge, or when the cryptographic library refuses its algorithm; of Basic a secret
    std::string authorization(const Credentials &credentials, std::string_view method, std::string_view uri,
                              bool mayShow);
    /// The session is over, or with another server.
    void reset();

private:
    struct Digest
    {
        std::string realm;
        std::string nonce;
        std::string opaque;
        std::string algorithm;      ///< as the server wrote it; empty: not said
        const char *hash = nullptr; ///< OpenSSL's name of it
        bool session = false;       ///< the "-sess" kind
        bool quality = false;       ///< with qop=auth
        bool stale = false;         ///< the server knows the secret to be right, the nonce to be old
        int strength = 0;
        std::string cnonce; ///< one for the nonce: the "-sess" kinds hash it into every response
        unsigned uses = 0;  ///< of the nonce
    };
    struct Choice
    {
        std::optional<Digest> digest;
        std::optional<std::string> basicRealm; ///< counts without a digest
    };

    static std::optional<Digest> readDigest(const rtsp::Challenge &challenge, std::string &problem);
    static Choice choose(const rtsp::Message &response, bool mayShow, std::string &problem);
    static bool sameChallenge(const Choice &left, const Choice &right);
    static std::string answerDigest(Digest &digest, const Credentials &credentials, std::string_view method,
                                    std::string_view uri);

    Choice m_choice; ///< neither: none
    unsigned m_number = 0;
};

} // namespace zr::dispatch
