/// @file
/// Places in a recording.
#pragma once

#include <optional>
#include <string>

namespace zr::host {

/// Seconds of a recording (RFC 2326, 3.6), or of the day's time since 1970 (3.7).
struct Position
{
    double seconds = 0;
    bool clock = false;
};

/// @param text  seconds, hh:mm:ss[.f], or YYYYMMDDThhmmss[.f]Z
/// @return nothing for the rest, such as "now"
std::optional<Position> parsePosition(const std::string &text);

/// What parsePosition takes for a time of the day.
/// @param text  that, or as ISO 8601 has it, such as 2026-11-20T10:00:00Z; UTC alone
/// @return nothing for the rest
std::optional<std::string> clockText(std::string text);

/// ISO 8601, in UTC with milliseconds, of a time of the day.
std::string isoText(const Position &position);

/// As a server takes it, and parsePosition.
std::string positionText(const Position &position);

/// For people: 1:02, 1:02:03, 2026-01-02 18:00:00.
std::string positionShown(const Position &position);

/// What a description's range tells; an end that is open or unknown is none.
struct Span
{
    std::optional<Position> begin, end;
};

/// The position, or that end of the span beyond which it lies.
Position clamped(Position position, const Span &span);

/// @param range  such as npt=0-24 or clock=20260102T180000Z-20260102T183000Z
Span parseSpan(const std::string &range);

} // namespace zr::host
