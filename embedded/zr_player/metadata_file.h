/// @file
/// The ONVIF metadata that comes with a recording, in a file beside it.
#pragma once

#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "gst/rtp_timeline.h"
#include "rtcp.h"

namespace zr::media {

/// Of application/vnd.onvif.metadata: XML documents, the last packet of each marked (ONVIF Streaming Specification,
/// 5.1.2.1.1). Writes a line of JSON for each that arrived whole:
///
///     {"seconds":1.25,"utc":"2026-11-23T14:00:00.125Z","clock":"sender","xml":"<tt:MetadataStream ..."}
///
/// The seconds are the recording's, over all its files; the clock is the sender's or, until that is known, the
/// receiver's. Documents are at most 1 MiB; packets may be 32 numbers late. One thread.
class MetadataFile
{
public:
    using Log = std::function<void(bool error, const std::string &text)>;

    /// @param recording  the file beside which this one is made, with the first document: "a.metadata.jsonl" for
    /// "a.mkv"
    /// @param overwrite  one of its name, which otherwise stays
    MetadataFile(const std::string &recording, bool overwrite, uint32_t clockRate, Log log);

    /// @param packet   an RTP packet that was read already
    /// @param arrival  of the monotonic clock
    void take(const std::vector<uint8_t> &packet, TimePoint arrival);
    void setClock(const SenderClock &clock) { m_clock = clock; }
    /// When the recording begins, which what came before waits for.
    /// @param first  when its first packet came
    /// @param begin  nanoseconds from there to its first frame
    void setBegin(TimePoint first, uint64_t begin);
    /// Writes what still waits.
    void finish();

private:
    struct Piece
    {
        uint32_t ssrc;
        uint32_t timestamp;
        bool last;
        TimePoint arrival;
        std::string text;
    };
    struct Document
    {
        uint32_t ssrc = 0;
        uint32_t timestamp = 0;
        TimePoint arrival;
        std::string text;
    };

    void release(bool all);
    void append(Piece &&piece);
    void write(const Document &document);
    bool makeFile();
    void refuse(const std::string &why);

    const std::string m_recording;
    const bool m_overwrite;
    const uint32_t m_clockRate;
    const Log m_log;

    std::optional<uint32_t> m_ssrc;
    uint32_t m_next = 0;            ///< number, counted on over wraps
    std::optional<uint16_t> m_late; ///< the latest came too late; where the next one follows it, its source counts anew
                                    ///< (RFC 3550, A.1)
    std::map<uint32_t, Piece> m_early;
    bool m_broken = false; ///< a packet of the document is missing
    Document m_document;
    std::vector<Document> m_waiting; ///< for the beginning
    size_t m_waitingBytes = 0;

    RtpTimeline m_timeline;
    std::optional<SenderClock> m_clock;
    std::optional<TimePoint> m_first;
    uint64_t m_begin = 0;
    std::ofstream m_file;
    bool m_failed = false;
    unsigned m_refused = 0;
};

} // namespace zr::media
