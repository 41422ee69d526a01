#include "trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <strings.h>

#include "masking.h"

namespace zr::host {
namespace {

constexpr size_t mostKept = size_t{1024} * 1024;

std::string timeOf(const ZrTraceEvent &event)
{
    const auto seconds = static_cast<std::time_t>(event.ullUnixUs / 1000000);
    std::tm day{};
    localtime_r(&seconds, &day);
    char text[48];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03u", day.tm_hour, day.tm_min, day.tm_sec,
                  static_cast<unsigned>(event.ullUnixUs / 1000 % 1000));
    return text;
}

std::string countsOf(const ZrTraceEvent &event)
{
    char text[160] = "";
    if (event.ullFramesReceived + event.ullFramesSent > 0)
    {
        std::snprintf(text, sizeof text, "%llu interleaved frames received, %llu sent, %llu bytes",
                      static_cast<unsigned long long>(event.ullFramesReceived),
                      static_cast<unsigned long long>(event.ullFramesSent),
                      static_cast<unsigned long long>(event.ullFrameBytes));
    }
    return text;
}

std::string linesOf(const ZrTraceEvent &event)
{
    const std::string when = timeOf(event) + " #" + std::to_string(event.ulAOIPortID) + " ";
    const std::string happened = when + "* ";
    const std::string message = shown(std::string(event.pszText, event.ulLength));
    std::string out = event.ullMissed == 0 ? "" : happened + std::to_string(event.ullMissed) + " are missing here\n";
    const std::string counts = countsOf(event);
    out += counts.empty() ? "" : happened + counts + "\n";
    if (event.ulKind == ZR_TRACE_CONNECTED || event.ulKind == ZR_TRACE_CLOSED)
    {
        out += happened + (event.ulKind == ZR_TRACE_CONNECTED ? "connected: " : "closed: ") + message + "\n";
        return harmless(out);
    }
    const char *mark = event.ulKind == ZR_TRACE_SENT ? "> " : "< ";
    std::string before = when + mark;
    std::istringstream in(message);
    for (std::string line; std::getline(in, line); before = std::string(when.size(), ' ') + mark)
    {
        line.erase(line.find_last_not_of('\r') + 1);
        out += before + line + "\n";
    }
    out += event.ullCut == 0 ? "" : happened + std::to_string(event.ullCut) + " more bytes of it are left out\n";
    out += event.ulKind == ZR_TRACE_BROKEN ? happened + "this cannot be read\n" : "";
    return harmless(out);
}

/// A header's value; empty: there is none.
std::string headerOf(const std::string &message, const std::string &name)
{
    std::istringstream in(message);
    for (std::string line; std::getline(in, line) && line.size() > 1;)
    {
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.c_str(), name.c_str(), name.size()) == 0)
        {
            const size_t begin = std::min(line.find_first_not_of(" \t", name.size() + 1), line.size());
            line.erase(line.find_last_not_of(" \t\r") + 1);
            return line.substr(std::min(begin, line.size()));
        }
    }
    return "";
}

} // namespace

Trace::~Trace()
{
    if (m_begun)
    {
        ZR_TraceSet(nullptr, nullptr);
    }
}

size_t Trace::received() const
{
    const std::scoped_lock lock(m_mutex);
    return m_received;
}

void Trace::begin()
{
    const auto callback = [](const ZrTraceEvent *event, void *self) { static_cast<Trace *>(self)->tell(*event); };
    if (!m_begun && ZR_TraceSet(callback, this) != 0)
    {
        throw Failure(ExitCode::Internal, "tracing", 0, "there is no thread for it");
    }
    m_begun = true;
}

void Trace::show(const std::string &file)
{
    {
        const std::scoped_lock lock(m_mutex);
        m_shown = true;
        if (!file.empty())
        {
            m_file.open(file, std::ios::app | std::ios::binary);
        }
        if (!file.empty() && !m_file)
        {
            throw Failure(ExitCode::Output, "tracing", 0, file + " cannot be written", "check the folder");
        }
    }
    begin();
}

void Trace::keep()
{
    {
        const std::scoped_lock lock(m_mutex);
        m_keeps = true;
    }
    begin();
}

std::vector<Trace::Lines> Trace::kept() const
{
    const std::scoped_lock lock(m_mutex);
    return m_kept;
}

std::optional<Trace::Answer> Trace::answerTo(const std::string &method) const
{
    const std::scoped_lock lock(m_mutex);
    const auto found = m_asked.find(method);
    return found == m_asked.end() ? std::nullopt : std::optional<Answer>(found->second.answer);
}

void Trace::forget(const std::string &method)
{
    const std::scoped_lock lock(m_mutex);
    m_asked.erase(method);
}

void Trace::tell(const ZrTraceEvent &event)
{
    const std::string lines = linesOf(event);
    bool aside = false;
    {
        const std::scoped_lock lock(m_mutex);
        aside = m_shown && !m_file.is_open();
        m_received += event.ulKind == ZR_TRACE_RECEIVED || event.ulKind == ZR_TRACE_BROKEN ? 1 : 0;
        if (m_file.is_open())
        {
            m_file << lines << std::flush;
        }
        if (m_keeps)
        {
            watchAnswers(event, std::string(event.pszText, event.ulLength));
            const bool fits = m_keptBytes + lines.size() <= mostKept;
            m_keptBytes += lines.size();
            if (fits)
            {
                m_kept.push_back({event.ulKind, lines});
            }
        }
    }
    if (aside)
    {
        m_report.aside(lines.substr(0, lines.find_last_not_of('\n') + 1));
    }
}

void Trace::watchAnswers(const ZrTraceEvent &event, const std::string &message)
{
    const bool answer = message.rfind("RTSP/", 0) == 0;
    const unsigned long number = std::strtoul(headerOf(message, "CSeq").c_str(), nullptr, 10);
    if (event.ulKind == ZR_TRACE_SENT && !answer)
    {
        m_asked[message.substr(0, message.find(' '))] = {event.ulAOIPortID, number, {}};
    }
    else if (event.ulKind == ZR_TRACE_RECEIVED && answer)
    {
        for (auto &[method, asked] : m_asked)
        {
            if (asked.session == event.ulAOIPortID && asked.number == number)
            {
                asked.answer = {std::atoi(message.c_str() + std::min(message.find(' '), message.size())),
                                headerOf(message, "Range"), headerOf(message, "Scale"), headerOf(message, "Speed")};
            }
        }
    }
}

} // namespace zr::host
