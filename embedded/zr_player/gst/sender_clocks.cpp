#include "sender_clocks.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace zr::media {

namespace {

constexpr int64_t second = 1000000000;
/// What nobody notices between picture and sound, and what no sender means.
constexpr int64_t smallestDelay = second / 25;
constexpr int64_t largestDelay = 10 * second;
/// Of a report to the first packet behind a jump, or it is of what came before.
constexpr int64_t furthestReport = second / 2;
/// 2001-01-01, where Matroska's dates begin.
constexpr int64_t oldestDate = 978307200 * second;

} // namespace

SenderClocks::SenderClocks(const std::vector<bool> &video)
    : m_tracks(video.size())
{
    for (size_t i = 0; i < video.size(); ++i)
    {
        m_tracks[i].video = video[i];
    }
}

void SenderClocks::report(size_t track, uint32_t ssrc, uint32_t timestamp, int64_t unixTime)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_tracks[track].news = Report{ssrc, timestamp, unixTime};
}

SenderClocks::Outcome SenderClocks::follow(size_t track, RtpTimeline &timeline, uint64_t time, uint64_t arrival)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Track &of = m_tracks[track];
    Outcome outcome;
    if (of.run != timeline.run())
    {
        outcome.undated = of.run != 0 && m_dates.value_or(track) == track;
        m_dates = outcome.undated ? std::nullopt : m_dates;
        of.start.reset();
        of.reported.reset();
        of.since = of.run == 0 ? 0 : time;
        const auto told = of.run != 0 && of.news ? timeline.at(of.news->ssrc, of.news->timestamp) : std::nullopt;
        if (told && std::abs(static_cast<int64_t>(*told - time)) > furthestReport)
        {
            of.news.reset();
        }
        of.run = timeline.run();
    }
    if (const auto news = std::exchange(of.news, std::nullopt))
    {
        outcome.start = lookAt(of, *news, timeline, time, arrival);
        m_dates = outcome.start ? track : m_dates;
    }
    int64_t early = 0;
    for (const Track &other : m_tracks)
    {
        const int64_t difference = of.start && other.start ? *of.start - *other.start : 0;
        early = difference <= largestDelay ? std::max(early, difference) : early;
    }
    // reports that contradict each other would put off both in turn
    if (early >= smallestDelay && of.delayed + early <= largestDelay)
    {
        of.delayed += early;
        outcome.delay = static_cast<uint64_t>(early);
        timeline.delay(outcome.delay);
        *of.start -= early;
        of.reported->first += early;
    }
    return outcome;
}

std::optional<SenderClocks::Start> SenderClocks::lookAt(Track &track, const Report &report, const RtpTimeline &timeline,
                                                        uint64_t time, uint64_t arrival) const
{
    const auto known = timeline.at(report.ssrc, report.timestamp);
    if (!known)
    {
        return std::nullopt;
    }
    const auto at = static_cast<int64_t>(*known);
    const auto before = std::exchange(track.reported, std::make_pair(at, report.unixTime));
    // what is sent faster than it plays lies otherwise at each report
    bool paced = time < arrival + static_cast<uint64_t>(second);
    if (before)
    {
        const int64_t passed = report.unixTime - before->second;
        paced = std::abs(at - before->first - passed) < passed / 10 + smallestDelay;
    }
    const int64_t start = report.unixTime - at;
    track.start = paced ? std::optional<int64_t>(start) : std::nullopt;
    const bool best = track.video || std::none_of(m_tracks.begin(), m_tracks.end(),
                                                  [](const Track &other) { return other.video && other.start; });
    // a clock that runs since the device does places tracks towards each other, but tells no date
    if (!best || (!paced && before) || report.unixTime < oldestDate)
    {
        return std::nullopt;
    }
    return Start{start, track.since};
}

} // namespace zr::media
