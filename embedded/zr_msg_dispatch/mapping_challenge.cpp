#include <algorithm>

#include "challenge.h"
#include "mapping_parts.h"
#include "rtsp_text.h"

namespace {

namespace rtsp = zr::rtsp;

/// Whether the plug-in takes the text out of a quoted string as it is: it stops at a comma, passes over quotes, knows
/// no escapes, holds 127 characters, and takes an empty realm for the wish for Basic.
bool isReadable(std::string_view text)
{
    constexpr size_t longest = 127;
    return !text.empty() && text.size() <= longest && std::all_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f && c != ',' && c != '"' && c != '\\';
    });
}

/// A Digest challenge as the plug-in reads it.
/// @param problem  receives why it cannot be
std::optional<std::string> writeDigest(const rtsp::Challenge &challenge, std::string &problem)
{
    const std::string algorithm = challenge.value("algorithm");
    const std::string realm = challenge.value("realm");
    const std::string nonce = challenge.value("nonce");
    if (!algorithm.empty() && !rtsp::sameText(algorithm, "MD5"))
        problem = "a Digest challenge with the algorithm " + rtsp::quoted(algorithm) + ", not MD5";
    else if (!isReadable(realm) || realm.find("nonce=") != std::string::npos)
        problem = "a Digest challenge with an unusable realm: " + rtsp::quoted(realm);
    else if (!isReadable(nonce))
        problem = "a Digest challenge with an unusable nonce: " + rtsp::quoted(nonce);
    else
        return "Digest realm=\"" + realm + "\", nonce=\"" + nonce + '"';
    return std::nullopt;
}

} // namespace

namespace zr::dispatch {

std::optional<std::string> chooseChallenge(const rtsp::Message &response, std::string &problem)
{
    const std::vector<rtsp::Challenge> challenges = rtsp::readChallenges(response);
    problem = challenges.empty() ? "a 401 answer without a challenge" : "a challenge that is neither Digest nor Basic";
    bool digest = false;
    bool basic = false;
    for (const rtsp::Challenge &challenge : challenges)
    {
        basic = basic || rtsp::sameText(challenge.scheme, "Basic");
        if (!rtsp::sameText(challenge.scheme, "Digest"))
            continue;
        digest = true;
        if (auto text = writeDigest(challenge, problem))
            return text;
    }
    // where Digest was offered, Basic would show the password to whoever spoilt the Digest
    return basic && !digest ? std::optional<std::string>("Basic") : std::nullopt;
}

} // namespace zr::dispatch
