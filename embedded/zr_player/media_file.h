/// @file
/// A file that is made of a port's packets: a recording, or one picture.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "description.h"
#include "media_library.h"
#include "rtp.h"
#include "zr_platform.h"

namespace zr::media {

/// The media library; loads it when it is first asked for. Null, and a log line, when it is not there. Host threads.
const ZrMediaLibrary *mediaLibrary();

/// Makes a new file beside another, which may take its name when it is whole.
/// @param out  receives its name
/// @return 0, else the system's error number
int createTemporary(const std::string &file, std::string &out);

/// Who sees what is shown, instead of a file.
struct Viewer
{
    ZR_PICTURE_CALLBACK call = nullptr;
    void *user = nullptr;
};

/// The port offers packets; a thread of the file's own gives them to the media library, for that may take its time. A
/// file begins once every track was heard of, or a second after the first: a container wants its tracks beforehand, and
/// a track that was set up but stays silent would hold it up for ever.
class MediaFile
{
public:
    /// Host threads: may load the library.
    /// @param file    for what is shown a name in the log only
    /// @param viewer  for what is shown
    /// @param out     written on success only
    /// @return 0; a code when it cannot be written or there is no media library
    static ZR_ULONG start(ZR_ULONG portId, ZrMediaKind kind, const std::string &file, Viewer viewer,
                          std::shared_ptr<MediaFile> &out);
    /// Ends it as it is.
    ~MediaFile();
    MediaFile(const MediaFile &) = delete;
    MediaFile &operator=(const MediaFile &) = delete;

    /// A packet of a track arrived. Returns soon; any thread.
    /// @param tracks  how many tracks are set up
    void offer(unsigned track, unsigned tracks, const Format &format, const uint8_t *data, size_t size,
               TimePoint arrival);
    /// Ends a recording and returns when the file is whole. One thread, once.
    ZR_ULONG finish();
    /// Waits for the picture. One thread, once.
    ZR_ULONG waitForPicture(std::chrono::milliseconds timeout);
    /// Makes waitForPicture return. Any thread.
    void cancel();

private:
    /// A track that goes into the file.
    struct Source
    {
        unsigned track;
        Format format;
    };
    struct Packet
    {
        uint32_t source;
        TimePoint arrival;
        std::vector<uint8_t> bytes;
    };
    using Lock = std::unique_lock<std::mutex>;

    MediaFile(ZR_ULONG portId, ZrMediaKind kind, const ZrMediaLibrary &library, const std::string &file, Viewer viewer);

    bool isRecording() const { return m_kind == ZR_MEDIA_KIND_RECORDING; }
    /// Instead of written.
    bool isShown() const { return m_kind == ZR_MEDIA_KIND_SHOW || m_kind == ZR_MEDIA_KIND_WINDOW; }
    ZR_ULONG prepare();
    ZR_ULONG unwritable(const std::string &file, int error) const;
    Source *sourceOf(unsigned track, const Format &format);
    void run();
    bool gather(Lock &lock);
    ZrMediaState write(Lock &lock);
    void awaitPackets(Lock &lock);
    ZrMediaSink *open(const std::vector<Source> &sources);
    void conclude(ZrMediaState state);
    void concludeFile(ZR_ULONG &result);
    static void take(void *user, const uint8_t *rgb, uint32_t width, uint32_t height);
    static void writeLog(void *user, int error, const char *text);

    const ZR_ULONG m_portId;
    const ZrMediaKind m_kind;
    const ZrMediaLibrary &m_library;
    const std::string m_file;
    const Viewer m_viewer;
    std::string m_target; ///< what is written: the file, or a picture's temporary name beside it
    std::thread m_thread;

    /// Guards what follows; the media library is not called under it, but for accepts().
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Source> m_sources;
    unsigned m_heard = 0; ///< a bit for each track that was heard of
    unsigned m_tracks = 0;
    std::deque<Packet> m_packets;
    size_t m_queuedBytes = 0;
    uint64_t m_dropped = 0;
    bool m_opened = false; ///< its tracks are settled
    bool m_begun = false;  ///< the media library could open it
    bool m_ending = false;
    bool m_cancelled = false;
    bool m_done = false;
    ZR_ULONG m_result = 0; ///< valid once done
};

} // namespace zr::media
