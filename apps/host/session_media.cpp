// What a session does with the media that arrives: recordings, pictures, counts.

#include "session.h"

#include <cmath>
#include <utility>

#include "failure.h"

namespace zr::host {

void Session::record(const std::string &file, const Segments &segments)
{
    ZrRecordingOptions options{};
    options.ulLengthMs = static_cast<ZR_ULONG>(std::lround(segments.seconds * 1000));
    options.ullBytes = static_cast<uint64_t>(segments.megabytes * 1e6);
    options.ulOverwrite = segments.overwrite ? 1 : 0;
    options.pfnWhole = &Session::takeFile;
    options.pvUser = this;
    const ZR_ULONG result = ZR_MediaPortRecordFiles(m_id, file.c_str(), &options);
    if (result != 0)
    {
        throw notWritten("recording", file, result);
    }
    m_recording = file;
}

void Session::takeFile(const ZrRecordingFile *file, void *session)
{
    auto &own = *static_cast<Session *>(session);
    const std::scoped_lock lock(own.m_filesMutex);
    own.m_files.push_back({file->pszFile, *file});
    own.m_files.back().facts.pszFile = nullptr;
}

std::vector<RecordedFile> Session::recordedFiles()
{
    const std::scoped_lock lock(m_filesMutex);
    return std::exchange(m_files, {});
}

ZR_ULONG Session::recordingProblem() const
{
    return ZR_MediaPortRecording(m_id);
}

void Session::endRecording()
{
    const ZR_ULONG result = ZR_MediaPortRecord(m_id, nullptr);
    if (result != 0)
    {
        throw notWritten("recording", m_recording, result);
    }
}

void Session::snapshot(const std::string &file, ZR_ULONG timeoutMs)
{
    const Interrupt::Wait wait(m_mailbox.interrupt(), "a picture", std::chrono::seconds(timeoutMs / 1000));
    const ZR_ULONG result = ZR_MediaPortSnapshot(m_id, file.c_str(), timeoutMs);
    if (result != 0)
    {
        throw notWritten("taking the picture", file, result);
    }
}

void Session::show(ZR_ULONG how, ZR_PICTURE_CALLBACK callback, void *user)
{
    const ZR_ULONG result = ZR_MediaPortShow(m_id, how, callback, user);
    if (result != 0)
    {
        throw Failure(ExitCode::Output, "showing the picture", result, "there is nothing that can show it",
                      "a library that was built with GStreamer; --log-level info tells more");
    }
}

void Session::endShow()
{
    ZR_MediaPortShow(m_id, ZR_SHOW_NOTHING, nullptr, nullptr);
}

ZrMediaStatistics Session::statistics() const
{
    ZrMediaStatistics now{};
    ZR_MediaPortStatistics(m_id, &now);
    return now;
}

uint64_t Session::reordered() const
{
    uint64_t sum = 0;
    const ZR_ULONG tracks = statistics().ulTracks;
    for (ZR_ULONG track = 0; track < tracks; ++track)
    {
        ZrTrackStatistics of{};
        sum += ZR_MediaPortTrackStatistics(m_id, track, &of) == 0 ? of.ullReordered : 0;
    }
    return sum;
}

} // namespace zr::host
