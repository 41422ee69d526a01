#include "masking.h"

#include <algorithm>
#include <array>
#include <exception>
#include <mutex>
#include <string_view>
#include <strings.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zr_platform.h"

namespace zr::common {

namespace {

constexpr std::string_view blanks = " \t\r\n";

/// A text with stretches of another text masked, from its front to its end. The texts may be a server's, and may be
/// nothing but what begins a stretch: so it is made anew, and no part of it is looked at for each of them.
class Masked
{
public:
    explicit Masked(std::string &text)
        : m_text(text)
    {
    }
    void mask(size_t begin, size_t end)
    {
        m_out.append(m_text, m_done, begin - m_done).append("***");
        m_done = end;
        m_any = true;
    }
    void finish()
    {
        if (m_any)
            m_text = std::move(m_out.append(m_text, m_done));
    }

private:
    std::string &m_text;
    std::string m_out;
    size_t m_done = 0;
    bool m_any = false;
};

/// What hosts hide, by what it begins with: many cameras have many passwords, and a text is looked through once.
class Secrets
{
public:
    void add(const std::string &secret)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> &alike = secret.size() < keySize ? m_short : m_byBegin[secret.substr(0, keySize)];
        if (!secret.empty() && std::find(alike.begin(), alike.end(), secret) == alike.end())
            alike.push_back(secret);
    }

    void conceal(std::string &text)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_short.empty() && m_byBegin.empty())
            return;
        Masked masked(text);
        for (size_t at = 0; at < text.size();)
        {
            const size_t length = longestAt(text, at);
            if (length > 0)
                masked.mask(at, at + length);
            at += std::max<size_t>(length, 1);
        }
        masked.finish();
    }

private:
    static constexpr size_t keySize = 4;

    static size_t longestOf(const std::vector<std::string> &some, const std::string &text, size_t at)
    {
        size_t longest = 0;
        for (const std::string &secret : some)
            longest = text.compare(at, secret.size(), secret) == 0 ? std::max(longest, secret.size()) : longest;
        return longest;
    }

    size_t longestAt(const std::string &text, size_t at) const
    {
        const auto alike = m_byBegin.find(text.substr(at, keySize));
        const size_t longest = alike == m_byBegin.end() ? 0 : longestOf(alike->second, text, at);
        return longest > 0 ? longest : longestOf(m_short, text, at);
    }

    std::mutex m_mutex; ///< guards what follows; nothing is called under it
    std::unordered_map<std::string, std::vector<std::string>> m_byBegin;
    std::vector<std::string> m_short;
};

Secrets &secrets()
{
    static Secrets &instance = *new Secrets; // never freed: threads may log until the process ends
    return instance;
}

bool beginsWith(std::string_view text, std::string_view begin)
{
    return text.size() >= begin.size() && strncasecmp(text.data(), begin.data(), begin.size()) == 0;
}

bool isSecretHeader(std::string_view line)
{
    static constexpr std::array<std::string_view, 4> names = {"Authorization", "Proxy-Authorization",
                                                              "Authentication-Info", "Proxy-Authentication-Info"};
    return std::any_of(names.begin(), names.end(), [&](std::string_view one) {
        const size_t colon = beginsWith(line, one) ? line.find_first_not_of(" \t", one.size()) : std::string_view::npos;
        return colon != std::string_view::npos && line[colon] == ':';
    });
}

/// Where the value of a secret header begins in the line; a line on which it goes on begins with a blank.
size_t valueAt(std::string_view line)
{
    const bool goesOn = line.front() == ' ' || line.front() == '\t';
    const size_t begin = goesOn ? 0 : line.find(':') + 1;
    size_t value = std::min(line.find_first_not_of(" \t", begin), line.size());
    for (const std::string_view scheme : {"Basic ", "Digest "})
        value += !goesOn && beginsWith(line.substr(value), scheme) ? scheme.size() : 0;
    return value;
}

/// Also the lines on which such a header goes on (RFC 2326, 4.2).
void maskHeaders(std::string &text)
{
    Masked masked(text);
    const std::string_view all = text;
    bool secret = false;
    for (size_t begin = 0; begin < all.size();)
    {
        const size_t end = std::min(all.find_first_of("\r\n", begin), all.size());
        const std::string_view line = all.substr(begin, end - begin);
        if (line.empty()) // a line's end has two characters
            secret = secret && all[end] == '\n' && end > 0 && all[end - 1] == '\r';
        else if (line.front() != ' ' && line.front() != '\t')
            secret = isSecretHeader(line);
        if (secret && !line.empty())
            masked.mask(begin + valueAt(line), end);
        begin = end + 1;
    }
    masked.finish();
}

/// A password may hold a slash that should have been escaped: then what looks like the host has more than a port.
/// @param rest  of a word that holds a URL, behind its ://
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

