/// @file
/// RTSP/1.0 messages and interleaved frames out of a byte stream (RFC 2326, 4 to 7 and 10.12).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr::rtsp {

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

/// Whether a response is one of 2xx.
inline bool isSuccess(const Message &response)
{
    return response.status >= 200 && response.status < 300;
}

/// An interleaved frame; the bytes are the parser's, valid until its next call of append or next.
struct Frame
{
    uint8_t channel = 0;
    const uint8_t *data = nullptr;
    size_t size = 0;
};

/// What a far side may send, in bytes but for the number of headers.
struct Limits
{
    size_t line = 4096; ///< without its LF
    size_t headers = 128;
    size_t head = 65536; ///< start line and headers
    size_t body = 1048576;
};

/// Takes bytes, gives messages and frames. One thread at a time. After an Error it stays there.
///
/// The events depend on the bytes alone, not on the pieces in which they came. A caller that asks for events until
/// NeedMore after each append has no more than the limits in memory; the cost is linear in the bytes.
class Parser
{
public:
    enum class Event
    {
        NeedMore,
        Message,
        HttpAnswer, ///< read as a message; where takeHttp allows it
        Frame,
        Error
    };

    explicit Parser(const Limits &limits = Limits());

    void append(const char *data, size_t size);
    /// The same without a copy where that can be: the bytes are to stay where they are until NeedMore or Error. What is
    /// left of them then, the parser keeps itself.
    void lend(const char *data, size_t size);
    /// Takes answers of HTTP (RFC 9112, 4) between messages as well, as a tunnel over one connection has them.
    void takeHttp() { m_takesHttp = true; }
    /// The next thing that the bytes hold. Blank lines between messages are passed over.
    Event next();

    /// The message of the last Event::Message or HttpAnswer; may be moved from, and is gone with the following call of
    /// next.
    Message &message() { return m_message; }
    /// The frame of the last Event::Frame.
    const Frame &frame() const { return m_frame; }
    /// What was wrong, naming the limit or the offending line (bounded, printable); valid after Event::Error.
    const std::string &error() const { return m_error; }
    /// Has the bytes of each message appended to a text, from the call on; those of a message that cannot be read with
    /// what had come behind them. Whoever reads the text empties it after each event.
    /// @param into  null: no more; else it is to stay until then
    void keepRaw(std::string *into) { m_raw = into; }
    /// Forgets what has come, for another connection. Limits and choices stay.
    void restart();
    /// Gives back the memory of what is used up, the last message's too. Asked after Event::NeedMore.
    void rest();
    /// Whether the first byte of a message or frame has come, but not its last; asked after Event::NeedMore.
    bool midMessage() const;

private:
    enum class State
    {
        Between,
        StartLine,
        Headers,
        Body,
        Failed
    };

    Event nextOfBytes();
    // each works on its state's bytes: an event, or none when the state has changed and work goes on
    std::optional<Event> between();
    std::optional<Event> frameStart();
    std::optional<Event> headLine();
    std::optional<Event> headerLine(std::string_view line);
    std::optional<Event> endOfHead();
    std::optional<Event> bodyPart();

    void beginMessage();
    Event deliver();
    Event fail(std::string problem);
    size_t pending() const { return m_bytes.size() - m_taken; }
    void take(size_t size);
    bool frameBegun() const;
    size_t missingOfFrame() const;
    void lookAtLent();
    void lookAtNothing();
    void keepRest();

    Limits m_limits;
    State m_state = State::Between;
    std::string m_buffer;     ///< bytes that are the parser's own
    std::string_view m_bytes; ///< what is parsed: the buffer, or bytes that are lent
    std::string_view m_lent;  ///< what is lent and comes behind them
    size_t m_taken = 0;       ///< of what is parsed, from its front, used up
    size_t m_scanned = 0;     ///< no line ends between m_taken and here
    size_t m_headBytes = 0;   ///< of the message's head so far
    size_t m_bodyLeft = 0;    ///< of the message's body
    bool m_delivered = false;
    bool m_takesHttp = false;
    bool m_isHttp = false; ///< the message
    std::string *m_raw = nullptr;
    Message m_message;
    Frame m_frame;
    std::string m_error;
};

/// The bytes of an answer to a request of the far side's own: its CSeq and Session, no body.
/// @param status  200, 501 ...; the reason phrase follows from it
/// @param more    further headers, such as Public
std::string writeResponse(const Message &request, int status, const std::vector<Header> &more = {});

} // namespace zr::rtsp
