#include "authenticator.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include <openssl/evp.h>

#include "challenge.h"
#include "digest.h"
#include "rtsp_text.h"

namespace zr::dispatch {

namespace {

struct Algorithm
{
    std::string_view name;
    const char *hash;
    bool session;
    int strength;
};
constexpr std::array<Algorithm, 5> algorithms = {{{"", "MD5", false, 0},
                                                  {"MD5", "MD5", false, 0},
                                                  {"MD5-sess", "MD5", true, 0},
                                                  {"SHA-256", "SHA256", false, 1},
                                                  {"SHA-256-sess", "SHA256", true, 1}}};

const Algorithm *findAlgorithm(std::string_view name)
{
    const auto found = std::find_if(algorithms.begin(), algorithms.end(),
                                    [name](const Algorithm &known) { return rtsp::sameText(known.name, name); });
    return found == algorithms.end() ? nullptr : &*found;
}

/// Whether it may go back in a header, as long as servers take it.
bool isPlain(std::string_view text)
{
    constexpr size_t longest = 1024;
    return text.size() <= longest && !rtsp::hasControls(text);
}

std::string inQuotes(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text)
    {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + '"';
}

bool offersAuth(const std::string &qop)
{
    return rtsp::anyPiece(qop, ',', [](std::string_view offer) { return rtsp::sameText(offer, "auth"); });
}

std::string answerBasic(const Credentials &credentials)
{
    constexpr std::string_view scheme = "Basic ";
    const util::SecretText plain({credentials.user, credentials.password});
    const size_t size = plain.text().size();
    const size_t encoded = 4 * ((size + 2) / 3);
    std::string text; // encoded in its place, so that there is no other copy
    text.reserve(scheme.size() + encoded + 1);
    text.append(scheme).resize(scheme.size() + encoded + 1); // with the zero that is written, too
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()) + scheme.size(),
                    reinterpret_cast<const unsigned char *>(plain.text().data()), static_cast<int>(size));
    text.pop_back();
    return text;
}

} // namespace

/// A Digest challenge that can be answered.
/// @param problem  receives why it cannot be
std::optional<Authenticator::Digest> Authenticator::readDigest(const rtsp::Challenge &challenge, std::string &problem)
{
    Digest digest;
    digest.realm = challenge.value("realm");
    digest.nonce = challenge.value("nonce");
    digest.opaque = challenge.value("opaque");
    digest.algorithm = challenge.value("algorithm");
    digest.stale = rtsp::sameText(challenge.value("stale"), "true");
    const std::string qop = challenge.value("qop");
    digest.quality = offersAuth(qop);
    const Algorithm *const algorithm = findAlgorithm(digest.algorithm);
    if (!algorithm)
        problem = "a Digest challenge with the algorithm " + rtsp::quoted(digest.algorithm);
    else if (!qop.empty() && !digest.quality)
        problem = "a Digest challenge with the qop " + rtsp::quoted(qop);
    else if (digest.nonce.empty() || !isPlain(digest.nonce) || !isPlain(digest.realm) || !isPlain(digest.opaque))
        problem = "a Digest challenge whose nonce, realm or opaque is missing, too long or unprintable";
    else if ((digest.cnonce = util::randomHex(16)).empty())
        problem = "a Digest challenge, and no randomness";
    else
    {
        digest.hash = algorithm->hash;
        digest.session = algorithm->session;
        digest.strength = 2 * algorithm->strength + (digest.quality ? 1 : 0);
        return digest;
    }
    return std::nullopt;
}

/// Whether a server that got an answer to the one asks the same again.
bool Authenticator::sameChallenge(const Choice &left, const Choice &right)
{
    if (left.digest && right.digest)
        return left.digest->realm == right.digest->realm && left.digest->nonce == right.digest->nonce;
    return !left.digest && !right.digest && left.basicRealm == right.basicRealm;
}

