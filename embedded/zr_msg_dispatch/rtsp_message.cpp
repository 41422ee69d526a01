#include "rtsp_message.h"

#include <algorithm>
#include <utility>

#include "rtsp_text.h"

namespace {

using namespace zr::rtsp;

/// An idle parser keeps no larger buffer than this.
constexpr size_t keptCapacity = 16384;
/// Room for the headers of most messages. It stays from message to message, that of longer ones does not.
constexpr size_t usualHeaders = 8;
/// '$', the channel, and the size of what follows (RFC 2326, 10.12).
constexpr size_t frameHead = 4;

size_t frameSize(const char *head)
{
    const auto *const bytes = reinterpret_cast<const uint8_t *>(head);
    return static_cast<size_t>(bytes[2]) << 8 | bytes[3];
}

/// What is wrong with a protocol version; empty when nothing is (RTSP/1.0, other minor numbers are tolerated).
std::string versionProblem(std::string_view version)
{
    constexpr size_t protocol = 5;
    if (!hasPrefix(version, "RTSP/"))
        return "not an RTSP start line: ";
    version.remove_prefix(protocol);
    if (hasPrefix(version, "1.") && parseNumber(version.substr(2), 99))
        return {};
    return "unsupported RTSP version: ";
}

/// Reads a start line (RFC 2326, 6.1 and 7.1) into a message.
/// @param http  it is the status line of an answer of HTTP (RFC 9112, 4)
/// @return what is wrong; empty when nothing is
std::string readStartLine(std::string_view line, bool http, Message &message)
{
    std::string_view rest = line;
    const std::string_view first = takeWord(rest);
    const std::string_view second = takeWord(rest);
    message.response = http || hasPrefix(first, "RTSP/");
    const std::string problem = http ? std::string() : versionProblem(message.response ? first : rest);
    if (!problem.empty())
        return problem + quoted(line);
    if (!message.response)
    {
        message.method = first;
        message.uri = second;
        return isToken(first) ? std::string() : "not an RTSP method: " + quoted(line);
    }
    const auto status = second.size() == 3 ? parseNumber(second, 999) : std::nullopt;
    if (!status || *status < 100)
        return (http ? "not an HTTP status: " : "not an RTSP status: ") + quoted(line);
    message.status = static_cast<int>(*status);
    message.reason = rest;
    return {};
}

const char *reasonOf(int status)
{
    switch (status)
    {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 454:
        return "Session Not Found";
    case 501:
        return "Not Implemented";
    default:
        return status < 300 ? "Success" : "Failure";
    }
}

} // namespace

