#include "http_head.h"

#include <algorithm>
#include <utility>

#include "rtsp_text.h"

namespace zr::dispatch {

namespace {

constexpr size_t longestHead = 16384;

std::string_view withoutEnd(std::string_view line)
{
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

} // namespace

HttpHead::State HttpHead::take(std::string_view &bytes)
{
    while (m_problem.empty() && !m_ended && !bytes.empty())
    {
        const size_t end = bytes.find('\n');
        const size_t taken = end == std::string_view::npos ? bytes.size() : end + 1;
        if (m_text.size() + taken > longestHead)
            return fail("its head is longer than " + std::to_string(longestHead) + " bytes");
        m_text.append(bytes.substr(0, taken));
        bytes.remove_prefix(taken);
        if (end != std::string_view::npos && !takeLine())
            return fail("not an HTTP status line: " +
                        rtsp::quoted(withoutEnd(std::string_view(m_text).substr(0, m_text.size() - 1))));
    }
    if (!m_problem.empty())
        return State::Broken;
    return m_ended ? State::Whole : State::NeedMore;
}

/// The text's last line has ended.
/// @return false when it is none
bool HttpHead::takeLine()
{
    std::string_view line(m_text);
    line.remove_prefix(std::exchange(m_line, m_text.size()));
    line = withoutEnd(line.substr(0, line.size() - 1));
    if (m_message.status == 0)
        return readStatusLine(line);
    if (!line.empty())
    {
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos)
            m_message.headers.push_back({std::string(rtsp::trimmed(line.substr(0, colon))),
                                         std::string(rtsp::trimmed(line.substr(colon + 1)))});
        return true;
    }
    if (m_message.status >= 200)
        m_ended = true;
    else
        m_message = {};
    return true;
}

bool HttpHead::readStatusLine(std::string_view line)
{
    if (!rtsp::hasPrefix(line, "HTTP/1."))
        return false;
    line.remove_prefix(std::min(line.find(' '), line.size()));
    line = rtsp::trimmed(line);
    const auto status = rtsp::parseNumber(line.substr(0, 3), 599);
    if (!status || *status < 100 || (line.size() > 3 && line[3] != ' '))
        return false;
    m_message.response = true;
    m_message.status = static_cast<int>(*status);
    m_message.reason = rtsp::trimmed(line.substr(3));
    return true;
}

HttpHead::State HttpHead::fail(std::string problem)
{
    m_problem = std::move(problem);
    return State::Broken;
}

} // namespace zr::dispatch