Authenticator::Choice Authenticator::choose(const rtsp::Message &response, bool mayShow, std::string &problem)
{
    Choice choice;
    problem = "no challenge that is known";
    for (const rtsp::Challenge &challenge : rtsp::readChallenges(response))
    {
        if (rtsp::sameText(challenge.scheme, "Basic") && mayShow)
            choice.basicRealm = challenge.value("realm");
        else if (rtsp::sameText(challenge.scheme, "Basic"))
            problem = "a Basic challenge on a connection that is not encrypted";
        if (!rtsp::sameText(challenge.scheme, "Digest"))
            continue;
        auto digest = readDigest(challenge, problem);
        if (digest && (!choice.digest || choice.digest->strength < digest->strength))
            choice.digest = std::move(digest);
    }
    return choice;
}

Authenticator::Verdict Authenticator::take(const rtsp::Message &response, const Attempt &attempt, bool mayShow,
                                           std::string &problem)
{
    Choice choice = choose(response, mayShow, problem);
    if (!choice.digest && !choice.basicRealm)
        return attempt.answered == 0 ? Verdict::Unusable : Verdict::Refused;
    const bool stale = choice.digest && choice.digest->stale;
    const bool again = attempt.challenge != 0 && attempt.challenge == challenge() && sameChallenge(choice, m_choice);
    problem = "the server refused the user name or the password";
    if (again && !stale)
        return Verdict::Refused; // other requests may be allowed
    if (attempt.answered > 1 || (attempt.answered == 1 && !stale))
    {
        reset();
        return Verdict::Refused;
    }
    if (choice.digest && m_choice.digest && choice.digest->nonce == m_choice.digest->nonce)
        choice.digest->uses = m_choice.digest->uses; // a count that begins again is taken for a replay
    m_choice = std::move(choice);
    ++m_number;
    return Verdict::Answer;
}

unsigned Authenticator::challenge() const
{
    return m_choice.digest || m_choice.basicRealm ? m_number : 0;
}

void Authenticator::reset()
{
    m_choice = Choice();
}

std::string Authenticator::authorization(const Credentials &credentials, std::string_view method, std::string_view uri,
                                         bool mayShow)
{
    if (m_choice.digest)
        return answerDigest(*m_choice.digest, credentials, method, uri);
    return m_choice.basicRealm && mayShow ? answerBasic(credentials) : std::string();
}

std::string Authenticator::answerDigest(Digest &digest, const Credentials &credentials, std::string_view method,
                                        std::string_view uri)
{
    std::array<char, 9> count{};
    std::snprintf(count.data(), count.size(), "%08x", ++digest.uses);
    const auto hash = [&digest](std::initializer_list<std::string_view> fields) {
        return util::hexDigest(digest.hash, fields).value_or(std::string());
    };
    const util::SecretText user(hash({credentials.user, digest.realm, credentials.password}));
    const util::SecretText session(digest.session ? hash({user.text(), digest.nonce, digest.cnonce}) : std::string());
    const std::string &secret = (digest.session ? session : user).text();
    const std::string request = hash({method, uri});
    const std::string response = digest.quality
                                     ? hash({secret, digest.nonce, count.data(), digest.cnonce, "auth", request})
                                     : hash({secret, digest.nonce, request});
    if (user.text().empty() || secret.empty() || request.empty() || response.empty())
        return {};
    std::string text = "Digest username=" + inQuotes(credentials.user) + ", realm=" + inQuotes(digest.realm) +
                       ", nonce=" + inQuotes(digest.nonce) + ", uri=" + inQuotes(uri) + ", response=\"" + response +
                       '"';
    if (!digest.algorithm.empty())
        text.append(", algorithm=").append(digest.algorithm);
    if (!digest.opaque.empty())
        text.append(", opaque=").append(inQuotes(digest.opaque));
    if (digest.quality || digest.session)
        text.append(", cnonce=\"").append(digest.cnonce).append(1, '"');
    if (digest.quality)
        text.append(", qop=auth, nc=").append(count.data());
    return text;
}

} // namespace zr::dispatch