namespace zr::rtsp {

const std::string *Message::find(std::string_view name) const
{
    for (const Header &header : headers)
    {
        if (sameText(header.name, name))
            return &header.value;
    }
    return nullptr;
}

std::vector<std::string_view> Message::findAll(std::string_view name) const
{
    std::vector<std::string_view> values;
    for (const Header &header : headers)
    {
        if (sameText(header.name, name))
            values.emplace_back(header.value);
    }
    return values;
}

Parser::Parser(const Limits &limits)
    : m_limits(limits)
{
}

void Parser::append(const char *data, size_t size)
{
    if (m_state == State::Failed)
        return;
    keepRest();
    // what is used up goes when it is at least half of the buffer, so that each byte moves once at most on average
    if (m_taken * 2 >= m_buffer.size())
    {
        m_buffer.erase(0, m_taken);
        m_scanned -= m_taken;
        m_taken = 0;
    }
    m_buffer.append(data, size);
    m_bytes = m_buffer;
}

void Parser::lend(const char *data, size_t size)
{
    if (m_state == State::Failed)
        return;
    // a cut frame is made whole, its head first; what comes behind it is parsed where it lies
    while (const size_t missing = std::min(missingOfFrame(), size))
    {
        append(data, missing);
        data += missing;
        size -= missing;
    }
    if (pending() > 0 && !frameBegun())
    {
        append(data, size);
        return;
    }
    m_lent = {data, size};
    if (pending() == 0)
        lookAtLent();
}

bool Parser::frameBegun() const
{
    return m_state == State::Between && pending() > 0 && m_bytes[m_taken] == '$';
}

/// Of the frame that has begun, or of its head as long as that is not whole.
size_t Parser::missingOfFrame() const
{
    if (!frameBegun())
        return 0;
    const size_t whole = frameHead + (pending() < frameHead ? 0 : frameSize(m_bytes.data() + m_taken));
    return whole - std::min(whole, pending());
}

/// What came before is used up.
void Parser::lookAtLent()
{
    m_bytes = std::exchange(m_lent, {});
    m_taken = m_scanned = 0;
}

void Parser::lookAtNothing()
{
    m_buffer.clear();
    m_lent = {};
    lookAtLent();
}

/// Makes what is left of lent bytes the parser's own.
void Parser::keepRest()
{
    if (m_bytes.data() == m_buffer.data() && m_lent.empty())
        return;
    if (m_bytes.data() != m_buffer.data())
    {
        if (m_buffer.capacity() > keptCapacity)
            m_buffer = std::string();
        m_buffer.assign(m_bytes, m_taken);
        m_scanned -= m_taken;
        m_taken = 0;
    }
    m_buffer.append(std::exchange(m_lent, {}));
    m_bytes = m_buffer;
}

Parser::Event Parser::next()
{
    const Event event = nextOfBytes();
    if (event == Event::NeedMore)
        keepRest();
    return event;
}

Parser::Event Parser::nextOfBytes()
{
    if (std::exchange(m_delivered, false))
        beginMessage();
    std::optional<Event> event;
    while (!event)
    {
        switch (m_state)
        {
        case State::Between:
            event = between();
            break;
        case State::StartLine:
        case State::Headers:
            event = headLine();
            break;
        case State::Body:
            event = bodyPart();
            break;
        case State::Failed:
            event = Event::Error;
            break;
        }
    }
    return *event;
}

void Parser::rest()
{
    if (midMessage() || m_state == State::Failed)
        return;
    std::string().swap(m_buffer);
    lookAtNothing();
    Message none; // assigned, its empty strings would leave the memory where it is
    std::swap(m_message, none);
}

void Parser::restart()
{
    m_state = State::Between;
    m_delivered = true; // the message is no more than what is left of it
    lookAtNothing();
}

bool Parser::midMessage() const
{
    return m_state != State::Failed && (m_state != State::Between || pending() > 0);
}

std::optional<Parser::Event> Parser::between()
{
    while (pending() > 0 && (m_bytes[m_taken] == '\r' || m_bytes[m_taken] == '\n'))
        take(1);
    if (pending() == 0 && !m_lent.empty())
    {
        lookAtLent();
        return std::nullopt;
    }
    if (pending() == 0)
    {
        if (m_buffer.capacity() > keptCapacity)
            m_buffer = std::string();
        lookAtNothing();
        return Event::NeedMore;
    }
    if (frameBegun())
        return frameStart();
    m_headBytes = 0;
    m_state = State::StartLine;
    return std::nullopt;
}

std::optional<Parser::Event> Parser::frameStart()
{
    if (missingOfFrame() > 0)
        return Event::NeedMore;
    const auto *const bytes = reinterpret_cast<const uint8_t *>(m_bytes.data()) + m_taken;
    m_frame.channel = bytes[1];
    m_frame.data = bytes + frameHead;
    m_frame.size = frameSize(m_bytes.data() + m_taken);
    take(frameHead + m_frame.size);
    return Event::Frame;
}

std::optional<Parser::Event> Parser::headLine()
{
    const size_t end = m_bytes.find('\n', m_scanned);
    const size_t size = std::min(end, m_bytes.size()) - m_taken;
    std::string_view line(m_bytes.data() + m_taken, size);
    if (size > m_limits.line)
        return fail("a line exceeds the limit of " + std::to_string(m_limits.line) +
                    " bytes: " + quoted(line.substr(0, m_limits.line)));
    if (end == std::string::npos)
    {
        m_scanned = m_bytes.size();
        return Event::NeedMore;
    }
    take(size + 1);
    m_headBytes += size + 1;
    if (m_headBytes > m_limits.head)
        return fail("a message's head exceeds the limit of " + std::to_string(m_limits.head) + " bytes");
    while (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    if (hasControls(line, "\t"))
        return fail("a control character in the line " + quoted(line));
    if (m_state == State::Headers)
        return line.empty() ? endOfHead() : headerLine(line);
    m_isHttp = m_takesHttp && hasPrefix(line, "HTTP/1.");
    std::string problem = readStartLine(line, m_isHttp, m_message);
    if (!problem.empty())
        return fail(std::move(problem));
    m_state = State::Headers;
    return std::nullopt;
}

std::optional<Parser::Event> Parser::headerLine(std::string_view line)
{
    if (line.front() == ' ' || line.front() == '\t')
    {
        if (m_message.headers.empty())
            return fail("a continued header without its first line: " + quoted(line));
        std::string &value = m_message.headers.back().value;
        line = trimmed(line);
        if (!value.empty() && !line.empty())
            value += ' ';
        value += line;
        return std::nullopt;
    }
    const size_t colon = line.find(':');
    const std::string_view name = trimmed(line.substr(0, std::min(colon, line.size())));
    if (colon == std::string_view::npos || name.empty())
        return fail("not a header line: " + quoted(line));
    if (m_message.headers.size() >= m_limits.headers)
        return fail("more than " + std::to_string(m_limits.headers) + " headers in a message");
    if (m_message.headers.empty())
        m_message.headers.reserve(usualHeaders);
    m_message.headers.push_back({std::string(name), std::string(trimmed(line.substr(colon + 1)))});
    return std::nullopt;
}

std::optional<Parser::Event> Parser::endOfHead()
{
    const std::string *first = nullptr;
    m_bodyLeft = 0;
    for (const auto &[name, length] : m_message.headers)
    {
        if (!sameText(name, "Content-Length"))
            continue;
        if (length.empty() || length.find_first_not_of("0123456789") != std::string::npos)
            return fail((length[0] == '-' ? "a negative Content-Length: " : "not a Content-Length: ") + quoted(length));
        const auto number = parseNumber(length, UINT32_MAX);
        if (!number || *number > m_limits.body)
            return fail("the Content-Length " + quoted(length) + " exceeds the limit of " +
                        std::to_string(m_limits.body) + " bytes");
        if (first != nullptr && *number != m_bodyLeft)
            return fail("contradicting Content-Lengths: " + quoted(*first) + " and " + quoted(length));
        first = first != nullptr ? first : &length;
        m_bodyLeft = *number;
    }
    if (m_bodyLeft == 0)
        return deliver();
    m_state = State::Body;
    return std::nullopt;
}

std::optional<Parser::Event> Parser::bodyPart()
{
    const size_t size = std::min(pending(), m_bodyLeft);
    m_message.body.append(m_bytes, m_taken, size);
    take(size);
    m_bodyLeft -= size;
    if (m_bodyLeft > 0)
        return Event::NeedMore;
    return deliver();
}

/// Readies m_message for the next one.
void Parser::beginMessage()
{
    m_message.response = false;
    m_message.status = 0;
    for (std::string *const text : {&m_message.reason, &m_message.method, &m_message.uri, &m_message.body})
        text->clear();
    m_message.headers.clear();
    if (m_message.headers.capacity() > usualHeaders)
        m_message.headers = std::vector<Header>();
}

Parser::Event Parser::deliver()
{
    m_state = State::Between;
    m_delivered = true;
    return m_isHttp ? Event::HttpAnswer : Event::Message;
}

Parser::Event Parser::fail(std::string problem)
{
    m_error = std::move(problem);
    if (m_raw != nullptr)
        m_raw->append(m_bytes.substr(m_taken)).append(m_lent);
    m_state = State::Failed;
    m_buffer = std::string();
    lookAtNothing();
    m_message = Message();
    return Event::Error;
}

void Parser::take(size_t size)
{
    if (m_raw != nullptr && m_state != State::Between)
        m_raw->append(m_bytes, m_taken, size);
    m_taken += size;
    m_scanned = m_taken;
}

std::string writeResponse(const Message &request, int status, const std::vector<Header> &more)
{
    std::string out = "RTSP/1.0 " + std::to_string(status) + ' ' + reasonOf(status) + "\r\n";
    const auto add = [&out](std::string_view name, std::string_view value) {
        appendHeaderSafe(out, name);
        out += ": ";
        appendHeaderSafe(out, value);
        out += "\r\n";
    };
    for (const char *name : {"CSeq", "Session"})
    {
        if (const std::string *value = request.find(name))
            add(name, *value);
    }
    for (const Header &header : more)
        add(header.name, header.value);
    return out + "\r\n";
}

} // namespace zr::rtsp
