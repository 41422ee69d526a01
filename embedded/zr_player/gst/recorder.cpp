#include "recorder.h"

#include <algorithm>
#include <chrono>
#include <exception>

namespace zr::media {

namespace {

/// One that is written, one that waits for its last frames, one that is being closed.
constexpr size_t maxOpen = 3;
/// A disk that takes longer for it gets larger files.
constexpr std::chrono::seconds closedWithin{5};
/// For each file: a key frame should come by then.
constexpr std::chrono::seconds longestHold{10};

} // namespace

Recorder::Recorder(const ZrMediaParts &parts, const std::vector<bool> &video, ZrMediaLog log, void *user)
    : m_files(parts)
    , m_log(log)
    , m_user(user)
    , m_tracks(video.size())
{
    for (size_t i = 0; i < video.size(); ++i)
    {
        m_tracks[i].video = video[i];
    }
}

void Recorder::take(size_t track, GstSample *sample)
{
    GstBuffer *frame = gst_sample_get_buffer(sample);
    if (!GST_BUFFER_PTS_IS_VALID(frame))
    {
        return;
    }
    PartPtr part;
    {
        Lock lock(m_mutex);
        Track &of = m_tracks[track];
        of.caps.reset(gst_caps_ref(gst_sample_get_caps(sample)));
        of.first = GST_CLOCK_TIME_IS_VALID(of.first) ? of.first : GST_BUFFER_PTS(frame);
        of.last = std::max<uint64_t>(of.last, GST_BUFFER_PTS(frame));
        of.silent = false;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_state != ZR_MEDIA_STATE_RUNNING || !m_parts.empty() || known(); });
        hold(track, GST_BUFFER_PTS(frame), lock);
        if (m_state == ZR_MEDIA_STATE_RUNNING)
        {
            part = partOf(track, frame, lock);
        }
    }
    if (part != nullptr)
    {
        part->writer->write(part->places[track], gst_buffer_ref(frame));
    }
}

/// Whether of every track that is to be waited for the coding is known.
bool Recorder::known() const
{
    return std::all_of(m_tracks.begin(), m_tracks.end(),
                       [](const Track &track) { return track.caps != nullptr || track.ended || track.silent; });
}

/// The track whose frames a file may begin with; after its end no more do.
size_t Recorder::reference() const
{
    const auto runs = [](const Track &track) { return track.caps != nullptr && !track.silent; };
    auto found = std::find_if(m_tracks.begin(), m_tracks.end(),
                              [&runs](const Track &track) { return track.video && runs(track); });
    found = found == m_tracks.end() ? std::find_if(m_tracks.begin(), m_tracks.end(), runs) : found;
    return static_cast<size_t>(found - m_tracks.begin());
}

/// Whether a file ends where the next one may begin, from that time on.
bool Recorder::isFull(const Part &part, uint64_t time) const
{
    return (m_files.ullLength != 0 && time >= part.begin + m_files.ullLength) ||
           (m_files.ullBytes != 0 && part.bytes >= m_files.ullBytes);
}

/// Where a file may end, no track runs ahead of the one that the next file begins with, or it would be in the wrong
/// one.
void Recorder::hold(size_t track, uint64_t time, Lock &lock)
{
    const auto goesOn = [&] {
        const size_t leader = reference();
        return m_state != ZR_MEDIA_STATE_RUNNING || m_parts.empty() || leader == track || leader == m_tracks.size() ||
               m_tracks[leader].ended || m_tracks[leader].last >= time || !isFull(*m_parts.back(), time);
    };
    if (goesOn())
    {
        return;
    }
    auto &until = m_parts.back()->holdUntil;
    until = until == std::chrono::steady_clock::time_point() ? std::chrono::steady_clock::now() + longestHold : until;
    m_changed.wait_until(lock, std::chrono::steady_clock::time_point(until), goesOn);
}

std::optional<ZrMediaPartEnd> Recorder::due(const Part &part, size_t track, uint64_t time) const
{
    const GstCaps *before = part.caps[track].get();
    const GstCaps *now = m_tracks[track].caps.get();
    if (m_wanted || before == nullptr || !part.open[track] || (before != now && !codedAlike(before, now)))
    {
        return ZR_MEDIA_PART_CHANGED;
    }
    if (!part.led || !isFull(part, time))
    {
        return std::nullopt;
    }
    const bool large = m_files.ullBytes != 0 && part.bytes >= m_files.ullBytes;
    return large ? ZR_MEDIA_PART_SIZE : ZR_MEDIA_PART_LENGTH;
}

