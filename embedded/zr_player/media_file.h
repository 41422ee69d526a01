/// @file
/// A file that is made of a port's packets: a recording, or one picture.
#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "description.h"
#include "media_library.h"
#include "media_port.h"
#include "metadata_file.h"
#include "rtcp.h"
#include "zr_platform.h"

namespace zr::media {

/// The media library; loads it when it is first asked for. Null, and a log line, when it is not there. Host threads.
const ZrMediaLibrary *mediaLibrary();

/// Who sees what is shown, instead of a file.
struct Viewer
{
    ZR_PICTURE_CALLBACK call = nullptr;
    void *user = nullptr;
};

/// Its texts are the format's.
ZrMediaFormat plainFormat(const Format &format);

/// Of log lines.
const char *nameOf(ZrMediaKind kind);

/// How a recording is written.
struct RecordingPlan
{
    std::chrono::nanoseconds partLength{0}; ///< 0: all in one file
    uint64_t partBytes = 0;                 ///< likewise
    bool overwrite = false;                 ///< of the further files; the first one always may
    ZR_RECORDING_CALLBACK call = nullptr;   ///< learns of whole files
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
    /// @param plan    for a recording
    /// @param out     written on success only
    /// @return 0; a code when it cannot be written or there is no media library
    static ZR_ULONG start(ZR_ULONG portId, ZrMediaKind kind, const std::string &file, Viewer viewer,
                          const RecordingPlan &plan, std::shared_ptr<MediaFile> &out);
    /// Ends it as it is.
    ~MediaFile();
    MediaFile(const MediaFile &) = delete;
    MediaFile &operator=(const MediaFile &) = delete;

    /// A packet of a track arrived. Returns soon; any thread.
    /// @param tracks  how many tracks are set up
    void offer(unsigned track, unsigned tracks, const Format &format, const uint8_t *data, size_t size,
               TimePoint arrival);
    /// A sender report told the wall-clock time of a track. Returns soon; any thread.
    void tellClock(unsigned track, const SenderClock &clock);
    /// Ends a recording and returns when the file is whole. One thread, once.
    ZR_ULONG finish();
    /// Waits for the picture. One thread, once.
    ZR_ULONG waitForPicture(std::chrono::milliseconds timeout);
    /// What finish will return, once it is known; 0 before. Any thread.
    ZR_ULONG result();
    /// Makes waitForPicture return. Any thread.
    void cancel();

private:
    /// A track that goes into the file.
    struct Source
    {
        unsigned track;
        Format format;
    };
    using Sources = std::vector<Source>;
    /// Instead of a place among the sources.
    static constexpr uint32_t ofMetadata = ~uint32_t{0};
    struct Packet
    {
        std::shared_ptr<const Sources> among;
        uint32_t source; ///< its place there
        TimePoint arrival;
        std::vector<uint8_t> bytes;
    };
    /// The newest of a track.
    struct ClockNews
    {
        std::optional<SenderClock> clock;
        bool told = false; ///< to the media library
    };
    using Lock = std::unique_lock<std::mutex>;
    using Sink = std::unique_ptr<ZrMediaSink, void (*)(ZrMediaSink *)>;

    MediaFile(ZR_ULONG portId, ZrMediaKind kind, const ZrMediaLibrary &library, const std::string &file, Viewer viewer,
              const RecordingPlan &plan);

    bool isRecording() const { return m_kind == ZR_MEDIA_KIND_RECORDING; }
    /// Instead of written.
    bool isShown() const { return m_kind == ZR_MEDIA_KIND_SHOW || m_kind == ZR_MEDIA_KIND_WINDOW; }
    ZR_ULONG prepare();
    ZR_ULONG unwritable(const std::string &file, int error) const;
    std::optional<uint32_t> sourceOf(unsigned track, const Format &format);
    std::optional<uint32_t> changedSource(uint32_t source, const Format &format);
    std::optional<uint32_t> metadataSource(unsigned track, const Format &format);
    void writeMetadata(const Packet &packet);
    void dateMetadata(const std::optional<uint64_t> &begin, const std::optional<SenderClock> &clock);
    void leaveOut(unsigned track, const Format &format, const char *why) const;
    void run();
    bool gather(Lock &lock);
    ZrMediaState write(Lock &lock);
    ZrMediaState writeOf(Lock &lock, const std::shared_ptr<const Sources> &sources);
    void awaitPackets(Lock &lock);
    std::deque<Packet> takePackets(const std::shared_ptr<const Sources> &sources);
    void passOn(const std::deque<Packet> &packets, ZrMediaSink *sink, Lock &lock, const Sources &sources);
    ZrMediaSink *open(const Sources &sources);
    static const char *nextFile(void *user, ZrMediaPartEnd why, uint64_t begin);
    static void fileIsWhole(void *user, const ZrMediaPart *part);
    void conclude(ZrMediaState state);
    void concludeFile(ZR_ULONG &result);
    static void take(void *user, const uint8_t *rgb, uint32_t width, uint32_t height);
    static void writeLog(void *user, int error, const char *text);

    const ZR_ULONG m_portId;
    const ZrMediaKind m_kind;
    const ZrMediaLibrary &m_library;
    const std::string m_file;
    const Viewer m_viewer;
    const RecordingPlan m_plan;
    std::string m_target; ///< what is written: the file, or a picture's temporary name beside it
    std::thread m_thread;

    /// Guards what follows. The media thread and the dispatcher's loop wait for it: nothing that may take its time, the
    /// disk least of all, is done under it. The media library is not called under it, but for accepts().
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::shared_ptr<Sources> m_sources; ///< another one, when a track's coding changes
    unsigned m_changes = 0;
    std::array<ClockNews, maxTracks> m_clocks;
    std::optional<uint64_t> m_begin;           ///< nanoseconds from the first packet to the first file's first frame
    std::map<std::string, ZR_ULONG> m_numbers; ///< of the files that are not whole yet
    unsigned m_heard = 0;                      ///< a bit for each track that was heard of
    unsigned m_tracks = 0;
    std::deque<Packet> m_packets;
    size_t m_queuedBytes = 0;
    uint64_t m_dropped = 0;
    bool m_opened = false; ///< its tracks are settled
    bool m_begun = false;  ///< the media library could open it
    bool m_ending = false;
    bool m_cancelled = false;
    std::optional<unsigned> m_metadataTrack;
    uint32_t m_metadataRate = 0;
    bool m_done = false;
    ZR_ULONG m_result = 0; ///< once done

    // of nextFile, of which one call runs at a time: a sink is closed before the next is opened
    std::string m_name; ///< of the file that was begun last
    ZR_ULONG m_number = 0;

    // of the file's own thread
    bool m_goesOn = false;            ///< with other sources
    std::optional<TimePoint> m_first; ///< packet of the recording
    std::unique_ptr<MetadataFile> m_metadata;
    bool m_metadataDated = false;
};

} // namespace zr::media
