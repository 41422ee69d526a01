#include "masking.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <strings.h>
#include <unordered_map>
#include <vector>

namespace zr::host {
namespace {

constexpr const char *stars = "***";
constexpr size_t unmistakable = 4;

using Secrets = std::unordered_map<std::string, std::vector<std::string>>;

/// By what they begin with: many cameras have many passwords, and each text is looked through once.
Secrets &secrets()
{
    static Secrets all;
    return all;
}

/// How long the secret is that begins here; 0: none does.
size_t secretAt(const std::string &text, size_t at)
{
    const auto alike = secrets().find(text.substr(at, unmistakable));
    if (alike == secrets().end())
    {
        return 0;
    }
    size_t longest = 0;
    for (const std::string &secret : alike->second)
    {
        longest = text.compare(at, secret.size(), secret) == 0 ? std::max(longest, secret.size()) : longest;
    }
    return longest;
}

std::string withoutSecrets(const std::string &text)
{
    if (secrets().empty())
    {
        return text;
    }
    std::string safe;
    for (size_t at = 0; at < text.size();)
    {
        const size_t length = secretAt(text, at);
        safe += length > 0 ? stars : text.substr(at, 1);
        at += std::max<size_t>(length, 1);
    }
    return safe;
}

/// What looks like a host with a port that is none is a password that holds a slash.
/// @param rest  of a URL, behind ://
/// @param last  its last @, or npos
/// @return the @ that ends the user information; npos: there is none
size_t endOfUser(std::string_view rest, size_t last)
{
    const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    const size_t at = authority.rfind('@');
    const size_t colon = authority.find(':');
    const bool noPort = colon != std::string_view::npos && authority.front() != '[' &&
                        authority.find_first_not_of("0123456789", colon + 1) != std::string_view::npos;
    return at == std::string_view::npos && noPort ? last : at;
}

/// @param word      without blanks
/// @param anything  before its last @ is masked
std::string withoutUser(std::string_view word, bool anything)
{
    const size_t last = word.rfind('@');
    std::string safe;
    size_t told = 0;
    for (size_t scheme = word.find("://"); scheme != std::string_view::npos && last != std::string_view::npos;
         scheme = word.find("://", told))
    {
        const size_t begin = scheme + 3;
        safe.append(word, told, begin - told);
        told = begin;
        if (last < begin)
        {
            break;
        }
        const size_t at = anything ? last - begin : endOfUser(word.substr(begin), last - begin);
        if (at != std::string_view::npos)
        {
            safe += stars;
            told = begin + at;
        }
    }
    return safe.append(word, told);
}

std::string withoutUsers(const std::string &text, bool anything)
{
    std::string safe;
    for (size_t begin = 0; begin < text.size();)
    {
        const size_t end = std::min(text.find_first_of(" \t\r\n", begin), text.size());
        safe += withoutUser(std::string_view(text).substr(begin, end - begin), anything);
        safe.append(text, end, 1);
        begin = end + 1;
    }
    return safe;
}

/// @param begin  behind the mark that a name follows
/// @return where the value of a password's name begins; npos: it is another name
size_t passwordAt(const std::string &text, size_t begin)
{
    // the last as urlForDescribe() writes the first
    static constexpr std::array<std::string_view, 6> names = {
        "password=", "passwd=", "pwd=", "pass=", "psw=", "%70assword="};
    const auto *const name = std::find_if(names.begin(), names.end(), [&](std::string_view one) {
        return strncasecmp(text.c_str() + begin, one.data(), one.size()) == 0;
    });
    return name == names.end() ? std::string::npos : begin + name->size();
}

/// @param mark  what stands before its name; behind an underscore, one with another name ends it, too
size_t endOfValue(const std::string &text, size_t begin, char mark)
{
    static constexpr std::string_view ends = "&; \t\r\n\"<>";
    size_t name = std::string::npos;
    size_t end = begin;
    for (; end < text.size() && ends.find(text[end]) == std::string_view::npos; ++end)
    {
        if (text[end] == '=' && mark == '_' && name != std::string::npos)
        {
            return name;
        }
        name = text[end] == '_' ? end : name;
    }
    // of the sentence that the URL stands in
    const bool sentence = end > begin && end < text.size() && text[end] == ' ';
    return sentence && (text[end - 1] == ':' || text[end - 1] == ',') ? end - 1 : end;
}

std::string withoutPasswords(const std::string &text)
{
    std::string safe;
    size_t told = 0;
    for (size_t mark = text.find_first_of("?&;/_"); mark != std::string::npos; mark = text.find_first_of("?&;/_", mark))
    {
        const size_t begin = passwordAt(text, ++mark);
        if (begin != std::string::npos)
        {
            safe.append(text, told, begin - told) += stars;
            told = mark = endOfValue(text, begin, text[mark - 1]);
        }
    }
    return safe.append(text, told);
}

} // namespace

bool hideSecret(const std::string &secret)
{
    if (secret.size() < unmistakable)
    {
        return false;
    }
    std::vector<std::string> &alike = secrets()[secret.substr(0, unmistakable)];
    if (std::find(alike.begin(), alike.end(), secret) == alike.end())
    {
        alike.push_back(secret);
    }
    return true;
}

// A secret may stand in the names by which the others are found, so it is the last.
std::string shown(const std::string &text)
{
    return withoutSecrets(withoutPasswords(withoutUsers(text, false)));
}

std::string withoutCredentials(const std::string &text)
{
    return withoutSecrets(withoutPasswords(withoutUsers(text, true)));
}

} // namespace zr::host
