#include "source_list.h"

#include <fstream>

#include "cameras.h"
#include "failure.h"

namespace zr::host {
namespace {

constexpr size_t mostSources = 1000;

std::string trimmed(const std::string &line)
{
    constexpr const char *blanks = " \t\r";
    const size_t begin = line.find_first_not_of(blanks);
    return begin == std::string::npos ? "" : line.substr(begin, line.find_last_not_of(blanks) + 1 - begin);
}

} // namespace

Source makeSource(const std::string &url, const Credentials &given, const std::string &tag)
{
    Source source;
    source.url = parseUrl(url);
    source.tag = tag;
    source.credentials = source.url.credentials;
    if (!given.user.empty())
    {
        source.credentials = given;
    }
    else if (!source.credentials.user.empty() && given.complete)
    {
        source.credentials.password = given.password;
        source.credentials.complete = true;
    }
    urlForDescribe(source.url.text, source.credentials); // refuses what cannot be handed over
    return source;
}

std::vector<Source> readSources(const std::string &file, const Credentials &given, const std::string &tag,
                                const std::function<Source(const std::string &)> &named)
{
    std::ifstream lines(file);
    std::vector<Source> sources;
    std::string line;
    for (size_t number = 1; std::getline(lines, line); ++number)
    {
        line = trimmed(line);
        if (line.empty() || line.front() == '#')
        {
            continue;
        }
        try
        {
            if (Cameras::isName(line))
            {
                sources.push_back(named(line));
                continue;
            }
            const bool own = !parseUrl(line).credentials.user.empty();
            sources.push_back(makeSource(line, own ? Credentials() : given, tag));
        }
        catch (const Failure &wrong)
        {
            throw Failure(wrong.exit(), "reading " + file, wrong.code(),
                          "line " + std::to_string(number) + (Cameras::isName(line) ? ", " + line : "") + ": " +
                              wrong.meaning(),
                          wrong.advice());
        }
        if (sources.size() > mostSources)
        {
            throw wrongUsage(file + " names more than " + std::to_string(mostSources) + " streams");
        }
    }
    if (sources.empty())
    {
        throw wrongUsage(file + " names no stream, or cannot be read");
    }
    return sources;
}

} // namespace zr::host
