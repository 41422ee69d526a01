#include <arpa/inet.h>

#include "control_url.h"
#include "mapping_parts.h"
#include "rtsp_text.h"

namespace {

using namespace zr::dispatch;
namespace rtsp = zr::rtsp;

constexpr size_t mostSections = 16;
constexpr size_t mostSources = 16; ///< of a section's filter

/// What a level of a description, its session or a section, says of addresses.
struct Level
{
    std::string_view connection;           ///< of the first c= line
    std::vector<std::string_view> filters; ///< of the source-filter attributes
};

/// Whether one of the c= lines names a group: those of most descriptions name nothing.
bool namesGroup(std::string_view sdp)
{
    constexpr std::string_view connection = "c=IN IP";
    for (size_t at = sdp.find(connection); at != std::string_view::npos; at = sdp.find(connection, at + 1))
    {
        const std::string_view rest = sdp.substr(at + connection.size(), 3);
        if (rest == "4 2" || rest == "6 f" || rest == "6 F")
            return true;
    }
    return false;
}

/// The group of "IN IP4 239.1.2.3/127/2" (RFC 4566, 5.7); empty when it is none.
std::string readConnection(std::string_view value)
{
    rtsp::takeWord(value);
    rtsp::takeWord(value);
    const std::string_view word = rtsp::takeWord(value);
    const std::string address = numericAddress(word.substr(0, word.find('/')));
    return isGroup(address) ? address : std::string();
}

/// Adds the sources of "incl IN IP4 239.1.2.3 192.0.2.1 ..." (RFC 4570, 3) when it is the group's.
void readFilter(std::string_view value, DescribedGroup &group)
{
    const bool included = rtsp::sameText(rtsp::takeWord(value), "incl");
    rtsp::takeWord(value);
    rtsp::takeWord(value);
    const std::string_view destination = rtsp::takeWord(value);
    if (!included || (destination != "*" && numericAddress(destination) != group.address))
        return;
    while (!value.empty() && group.sources.size() < mostSources)
    {
        std::string source = numericAddress(rtsp::takeWord(value));
        if (!source.empty() && isSameFamily(source, group.address))
            group.sources.push_back(std::move(source));
    }
}

/// Reads a description's sections one after the other.
class GroupReader
{
public:
    void add(std::string_view line)
    {
        if (rtsp::hasPrefix(line, "m="))
        {
            end();
            begin(line.substr(2));
            return;
        }
        Level &level = m_open ? m_section : m_session;
        if (rtsp::hasPrefix(line, "c=") && level.connection.empty())
            level.connection = line.substr(2);
        else if (rtsp::hasPrefix(line, "a=source-filter:") && level.filters.size() < mostSources)
            level.filters.push_back(line.substr(sizeof "a=source-filter:" - 1));
        else if (const auto control = m_open ? controlOf(line) : std::nullopt)
            m_groups.back().control = *control;
    }

    std::vector<DescribedGroup> finish()
    {
        end();
        return std::move(m_groups);
    }

private:
    void begin(std::string_view media)
    {
        m_section = {};
        m_open = m_groups.size() < mostSections;
        if (!m_open)
            return;
        rtsp::takeWord(media);
        const std::string_view port = rtsp::takeWord(media);
        m_groups.emplace_back();
        m_groups.back().port =
            static_cast<uint16_t>(rtsp::parseNumber(port.substr(0, port.find('/')), UINT16_MAX).value_or(0));
    }

    /// What a section does not say itself, its session says.
    void end()
    {
        if (!m_open)
            return;
        DescribedGroup &group = m_groups.back();
        group.address = readConnection(m_section.connection.empty() ? m_session.connection : m_section.connection);
        for (const std::string_view filter : m_section.filters.empty() ? m_session.filters : m_section.filters)
            readFilter(filter, group);
        m_open = false;
    }

    Level m_session;
    Level m_section;
    bool m_open = false; ///< a section is
    std::vector<DescribedGroup> m_groups;
};

} // namespace

namespace zr::dispatch {

std::string numericAddress(std::string_view text)
{
    while (!text.empty() && (text.front() == '"' || text.front() == '['))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == '"' || text.back() == ']'))
        text.remove_suffix(1);
    const std::string address(text);
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1)
        return v4.s_addr == INADDR_ANY ? std::string() : address;
    if (inet_pton(AF_INET6, address.c_str(), &v6) == 1)
        return IN6_IS_ADDR_UNSPECIFIED(&v6) ? std::string() : address;
    return {};
}

bool isGroup(const std::string &address)
{
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1)
        return IN_MULTICAST(ntohl(v4.s_addr));
    return inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_MULTICAST(&v6);
}

bool isSameFamily(std::string_view one, std::string_view other)
{
    return (one.find(':') == std::string_view::npos) == (other.find(':') == std::string_view::npos);
}

std::vector<DescribedGroup> readGroups(std::string_view sdp)
{
    if (!namesGroup(sdp))
        return {};
    GroupReader reader;
    while (!sdp.empty())
        reader.add(rtsp::trimmed(withoutEnd(takeLine(sdp))));
    return reader.finish();
}

const DescribedGroup *groupFor(const Session &session, std::string_view url, unsigned setups)
{
    const size_t place = common::sectionOf(session.groups, url, setups);
    return place < session.groups.size() && !session.groups[place].address.empty() ? &session.groups[place] : nullptr;
}

} // namespace zr::dispatch
