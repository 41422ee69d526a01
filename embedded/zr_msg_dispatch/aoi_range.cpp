#include "aoi_range.h"

#include <cstdint>

#include "aoi_element.h"
#include "platform_log.h"

namespace zr::aoi {
namespace {

enum class Kind
{
    Empty,
    NormalPlayTime,
    Utc,
    Whole,
    Unknown
};

/// Reads a text from its front.
class Reader
{
public:
    explicit Reader(std::string_view text)
        : m_rest(text)
    {
    }

    bool take(char c)
    {
        if (m_rest.empty() || m_rest.front() != c)
            return false;
        m_rest.remove_prefix(1);
        return true;
    }

    /// From `least` to `most` digits, as many as there are.
    bool digits(size_t least, size_t most)
    {
        m_number = 0;
        size_t count = 0;
        while (count < most && count < m_rest.size() && m_rest[count] >= '0' && m_rest[count] <= '9')
        {
            m_number = (m_number * 10 + static_cast<unsigned>(m_rest[count] - '0')) % 1'000'000'000;
            ++count;
        }
        m_rest.remove_prefix(count);
        return count >= least;
    }

    /// The same, with a value within the limits; of numbers of up to eight digits.
    bool number(size_t least, size_t most, unsigned lowest, unsigned highest)
    {
        return digits(least, most) && m_number >= lowest && m_number <= highest;
    }

    bool fraction() { return !take('.') || digits(0, SIZE_MAX); }
    bool atEnd() const { return m_rest.empty(); }

private:
    std::string_view m_rest;
    uint64_t m_number = 0;
};

bool isNormalPlayTime(std::string_view text)
{
    if (text == "now")
        return true;
    Reader reader(text);
    if (!reader.digits(1, SIZE_MAX))
        return false;
    if (reader.take(':') && !(reader.number(1, 2, 0, 59) && reader.take(':') && reader.number(1, 2, 0, 59)))
        return false;
    return reader.fraction() && reader.atEnd();
}

bool isUtc(std::string_view text)
{
    Reader reader(text);
    return reader.digits(4, 4) && reader.number(2, 2, 1, 12) && reader.number(2, 2, 1, 31) && reader.take('T') &&
           reader.number(2, 2, 0, 23) && reader.number(2, 2, 0, 59) && reader.number(2, 2, 0, 60) &&
           reader.fraction() && reader.take('Z') && reader.atEnd();
}

Kind kindOf(std::string_view text)
{
    if (text.empty())
        return Kind::Empty;
    if (text.find('=') != std::string_view::npos)
        return Kind::Whole;
    if (isNormalPlayTime(text))
        return Kind::NormalPlayTime;
    return isUtc(text) ? Kind::Utc : Kind::Unknown;
}

} // namespace

mdp::Status formatRange(std::string_view begin, std::string_view end, std::string &value)
{
    const Kind first = kindOf(begin);
    const Kind last = kindOf(end);
    const auto either = [&](Kind kind) {
        return (first == kind || first == Kind::Empty) && (last == kind || last == Kind::Empty);
    };

    if (first == Kind::Empty && last == Kind::Empty)
        value.clear();
    else if (either(Kind::NormalPlayTime))
        value = std::string("npt=").append(begin).append("-").append(end);
    else if (first == Kind::Utc && either(Kind::Utc))
        value = std::string("clock=").append(begin).append("-").append(end);
    else if (either(Kind::Whole) && (begin.empty() || end.empty()))
        value = begin.empty() ? end : begin;
    else
    {
        ZR_PLATFORM_LOG(WARNING, mdp::BadValue, Dispatch,
                        "[addAOIIERangetime] no range of time from \"%.*s\" to \"%.*s\"",
                        static_cast<int>(begin.size()), begin.data(), static_cast<int>(end.size()), end.data());
        return mdp::BadValue;
    }
    return mdp::Ok;
}

} // namespace zr::aoi
