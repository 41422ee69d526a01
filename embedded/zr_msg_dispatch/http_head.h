/// @file
/// The head of an HTTP answer (RFC 9112, 4 and 5) out of a byte stream.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "rtsp_message.h"

namespace zr::dispatch {

/// Takes bytes until the head is whole; interim answers (RFC 9110, 15.2) are passed over. One thread at a time.
class HttpHead
{
public:
    enum class State
    {
        NeedMore,
        Whole,
        Broken ///< it stays so
    };

    /// @param bytes  what the head does not need is left of them
    State take(std::string_view &bytes);
    /// As it came, or what there is of it.
    const std::string &text() const { return m_text; }
    /// Status, reason and headers, once it is whole.
    const rtsp::Message &message() const { return m_message; }
    /// What was wrong, bounded and printable; once it is broken.
    const std::string &problem() const { return m_problem; }

private:
    State fail(std::string problem);
    bool takeLine();
    bool readStatusLine(std::string_view line);

    std::string m_text;
    size_t m_line = 0; ///< where the line begins that has not ended yet
    bool m_ended = false;
    rtsp::Message m_message;
    std::string m_problem;
};

} // namespace zr::dispatch
