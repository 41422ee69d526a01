#include "media_file.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "error_text.h"
#include "new_file.h"
#include "platform_log.h"

namespace zr::media {

namespace {

/// How long after the first packet a recording waits for the other tracks.
constexpr std::chrono::seconds gatherTime{1};
constexpr uint32_t finishMs = 10000;
/// How often a picture is looked for while no packet comes.
constexpr std::chrono::milliseconds pictureCheck{20};
/// How often it is seen whether a window was closed.
constexpr std::chrono::milliseconds showCheck{200};
/// How often, without packets, it is seen whether a recording's file became whole.
constexpr std::chrono::milliseconds fileCheck{500};

ZR_ULONG codeOf(ZrMediaState state)
{
    switch (state)
    {
    case ZR_MEDIA_STATE_WHOLE:
        return 0;
    case ZR_MEDIA_STATE_FAILED:
        return ZR_MEDIA_FAILED;
    default:
        return ZR_MEDIA_NO_MEDIA;
    }
}

} // namespace

const char *nameOf(ZrMediaKind kind)
{
    switch (kind)
    {
    case ZR_MEDIA_KIND_RECORDING:
        return "recording";
    case ZR_MEDIA_KIND_PICTURE:
        return "picture";
    case ZR_MEDIA_KIND_SHOW:
        return "preview";
    case ZR_MEDIA_KIND_WINDOW:
        return "window";
    }
    return "";
}

ZR_ULONG MediaFile::start(ZR_ULONG portId, ZrMediaKind kind, const std::string &file, Viewer viewer,
                          const RecordingPlan &plan, std::shared_ptr<MediaFile> &out)
{
    const ZrMediaLibrary *library = mediaLibrary();
    if (library == nullptr)
    {
        return ZR_MEDIA_UNAVAILABLE;
    }
    const std::shared_ptr<MediaFile> made(new MediaFile(portId, kind, *library, file, viewer, plan));
    if (const ZR_ULONG code = made->prepare())
    {
        return code;
    }
    try
    {
        made->m_thread = std::thread(&MediaFile::run, made.get());
    }
    catch (const std::system_error &error)
    {
        writeLog(made.get(), 1, error.what());
        made->conclude(ZR_MEDIA_STATE_FAILED);
        return ZR_MEDIA_FAILED;
    }
    out = made;
    return 0;
}

MediaFile::MediaFile(ZR_ULONG portId, ZrMediaKind kind, const ZrMediaLibrary &library, const std::string &file,
                     Viewer viewer, const RecordingPlan &plan)
    : m_portId(portId)
    , m_kind(kind)
    , m_library(library)
    , m_file(file)
    , m_viewer(viewer)
    , m_plan(plan)
    , m_target(kind == ZR_MEDIA_KIND_PICTURE ? temporaryName(file) : file)
    , m_sources(std::make_shared<Sources>())
{
}

MediaFile::~MediaFile()
{
    cancel();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

/// Makes the file, so that one that cannot be written is refused at once.
ZR_ULONG MediaFile::prepare()
{
    if (isShown())
    {
        return 0;
    }
    struct stat status
    {
    };
    if (stat(m_file.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
    {
        return unwritable(m_file, EISDIR);
    }
    const int error = createFile(m_target, m_kind == ZR_MEDIA_KIND_PICTURE);
    return error == 0 ? 0 : unwritable(m_target, error);
}

ZR_ULONG MediaFile::unwritable(const std::string &file, int error) const
{
    ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_UNWRITABLE, Player, "media port %u: %s: cannot write '%s': %s", m_portId,
                    nameOf(m_kind), file.c_str(), errorText(error).c_str());
    return ZR_MEDIA_UNWRITABLE;
}

void MediaFile::tellClock(unsigned track, const SenderClock &clock)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clocks.at(track) = {clock, false};
}

/// Waits until the tracks are known.
/// @return whether there is anything to write
bool MediaFile::gather(Lock &lock)
{
    const auto all = [this] {
        const unsigned heard = static_cast<unsigned>(__builtin_popcount(m_heard));
        return m_ending || m_cancelled || (!m_sources->empty() && (!isRecording() || heard >= m_tracks));
    };
    m_changed.wait(lock, [this, &all] { return !m_sources->empty() || all(); });
    m_changed.wait_for(lock, gatherTime, all);
    m_opened = true;
    return !m_cancelled && !m_sources->empty();
}

ZrMediaSink *MediaFile::open(const Sources &sources)
{
    std::vector<ZrMediaFormat> formats;
    formats.reserve(sources.size());
    for (const Source &source : sources)
    {
        formats.push_back(plainFormat(source.format));
    }
    const ZrMediaParts parts = {static_cast<uint64_t>(m_plan.partLength.count()), m_plan.partBytes, &nextFile,
                                &fileIsWhole};
    return m_library.open(m_kind, m_target.c_str(), &parts, formats.data(), static_cast<uint32_t>(formats.size()),
                          &take, &writeLog, this);
}

/// Returns now and then also when none came, where the media library may be done by itself.
void MediaFile::awaitPackets(Lock &lock)
{
    const auto something = [this] { return !m_packets.empty() || m_ending || m_cancelled; };
    m_changed.wait_for(lock, isRecording() ? fileCheck : isShown() ? showCheck : pictureCheck, something);
}

/// Those at the front that are of these sources.
std::deque<MediaFile::Packet> MediaFile::takePackets(const std::shared_ptr<const Sources> &sources)
{
    std::deque<Packet> taken;
    if (m_packets.empty() || m_packets.back().among == sources) // nothing goes back to former ones
    {
        m_queuedBytes = 0;
        return std::exchange(m_packets, {});
    }
    while (m_packets.front().among == sources)
    {
        m_queuedBytes -= m_packets.front().bytes.size() + sizeof(Packet);
        taken.push_back(std::move(m_packets.front()));
        m_packets.pop_front();
    }
    return taken;
}

/// Without the lock, but for the clocks' news.
void MediaFile::passOn(const std::deque<Packet> &packets, ZrMediaSink *sink, Lock &lock, const Sources &sources)
{
    std::vector<std::optional<SenderClock>> news;
    for (const Source &source : sources)
    {
        ClockNews &of = m_clocks.at(source.track);
        news.push_back(std::exchange(of.told, true) ? std::nullopt : of.clock);
    }
    const std::optional<uint64_t> begin = m_begin;
    const auto metadataClock = m_metadataTrack ? m_clocks.at(*m_metadataTrack).clock : std::nullopt;
    lock.unlock();
    for (uint32_t i = 0; i < news.size(); ++i)
    {
        if (news[i])
        {
            m_library.clock(sink, i, news[i]->ssrc, news[i]->timestamp, news[i]->unixNs);
        }
    }
    for (const Packet &packet : packets)
    {
        if (packet.source == ofMetadata)
        {
            writeMetadata(packet);
            continue;
        }
        m_first = m_first.value_or(packet.arrival);
        const auto arrival = std::chrono::duration_cast<std::chrono::nanoseconds>(packet.arrival.time_since_epoch());
        m_library.push(sink, packet.source, packet.bytes.data(), static_cast<uint32_t>(packet.bytes.size()),
                       static_cast<uint64_t>(arrival.count()));
    }
    dateMetadata(begin, metadataClock);
}

/// Gives the packets of these sources to the media library until the file is whole, ended, or cannot be written, or
/// packets of others come.
ZrMediaState MediaFile::writeOf(Lock &lock, const std::shared_ptr<const Sources> &sources)
{
    for (ClockNews &clock : m_clocks)
    {
        clock.told = false;
    }
    lock.unlock();
    Sink sink(open(*sources), m_library.close);
    ZrMediaState state = sink == nullptr ? ZR_MEDIA_STATE_FAILED : ZR_MEDIA_STATE_RUNNING;
    lock.lock();
    m_begun = sink != nullptr;
    m_goesOn = false;
    while (state == ZR_MEDIA_STATE_RUNNING && !m_cancelled)
    {
        if (m_packets.empty() && m_ending)
        {
            break;
        }
        awaitPackets(lock);
        const std::deque<Packet> packets = takePackets(sources);
        m_goesOn = packets.empty() && !m_packets.empty();
        if (m_goesOn)
        {
            break;
        }
        passOn(packets, sink.get(), lock, *sources);
        state = m_library.state(sink.get());
        lock.lock();
    }
    lock.unlock();
    if (state == ZR_MEDIA_STATE_RUNNING && isRecording())
    {
        state = m_library.finish(sink.get(), finishMs);
    }
    sink.reset(); // its threads may need the lock to end
    lock.lock();
    return state;
}

/// @return of all files together
ZrMediaState MediaFile::write(Lock &lock)
{
    ZrMediaState state = ZR_MEDIA_STATE_EMPTY;
    while (!m_packets.empty() && !m_cancelled)
    {
        const std::shared_ptr<const Sources> sources = m_packets.front().among; // beyond the packet
        const ZrMediaState of = writeOf(lock, sources);
        state = of == ZR_MEDIA_STATE_EMPTY ? state : of;
        if (!isRecording() || of == ZR_MEDIA_STATE_FAILED)
        {
            break;
        }
    }
    if (m_metadata != nullptr)
    {
        const std::optional<uint64_t> begin = m_begin;
        lock.unlock();
        dateMetadata(begin, std::nullopt);
        m_metadata->finish();
    }
    return state;
}

void MediaFile::run()
{
    ZrMediaState state = ZR_MEDIA_STATE_EMPTY;
    try
    {
        Lock lock(m_mutex);
        if (gather(lock))
        {
            state = write(lock);
        }
    }
    catch (const std::exception &error)
    {
        state = ZR_MEDIA_STATE_FAILED;
        writeLog(this, 1, error.what());
    }
    conclude(state);
}

void MediaFile::conclude(ZrMediaState state)
{
    ZR_ULONG result = codeOf(state);
    if (!isShown())
    {
        concludeFile(result);
    }
    Lock lock(m_mutex);
    m_packets.clear();
    m_result = result;
    m_done = true;
    m_changed.notify_all();
    if (isShown() && !m_cancelled)
    {
        const ZR_ULONG begun = m_begun ? 1 : 0;
        lock.unlock();
        m_viewer.call(m_viewer.user, nullptr, begun, 0);
    }
}

/// @param result  may become that it cannot be written
void MediaFile::concludeFile(ZR_ULONG &result)
{
    if (m_kind == ZR_MEDIA_KIND_PICTURE)
    {
        if (result == 0 && std::rename(m_target.c_str(), m_file.c_str()) != 0)
        {
            result = unwritable(m_file, errno);
        }
        if (result != 0)
        {
            ::unlink(m_target.c_str());
        }
    }
    else if (result == ZR_MEDIA_NO_MEDIA)
    {
        ::unlink(m_target.c_str());
    }
    if (result == 0 && !isRecording()) // whose files were told of one by one
    {
        ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: %s: '%s' is whole", m_portId, nameOf(m_kind), m_file.c_str());
    }
    else if (result == ZR_MEDIA_NO_MEDIA)
    {
        ZR_PLATFORM_LOG(WARNING, result, Player,
                        "media port %u: %s: nothing that begins with a key frame arrived, '%s' is not written",
                        m_portId, nameOf(m_kind), m_file.c_str());
    }
}

void MediaFile::take(void *user, const uint8_t *rgb, uint32_t width, uint32_t height)
{
    const Viewer &viewer = static_cast<const MediaFile *>(user)->m_viewer;
    viewer.call(viewer.user, rgb, width, height);
}

ZR_ULONG MediaFile::finish()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
        m_changed.notify_all();
    }
    m_thread.join();
    return m_result;
}

ZR_ULONG MediaFile::waitForPicture(std::chrono::milliseconds timeout)
{
    Lock lock(m_mutex);
    m_changed.wait_for(lock, timeout, [this] { return m_done || m_cancelled; });
    m_cancelled = true;
    m_changed.notify_all();
    lock.unlock();
    m_thread.join();
    return m_result;
}

ZR_ULONG MediaFile::result()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_result;
}

void MediaFile::cancel()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_cancelled = true;
    m_changed.notify_all();
}

void MediaFile::writeLog(void *user, int error, const char *text)
{
    const auto &file = *static_cast<const MediaFile *>(user);
    if (error != 0)
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_FAILED, Player, "media port %u: %s: %s", file.m_portId, nameOf(file.m_kind),
                        text);
    }
    else
    {
        ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: %s: %s", file.m_portId, nameOf(file.m_kind), text);
    }
}

} // namespace zr::media
