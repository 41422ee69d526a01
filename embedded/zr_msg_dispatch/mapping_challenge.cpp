#include <algorithm>

#include "mapping_parts.h"
#include "rtsp_text.h"

namespace {

namespace rtsp = zr::rtsp;

struct Challenge
{
    std::string_view scheme;
    std::vector<rtsp::Header> parameters;

    /// A parameter's value; empty when there is none.
    std::string value(std::string_view name) const
    {
        const auto found = std::find_if(parameters.begin(), parameters.end(),
                                        [name](const rtsp::Header &item) { return rtsp::sameText(item.name, name); });
        return found == parameters.end() ? std::string() : found->value;
    }
};

/// Takes a quoted string, its escapes undone, or a bare word off the text.
std::string takeValue(std::string_view &text)
{
    std::string value;
    if (text.empty() || text.front() != '"')
    {
        const size_t end = std::min(text.find_first_of(", \t"), text.size());
        value = text.substr(0, end);
        text.remove_prefix(end);
        return value;
    }
    size_t at = 1;
    for (; at < text.size() && text[at] != '"'; ++at)
    {
        if (text[at] == '\\' && at + 1 < text.size())
            ++at;
        value += text[at];
    }
    text.remove_prefix(std::min(at + 1, text.size()));
    return value;
}

void skip(std::string_view &text, std::string_view characters)
{
    text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
}

/// Appends the challenges of one header: a word that "=" follows is a parameter, another one begins a challenge.
void readChallenges(std::string_view text, std::vector<Challenge> &out)
{
    const size_t others = out.size();
    for (skip(text, ", \t"); !text.empty(); skip(text, ", \t"))
    {
        const size_t end = std::min(text.find_first_of(",= \t\""), text.size());
        const std::string_view word = text.substr(0, end);
        text.remove_prefix(end);
        skip(text, " \t");
        if (!text.empty() && text.front() == '=')
        {
            text.remove_prefix(1);
            skip(text, " \t");
            std::string value = takeValue(text);
            if (out.size() > others)
                out.back().parameters.push_back({std::string(word), std::move(value)});
        }
        else if (!word.empty())
            out.push_back({word, {}});
        else
            text.remove_prefix(1); // a stray quote
    }
}

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
std::optional<std::string> writeDigest(const Challenge &challenge, std::string &problem)
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
    std::vector<Challenge> challenges;
    for (const std::string_view header : response.findAll("WWW-Authenticate"))
        readChallenges(header, challenges);
    problem = challenges.empty() ? "a 401 answer without a challenge" : "a challenge that is neither Digest nor Basic";
    bool digest = false;
    bool basic = false;
    for (const Challenge &challenge : challenges)
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
