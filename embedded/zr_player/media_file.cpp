#include "media_file.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error_text.h"
#include "platform_log.h"
#include "udp.h"

namespace zr::media {

namespace {

/// How long after the first packet a recording waits for the other tracks.
constexpr std::chrono::seconds gatherTime{1};
/// What waits for the media library; beyond it packets are lost to the file.
constexpr size_t maxQueuedBytes = 32U << 20U;
constexpr uint32_t finishMs = 10000;
/// How often a picture is looked for while no packet comes.
constexpr std::chrono::milliseconds pictureCheck{20};
/// How often it is seen whether a window was closed.
constexpr std::chrono::milliseconds showCheck{200};

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

/// Its texts are the format's.
ZrMediaFormat plainFormat(const Format &format)
{
    return {format.media.c_str(), format.encoding.c_str(), format.parameters.c_str(),
            format.fmtp.c_str(),  format.clockRate,        format.payloadType};
}

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

std::string temporaryName(const std::string &file)
{
    static std::atomic<unsigned> number{0};
    return file + "." + std::to_string(getpid()) + "-" + std::to_string(number.fetch_add(1)) + ".part";
}

/// Makes it, or empties what has its name, as a host that names an output file expects; links are followed.
/// @param fresh  it must be new: a name of our own, behind which nobody else's link may lie
/// @return 0, else the system's error number
int createFile(const std::string &file, bool fresh)
{
    // non-blocking: nobody is to wait for a FIFO's reader
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | (fresh ? O_EXCL : O_TRUNC);
    const Descriptor fd(::open(file.c_str(), flags, 0666));
    struct stat status
    {
    };
    if (!fd || fstat(fd.get(), &status) != 0)
    {
        return errno;
    }
    return S_ISREG(status.st_mode) ? 0 : EINVAL;
}

} // namespace

int createTemporary(const std::string &file, std::string &out)
{
    out = temporaryName(file);
    return createFile(out, true);
}

ZR_ULONG MediaFile::start(ZR_ULONG portId, ZrMediaKind kind, const std::string &file, Viewer viewer,
                          std::shared_ptr<MediaFile> &out)
{
    const ZrMediaLibrary *library = mediaLibrary();
    if (library == nullptr)
    {
        return ZR_MEDIA_UNAVAILABLE;
    }
    const std::shared_ptr<MediaFile> made(new MediaFile(portId, kind, *library, file, viewer));
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
                     Viewer viewer)
    : m_portId(portId)
    , m_kind(kind)
    , m_library(library)
    , m_file(file)
    , m_viewer(viewer)
    , m_target(kind == ZR_MEDIA_KIND_PICTURE ? temporaryName(file) : file)
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

/// The source of a track, made when the track is heard of first; null when it does not go into the file.
MediaFile::Source *MediaFile::sourceOf(unsigned track, const Format &format)
{
    for (Source &source : m_sources)
    {
        if (source.track == track)
        {
            return source.format.payloadType == format.payloadType ? &source : nullptr;
        }
    }
    if ((m_heard >> track & 1U) != 0 || (!isRecording() && (format.media != "video" || m_opened || !m_sources.empty())))
    {
        return nullptr;
    }
    m_heard |= 1U << track;
    const ZrMediaFormat plain = plainFormat(format);
    if (m_opened || m_library.accepts(&plain) == 0)
    {
        ZR_PLATFORM_LOG(WARNING, 0, Player, "media port %u: %s: track %u (%s) is left out: %s", m_portId,
                        nameOf(m_kind), track, format.encoding.c_str(),
                        m_opened ? "it began too late" : "its encoding is not written");
        return nullptr;
    }
    m_sources.push_back({track, format});
    return &m_sources.back();
}

void MediaFile::offer(unsigned track, unsigned tracks, const Format &format, const uint8_t *data, size_t size,
                      TimePoint arrival)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_done || m_ending || m_cancelled)
    {
        return;
    }
    m_tracks = tracks;
    const Source *source = sourceOf(track, format);
    if (source == nullptr)
    {
        return;
    }
    if (m_queuedBytes + size > maxQueuedBytes)
    {
        if (m_dropped++ == 0)
        {
            ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_FAILED, Player,
                            "media port %u: %s: the file is written more slowly than packets come; some are left out",
                            m_portId, nameOf(m_kind));
        }
        return;
    }
    m_queuedBytes += size;
    m_packets.push_back({static_cast<uint32_t>(source - m_sources.data()), arrival, {data, data + size}});
    m_changed.notify_all();
}

/// Waits until the tracks are known.
/// @return whether there is anything to write
bool MediaFile::gather(Lock &lock)
{
    const auto all = [this] {
        const unsigned heard = static_cast<unsigned>(__builtin_popcount(m_heard));
        return m_ending || m_cancelled || (!m_sources.empty() && (!isRecording() || heard >= m_tracks));
    };
    m_changed.wait(lock, [this, &all] { return !m_packets.empty() || all(); });
    m_changed.wait_for(lock, gatherTime, all);
    m_opened = true;
    return !m_cancelled && !m_packets.empty();
}

ZrMediaSink *MediaFile::open(const std::vector<Source> &sources)
{
    std::vector<ZrMediaFormat> formats;
    formats.reserve(sources.size());
    for (const Source &source : sources)
    {
        formats.push_back(plainFormat(source.format));
    }
    return m_library.open(m_kind, m_target.c_str(), formats.data(), static_cast<uint32_t>(formats.size()), &take,
                          &writeLog, this);
}

/// Returns now and then also when none came, where the media library may be done by itself.
void MediaFile::awaitPackets(Lock &lock)
{
    const auto something = [this] { return !m_packets.empty() || m_ending || m_cancelled; };
    if (isRecording())
    {
        m_changed.wait(lock, something);
    }
    else
    {
        m_changed.wait_for(lock, isShown() ? showCheck : pictureCheck, something);
    }
}

/// Gives the packets to the media library until the file is whole, ended, or cannot be written.
ZrMediaState MediaFile::write(Lock &lock)
{
    const std::vector<Source> sources = m_sources; // complete from here on
    lock.unlock();
    const std::unique_ptr<ZrMediaSink, decltype(m_library.close)> sink(open(sources), m_library.close);
    ZrMediaState state = sink == nullptr ? ZR_MEDIA_STATE_FAILED : ZR_MEDIA_STATE_RUNNING;
    lock.lock();
    m_begun = sink != nullptr;
    while (state == ZR_MEDIA_STATE_RUNNING && !m_cancelled)
    {
        if (m_packets.empty() && m_ending)
        {
            break;
        }
        awaitPackets(lock);
        std::deque<Packet> packets = std::exchange(m_packets, {});
        m_queuedBytes = 0;
        lock.unlock();
        for (const Packet &packet : packets)
        {
            const auto arrival =
                std::chrono::duration_cast<std::chrono::nanoseconds>(packet.arrival.time_since_epoch());
            m_library.push(sink.get(), packet.source, packet.bytes.data(), static_cast<uint32_t>(packet.bytes.size()),
                           static_cast<uint64_t>(arrival.count()));
        }
        state = m_library.state(sink.get());
        lock.lock();
    }
    lock.unlock();
    if (state == ZR_MEDIA_STATE_RUNNING && isRecording())
    {
        state = m_library.finish(sink.get(), finishMs);
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
    if (result == 0)
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
