/// The files that are made of a port's packets.

#include <exception>
#include <utility>

#include "platform_log.h"
#include "port.h"

namespace zr::media {

ZR_ULONG MediaPort::begin(FileSlot &slot, ZrMediaKind kind, const std::string &file, Viewer viewer,
                          const RecordingPlan &plan)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const ZR_ULONG code = m_closed                ? ZR_MEDIA_UNKNOWN_PORT
                              : slot.taken            ? ZR_MEDIA_BUSY
                              : m_description.empty() ? ZR_MEDIA_NO_TRACK
                                                      : 0U;
        if (code != 0)
        {
            ZR_PLATFORM_LOG(WARNING, code, Player, "media port %u: '%s' is not begun: %s", m_portId, file.c_str(),
                            code == ZR_MEDIA_BUSY       ? "another one is being made"
                            : code == ZR_MEDIA_NO_TRACK ? "the tracks are not described"
                                                        : "the port was closed");
            return code;
        }
        slot.taken = true;
    }
    std::shared_ptr<MediaFile> made;
    ZR_ULONG code = ZR_MEDIA_FAILED;
    try
    {
        code = MediaFile::start(m_portId, kind, file, viewer, plan, made);
    }
    catch (const std::exception &error)
    {
        ZR_PLATFORM_LOG(ERROR, code, Player, "media port %u: '%s' is not begun: %s", m_portId, file.c_str(),
                        error.what());
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (code == 0 && !m_closed)
        {
            slot.file = std::move(made);
            for (unsigned number = 0; number < m_tracks.size(); ++number)
            {
                if (const auto &clock = m_tracks[number].senderClock())
                {
                    slot.file->tellClock(number, *clock);
                }
            }
            return 0;
        }
    }
    made.reset(); // who closes the port waits for the slot: nothing is left of the file then
    release(slot);
    return code == 0 ? ZR_ULONG{ZR_MEDIA_UNKNOWN_PORT} : code;
}

void MediaPort::release(FileSlot &slot)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    slot = {};
    m_released.notify_all();
}

ZR_ULONG MediaPort::record(const std::string &file, const RecordingPlan &plan)
{
    return begin(m_recording, ZR_MEDIA_KIND_RECORDING, file, {}, plan);
}

ZR_ULONG MediaPort::recording()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_recording.file == nullptr ? ZR_ULONG{ZR_MEDIA_BUSY} : m_recording.file->result();
}

ZR_ULONG MediaPort::endRecording()
{
    std::shared_ptr<MediaFile> recording;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        recording = std::move(m_recording.file);
    }
    if (recording == nullptr)
    {
        ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_BUSY, Player, "media port %u: there is no recording to end", m_portId);
        return ZR_MEDIA_BUSY;
    }
    const ZR_ULONG code = recording->finish();
    release(m_recording);
    return code;
}

ZR_ULONG MediaPort::snapshot(const std::string &file, std::chrono::milliseconds timeout)
{
    if (const ZR_ULONG code = begin(m_picture, ZR_MEDIA_KIND_PICTURE, file))
    {
        return code;
    }
    std::shared_ptr<MediaFile> picture;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        picture = m_picture.file;
    }
    const ZR_ULONG code = picture->waitForPicture(timeout);
    release(m_picture);
    return code;
}

ZR_ULONG MediaPort::show(ZrMediaKind kind, Viewer viewer)
{
    return begin(m_show, kind, kind == ZR_MEDIA_KIND_WINDOW ? "window" : "preview", viewer);
}

ZR_ULONG MediaPort::endShow()
{
    std::shared_ptr<MediaFile> show;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        show = std::move(m_show.file);
    }
    if (show == nullptr)
    {
        ZR_PLATFORM_LOG(WARNING, ZR_MEDIA_BUSY, Player, "media port %u: nothing is shown that could be ended",
                        m_portId);
        return ZR_MEDIA_BUSY;
    }
    show.reset(); // its thread ends
    release(m_show);
    return 0;
}

} // namespace zr::media