/// The file that a frame goes into; null: none.
Recorder::PartPtr Recorder::partOf(size_t track, GstBuffer *frame, Lock &lock)
{
    const uint64_t time = GST_BUFFER_PTS(frame);
    if (m_tracks[track].ended)
    {
        return nullptr;
    }
    if (m_parts.empty() && !begin(ZR_MEDIA_PART_END, time))
    {
        return nullptr;
    }
    const bool mayBegin = track == reference() && !GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT);
    if (const auto why = mayBegin ? due(*m_parts.back(), track, time) : std::nullopt)
    {
        m_changed.wait_for(lock, closedWithin, [this] {
            return m_state != ZR_MEDIA_STATE_RUNNING || m_parts.empty() || (m_parts.size() < maxOpen && formersEnded());
        });
        if (m_state != ZR_MEDIA_STATE_RUNNING || m_parts.empty() || (m_parts.size() < maxOpen && !begin(*why, time)))
        {
            return nullptr;
        }
    }
    size_t at = m_parts.size() - 1;
    for (; at > 0 && time < m_parts[at]->begin; --at)
    {
    }
    for (size_t former = 0; former < at; ++former)
    {
        endIn(*m_parts[former], track);
    }
    PartPtr part = m_parts[at];
    if (part->places[track] == none || !part->open[track])
    {
        m_wanted = m_wanted || at + 1 == m_parts.size(); // it was silent
        return nullptr;
    }
    if (time < part->begin)
    {
        ++m_tracks[track].leftOut;
        return nullptr;
    }
    if (part->caps[track] != m_tracks[track].caps && !codedAlike(part->caps[track].get(), m_tracks[track].caps.get()))
    {
        m_wanted = true;
        return nullptr;
    }
    part->led = part->led || track == reference();
    part->bytes += gst_buffer_get_size(frame);
    const uint64_t length = GST_BUFFER_DURATION_IS_VALID(frame) ? GST_BUFFER_DURATION(frame) : 0;
    part->end = std::max(part->end, time + length);
    return part;
}

bool Recorder::begin(ZrMediaPartEnd why, uint64_t time)
{
    const auto part = std::make_shared<Part>();
    part->begin = part->end = time;
    std::vector<Writer::Track> tracks;
    for (const Track &track : m_tracks)
    {
        const bool in = track.caps != nullptr && !track.ended && !track.silent;
        part->places.push_back(in ? tracks.size() : none);
        part->open.push_back(in);
        part->caps.emplace_back(in ? gst_caps_ref(track.caps.get()) : nullptr);
        if (in)
        {
            tracks.push_back({track.video ? "video" : "audio", GstPtr<GstCaps>(gst_caps_ref(track.caps.get()))});
            part->begin = m_begun ? part->begin : std::min(part->begin, track.first);
        }
    }
    const char *const file = m_files.next(m_user, why, part->begin);
    if (file == nullptr)
    {
        fail("there is no file to go on in");
        return false;
    }
    try
    {
        part->file = file;
        part->writer = std::make_unique<Writer>(part->file, tracks, true);
        date(*part);
        part->writer->start();
    }
    catch (const std::exception &error)
    {
        fail(error.what());
        return false;
    }
    for (size_t former = 0; former + 1 < m_parts.size(); ++former) // its successor is over as well
    {
        for (size_t i = 0; i < m_tracks.size(); ++i)
        {
            endIn(*m_parts[former], i);
        }
    }
    if (!m_parts.empty())
    {
        m_parts.back()->why = why;
    }
    m_parts.push_back(part);
    m_begun = true;
    m_wanted = false;
    m_changed.notify_all();
    return true;
}

/// By the clock that was known first, and the sender's before the receiver's.
void Recorder::date(Part &part) const
{
    if (part.date == 0 || (!part.sender && m_clock.sender && m_clock.since <= part.begin))
    {
        part.date = m_clock.unixTime + static_cast<int64_t>(part.begin);
        part.sender = m_clock.sender;
        part.writer->setDate(part.date);
    }
}

void Recorder::endIn(Part &part, size_t track)
{
    if (!part.open[track])
    {
        return;
    }
    part.open[track] = false;
    if (std::find(part.open.begin(), part.open.end(), true) == part.open.end())
    {
        part.writer->setComment(commentOn(part.date, part.sender));
    }
    part.writer->end(part.places[track]);
    m_changed.notify_all();
}