void maskUsers(std::string &text)
{
    Masked masked(text);
    const std::string_view all = text;
    size_t end = 0; // of the word that holds the URL, and its last @
    size_t last = std::string_view::npos;
    size_t next = 0;
    for (size_t scheme = all.find("://"); scheme != std::string_view::npos; scheme = all.find("://", next))
    {
        const size_t begin = next = scheme + 3;
        if (begin >= end)
        {
            end = std::min(all.find_first_of(blanks, begin), all.size());
            last = all.substr(begin, end - begin).rfind('@');
            last = last == std::string_view::npos ? last : begin + last;
        }
        if (last == std::string_view::npos || last < begin)
            continue;
        const size_t at = endOfUser(all.substr(begin, end - begin), last - begin);
        if (at != std::string_view::npos)
        {
            masked.mask(begin, begin + at);
            next = begin + at;
        }
    }
    masked.finish();
}

/// @param text  behind a mark that a name follows
/// @return how long the name of a password is; 0: it is another name
size_t passwordName(std::string_view text)
{
    static constexpr std::array<std::string_view, 6> names = {
        "password=", "passwd=", "pwd=", "pass=", "psw=", "%70assword="}; // the last as a host may escape the first
    const auto *const name =
        std::find_if(names.begin(), names.end(), [&](std::string_view one) { return beginsWith(text, one); });
    return name == names.end() ? 0 : name->size();
}

/// Behind a mark that is a path's, as some recorders have it (user=admin_password=x_channel=1), another such word ends
/// a value, too.
size_t endOfValue(std::string_view text, char mark, size_t begin)
{
    constexpr std::string_view ends = "&; \t\r\n\"<>";
    const bool ofPath = mark == '/' || mark == '_';
    size_t word = std::string_view::npos; // its begin, where this may be one
    size_t end = begin;
    for (; end < text.size() && ends.find(text[end]) == std::string_view::npos; ++end)
    {
        if (ofPath && text[end] == '=' && word != std::string_view::npos)
            return word;
        const bool letter = (text[end] | 0x20) >= 'a' && (text[end] | 0x20) <= 'z';
        word = text[end] == '_' ? end : letter ? word : std::string_view::npos;
    }
    const bool sentence = end > begin && end < text.size() && text[end] == ' '; // that the URL stands in
    return sentence && (text[end - 1] == ':' || text[end - 1] == ',') ? end - 1 : end;
}

void maskPasswords(std::string &text)
{
    constexpr const char *marks = "?&;/_";
    Masked masked(text);
    const std::string_view all = text;
    size_t next = 0;
    for (size_t mark = all.find_first_of(marks); mark != std::string_view::npos; mark = all.find_first_of(marks, next))
    {
        next = mark + 1;
        const size_t name = passwordName(all.substr(next));
        if (name > 0)
        {
            const size_t begin = next + name;
            next = endOfValue(all, all[mark], begin);
            masked.mask(begin, next);
        }
    }
    masked.finish();
}

/// An answer to a Digest challenge, out of which a weak password can be found, where it stands outside of its header.
void maskDigests(std::string &text)
{
    constexpr std::string_view name = "response=";
    constexpr size_t shortest = 32; // MD5 in hexadecimal
    Masked masked(text);
    const std::string_view all = text;
    for (size_t at = all.find(name); at != std::string_view::npos; at = all.find(name, at))
    {
        at += name.size();
        const size_t begin = std::min(all.find_first_not_of("\\\"", at), all.size());
        const size_t end = std::min(all.find_first_not_of("0123456789abcdefABCDEF", begin), all.size());
        if (begin - at <= 2 && end - begin >= shortest)
            masked.mask(begin, end);
        at = end;
    }
    masked.finish();
}

} // namespace

// A secret may stand in the names by which the others are found, so it is the last.
void maskCredentials(std::string &text)
{
    maskHeaders(text);
    maskUsers(text);
    maskPasswords(text);
    maskDigests(text);
    secrets().conceal(text);
}

} // namespace zr::common

void ZR_LogHide(const char *pszText)
{
    try
    {
        zr::common::secrets().add(pszText == nullptr ? "" : pszText);
    }
    catch (const std::exception &)
    {
        // there is no memory for it, and nobody to tell
    }
}

ZR_ULONG ZR_TextMask(const char *pszText, ZR_ULONG ulLength, char *pszMasked, ZR_ULONG ulSize)
{
    try
    {
        std::string text(pszText == nullptr ? "" : pszText, pszText == nullptr ? 0 : ulLength);
        zr::common::maskCredentials(text);
        if (pszMasked != nullptr)
            text.copy(pszMasked, ulSize);
        return static_cast<ZR_ULONG>(text.size());
    }
    catch (const std::exception &)
    {
        return 0;
    }
}
