/// @file
/// RTSP/1.0 messages and interleaved frames out of a byte stream (RFC 2326, 4 to 7 and 10.12).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zr::rtsp
{

struct Header
{
    std::string name;
    std::string value;
};

struct Message
{
    bool response = false;
    int status = 0;     ///< of a response
    std::string reason; ///< of a response
    std::string method; ///< of a request
    std::string uri;    ///< of a request
    std::vector<Header> headers;
    std::string body;

    /// The first header of that name, compared without case; null when there is none.
    const std::string *find(std::string_view name) const;
    /// All values of that name, in order.
    std::vector<std::string_view> findAll(std::string_view name) const;
};

/// An interleaved frame; the bytes are the parser's until the next append.
struct Frame
{
    uint8_t channel = 0;
    const uint8_t *data = nullptr;
    size_t size = 0;
};

struct Limits
{
    size_t line = 4096;
    size_t headers = 128;
    size_t head = 65536;
    size_t body = 1048576;
};

/// Takes bytes, gives messages and frames. One thread at a time. After an Error it stays there.
class Parser
{
public:
    enum class Event
    {
        NeedMore,
        Message,
        Frame,
        Error
    };

    explicit Parser(const Limits &limits = Limits());

    void append(const char *data, size_t size);
    Event next();

    /// The message of the last Event::Message; may be moved from.
    Message &message() { return m_message; }
    /// The frame of the last Event::Frame.
    const Frame &frame() const { return m_frame; }
    /// What was wrong, naming the limit or the offending line (bounded, printable); valid after Event::Error.
    const std::string &error() const { return m_error; }
    /// Whether the first byte of a message or frame has come, but not its last.
    bool midMessage() const;

private:
    // the implementation's members, the parser's author's to choose
    Limits m_limits;
    Message m_message;
    Frame m_frame;
    std::string m_error;
};

} // namespace zr::rtsp