/// Whether all tracks went over into the newest file.
bool Recorder::formersEnded() const
{
    return std::all_of(m_parts.begin(), m_parts.end() - 1, [](const PartPtr &former) {
        return std::find(former->open.begin(), former->open.end(), true) == former->open.end();
    });
}

void Recorder::end(size_t track)
{
    const Lock lock(m_mutex);
    m_tracks[track].ended = true;
    for (const PartPtr &part : m_parts)
    {
        endIn(*part, track);
    }
    m_changed.notify_all();
}

void Recorder::setClock(int64_t unixTime, uint64_t since, bool sender)
{
    const Lock lock(m_mutex);
    m_clock = {unixTime, since, sender};
    for (const PartPtr &part : m_parts)
    {
        date(*part);
    }
}

void Recorder::setSilent(size_t track, bool silent)
{
    const Lock lock(m_mutex);
    m_tracks[track].silent = silent;
    for (const PartPtr &part : m_parts)
    {
        if (silent)
        {
            endIn(*part, track);
        }
    }
    m_changed.notify_all();
}

void Recorder::fail(const std::string &problem)
{
    m_log(m_user, 1, problem.c_str());
    m_state = ZR_MEDIA_STATE_FAILED;
    m_changed.notify_all();
}

ZrMediaState Recorder::state()
{
    std::vector<PartPtr> whole;
    ZrMediaState now = ZR_MEDIA_STATE_RUNNING;
    {
        const Lock lock(m_mutex);
        for (auto part = m_parts.begin(); m_state == ZR_MEDIA_STATE_RUNNING && part != m_parts.end();)
        {
            try
            {
                const bool done = (*part)->writer->isWhole(0);
                if (done)
                {
                    whole.push_back(*part);
                }
                part = done ? m_parts.erase(part) : part + 1;
            }
            catch (const std::exception &error)
            {
                fail(error.what());
            }
        }
        now = m_state;
        m_changed.notify_all();
    }
    for (const PartPtr &part : whole)
    {
        conclude(*part);
    }
    return now;
}

/// Without the lock, for it takes its time.
void Recorder::conclude(Part &part)
{
    part.writer->close();
    m_any = true;
    const ZrMediaPart told = {part.file.c_str(), part.why,  part.begin,         part.end - part.begin,
                              part.bytes,        part.date, part.sender ? 1 : 0};
    m_files.whole(m_user, &told);
}

bool Recorder::allEnded(GstClockTime within)
{
    Lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::nanoseconds(within), [this] {
        return std::all_of(m_tracks.begin(), m_tracks.end(), [](const Track &track) { return track.ended; });
    });
}

ZrMediaState Recorder::finish(GstClockTime within)
{
    for (size_t i = 0; i < m_tracks.size(); ++i)
    {
        end(i);
    }
    std::deque<PartPtr> rest;
    {
        const Lock lock(m_mutex);
        rest.swap(m_parts);
    }
    for (const PartPtr &part : rest)
    {
        try
        {
            if (!part->writer->isWhole(within))
            {
                throw std::runtime_error("the file did not become whole in time");
            }
            conclude(*part);
        }
        catch (const std::exception &error)
        {
            const Lock lock(m_mutex);
            fail(part->file + ": " + error.what());
        }
    }
    const Lock lock(m_mutex);
    for (const Track &track : m_tracks)
    {
        if (track.leftOut != 0)
        {
            const std::string text = std::string(track.video ? "video: " : "audio: ") + std::to_string(track.leftOut) +
                                     " frames were left out, for by their time they come before the file's first";
            m_log(m_user, 1, text.c_str());
        }
    }
    m_state = m_state == ZR_MEDIA_STATE_FAILED ? m_state : m_any ? ZR_MEDIA_STATE_WHOLE : ZR_MEDIA_STATE_EMPTY;
    return m_state;
}

void Recorder::abort()
{
    std::deque<PartPtr> rest;
    {
        const Lock lock(m_mutex);
        m_state = m_state == ZR_MEDIA_STATE_RUNNING ? ZR_MEDIA_STATE_EMPTY : m_state;
        rest.swap(m_parts);
        m_changed.notify_all();
    }
    for (const PartPtr &part : rest)
    {
        part->writer->close();
    }
}

} // namespace zr::media
