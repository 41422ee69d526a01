/// @file
/// Where a session plays, as far as its PLAY and PAUSE answers tell (RFC 2326, 3.6, 3.7, 12.29 and 12.34).
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "media_port.h"

namespace zr::dispatch {

/// The position of one session. One thread at a time.
class PlayPosition
{
public:
    using Time = std::chrono::steady_clock::time_point;

    /// A PLAY was answered.
    /// @param answered  the answer's Range value; empty when it has none
    /// @param asked     the request's; where both are empty it plays on from where it was
    /// @param scale     the answer's Scale, 1 when it has none; the codes 101 to 108, 301 to 308, 256 and 258 are
    ///                  taken for the speeds that they mean
    void play(std::string_view answered, std::string_view asked, double scale, Time now);
    /// A PAUSE was answered.
    void pause(Time now);
    /// What the media tells itself. It goes before what is reckoned, once a frame came after the latest PLAY was
    /// answered: as time of day, or by the distance from the begin of the session's first PLAY where that was normal
    /// play time.
    void follow(const media::ReplayTimes &told);

    /// The position as a Range value: "npt=12.500-", "clock=20240229T101500Z-"; "npt=now-" of what plays live.
    std::string range(Time now) const;

private:
    enum class Kind
    {
        Live,
        Npt,
        Clock
    };
    struct Range
    {
        Kind kind = Kind::Live;
        double begin = 0; ///< seconds: of the stream, or since 1970
        std::optional<double> end;
    };

    static std::optional<Range> parse(std::string_view text);
    std::optional<double> told() const;
    double at(Time now) const;

    Range m_range;
    double m_speed = 0; ///< seconds of the stream a second, 0 while it pauses
    Time m_since;       ///< when it was at the range's begin

    /// What the media told, and of how many frames when the latest PLAY was answered. Few sessions have it, and all
    /// sessions are held in memory.
    struct Told
    {
        media::ReplayTimes times;
        uint64_t framesBefore = 0;
    };
    std::unique_ptr<Told> m_told;
    static constexpr double none = -1;   ///< for m_first: no PLAY was answered
    static constexpr double noTime = -2; ///< likewise: it was not by normal play time
    double m_first = none;               ///< normal play time at which the session's first PLAY began
};

} // namespace zr::dispatch
