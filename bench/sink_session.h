/// @file
/// One connection of the sink server as RTSP sees it: requests in, answers out, and what is counted of them.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace sink {

using Clock = std::chrono::steady_clock;

/// How the sink answers.
struct Options
{
    uint16_t port = 0;
    std::string user; ///< with a password: DESCRIBE, SETUP, PLAY and TEARDOWN need them
    std::string password;
    bool basic = false;       ///< Basic is offered (RFC 7617), else Digest with MD5 (RFC 2617)
    unsigned timeout = 60;    ///< seconds until a session that is not heard of ends
    unsigned mediaEvery = 0;  ///< milliseconds from a session's frame to its next; 0: none
    unsigned mediaSize = 172; ///< bytes of an RTP packet, its header included
    unsigned mediaRate = 0;   ///< kilobits a second that a session's packets make up; 0: a frame is one packet
    unsigned mediaFrames = 0; ///< of a session, then it has no more; 0: no end

    unsigned packetsOfFrame() const
    {
        const uint64_t bits = uint64_t{mediaRate} * mediaEvery, ofPacket = uint64_t{8} * mediaSize;
        return mediaRate == 0 ? 1 : static_cast<unsigned>(std::max<uint64_t>(2, (bits + ofPacket / 2) / ofPacket));
    }
};

/// What the sink saw.
struct Counts
{
    uint64_t connections = 0, connectionsOpen = 0, connectionsPeak = 0;
    uint64_t opened = 0;   ///< sessions whose first SETUP was answered
    uint64_t played = 0;   ///< of which PLAY was answered
    uint64_t ended = 0;    ///< by TEARDOWN
    uint64_t complete = 0; ///< of these, the ones that were described, set up and played on the same connection
    uint64_t dropped = 0;  ///< whose connection closed without
    uint64_t expired = 0;  ///< that were not heard of in time
    uint64_t open = 0, peak = 0, playing = 0, playingPeak = 0;
    uint64_t keepAlives = 0; ///< OPTIONS, GET_PARAMETER and SET_PARAMETER of a session that is there
    uint64_t challenges = 0, authRight = 0, authWrong = 0;
    uint64_t refused = 0; ///< answers from 400 on, challenges apart
    uint64_t rtpSent = 0, rtpSkipped = 0, rtcpReceived = 0;
    int64_t rtpWorstGapMs = 0; ///< the longest that a session waited for its next packet, by the sink's own doing
    std::map<std::string, uint64_t> methods;

    std::string json() const;
};

/// A request whose head is whole; it points into the bytes that it was read from.
struct Request
{
    std::string_view method, url, headers;
    std::string_view find(std::string_view name) const; ///< empty: it is not there
};

class Session
{
public:
    enum class State
    {
        None,
        Ready,
        Playing,
        Over
    };

    /// Where the first track's media goes.
    struct Track
    {
        bool interleaved = false;
        uint16_t to = 0; ///< channel or client port
    };

    /// @param number  of the connection, from 1 on: it makes session ID and nonce
    Session(const Options &options, Counts &counts, uint64_t number);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /// Takes the requests and frames that are whole off the bytes.
    /// @return false: the far side speaks no RTSP
    bool take(std::string &in, std::string &out, uint16_t rtpPort);

    bool streams() const
    {
        return m_state == State::Playing && m_track && m_options.mediaEvery != 0 && !m_still &&
               (m_options.mediaFrames == 0 || m_frames < m_options.mediaFrames);
    }
    const Track &track() const { return *m_track; }
    /// The next RTP packet of the first track, framed where it goes over the connection.
    std::string_view nextPacket();
    /// Ends it when nothing was heard of it in time. @return whether it has
    bool expire(Clock::time_point now);

private:
    std::string answer(const Request &request, uint16_t rtpPort);
    std::string setUp(const Request &request, const std::string &cseq, uint16_t rtpPort);
    std::string describe(const Request &request, const std::string &cseq);
    std::string play(const std::string &cseq);
    std::string refuse(int status, const char *reason, const std::string &cseq);
    bool authorized(const Request &request);
    bool rightCredentials(const Request &request, std::string_view header) const;
    bool mayGoOn(const Request &request) const;
    void become(State state);
    std::string sessionLine() const;
    void writePayload(char *payload) const;

    const Options &m_options;
    Counts &m_counts;
    const std::string m_id, m_nonce;
    const uint32_t m_ssrc;
    State m_state = State::None;
    bool m_described = false, m_everPlayed = false, m_still = false;
    std::optional<Track> m_track;
    unsigned m_setups = 0;
    Clock::time_point m_heard;
    uint16_t m_sequence = 0;
    Clock::time_point m_packetMade; ///< since it plays
    unsigned m_frames = 0;          ///< that are whole
    unsigned m_packetsMade = 0;     ///< of the frame that is not
    uint32_t m_timestamp = 0;
    std::string m_packet; ///< with the header of its interleaved frame; empty: none was made yet
};

} // namespace sink
