#include "challenge.h"

#include <algorithm>

#include "rtsp_text.h"

namespace zr::rtsp {

namespace {

/// Takes a quoted string, its escapes undone, or a bare word off the text.
std::string takeValue(std::string_view &text)
{
    std::string value;
    if (text.empty() || text.front() != '"')
    {
        const size_t end = firstOf(", \t", text);
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
void readHeader(std::string_view text, std::vector<Challenge> &out)
{
    const size_t others = out.size();
    for (skip(text, ", \t"); !text.empty(); skip(text, ", \t"))
    {
        const size_t end = firstOf(",= \t\"", text);
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
            out.push_back({std::string(word), {}});
        else
            text.remove_prefix(1); // a stray quote
    }
}

} // namespace

std::string Challenge::value(std::string_view name) const
{
    const auto found = std::find_if(parameters.begin(), parameters.end(),
                                    [name](const Header &item) { return sameText(item.name, name); });
    return found == parameters.end() ? std::string() : found->value;
}

std::vector<Challenge> readChallenges(const Message &response)
{
    std::vector<Challenge> challenges;
    for (const std::string_view header : response.findAll("WWW-Authenticate"))
        readHeader(header, challenges);
    return challenges;
}

} // namespace zr::rtsp
