/// @file
/// The course of one session that receives media: opened, played, looked after, ended.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "position.h"
#include "report.h"
#include "session.h"

namespace zr::host {

struct CourseOptions
{
    tagProtocol protocol = PROTOCOL_UDP;
    bool multicast = false; ///< over UDP from a group, not for this receiver alone
    bool fallBack = false;  ///< to the other protocol, where the server refuses the one, or UDP stays silent
    Playback playback;
    std::optional<ZrOnvifReplay> replay; ///< by an ONVIF recorder, whose frames tell their times
    std::string speed;                   ///< as it was given, to be shown
    std::string record;                  ///< file; empty: none
    Segments segments;                   ///< of that
    bool metadata = false;               ///< of ONVIF is received, for the recording
    double skip = 0;    ///< seconds of the recording that are there already: what is played begins behind them
    double held = 0;    ///< with those that are fetched again for the seam
    double silence = 5; ///< seconds without media after which that is said
};

/// What arrived so far.
struct Media
{
    double seconds = 0; ///< as secondsOfMedia
    double covered = 0; ///< seconds of the recording that arrived, by their RTP timestamps
    double silent = 0;  ///< seconds since the last packet
    double kilobitsPerSecond = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t frames = 0; ///< of the video
    uint64_t lost = 0;
    uint64_t reordered = 0;
    double jitterMs = 0;
};

/// Says each step to the report. Operations throw a Failure for what goes wrong before media arrived; what goes wrong
/// later is kept and thrown by end, after the session was closed in good order. One thread.
class Course
{
public:
    using Clock = std::chrono::steady_clock;

    Course(Plugin &plugin, const Interrupt &interrupt, const Source &source, const CourseOptions &options,
           Report &report);

    /// Describes and sets up, starts the recording, plays, and waits for the first packet. Begins once more with a new
    /// session over the other protocol, if the options let it, where the server refuses the one or UDP stays silent.
    void begin();
    /// Whether all that is asked for is there already, as far as the description tells its length: begin has then only
    /// described, and there is nothing to end.
    bool whole() const { return m_whole; }
    /// Waits for what happens, half a second at most, and looks after the media.
    void step(std::chrono::milliseconds longest);
    /// Whether nothing more will come: the session ended or failed, or the program is to end.
    bool over() const { return m_over || m_interrupt.asked(); }
    /// Nothing more is wanted; a failure is told at the end.
    void stop(const std::optional<Failure> &failure = std::nullopt);
    /// Ends the recording and the session, and says what arrived.
    void end();

    void pause();
    void playOn();
    bool paused() const { return m_paused.has_value(); }
    /// Plays from somewhere else, or at another speed, also when paused.
    /// @throws Failure  when the server refuses; then it goes on as before
    void seek(const Playback &playback);
    /// Records from now on, as the options' recording does from the beginning. One at a time.
    void record(const std::string &file);
    /// Returns when the file is whole.
    void endRecording();
    /// The file that is recorded into; empty: none.
    const std::string &recording() const { return m_recording; }
    /// From now on step returns early as well when this descriptor is readable. -1: none.
    void alsoWakeFor(int handle) { m_mailbox.alsoWakeFor(handle); }

    Session &session() { return *m_session; }
    const Description &description() const { return m_description; }
    /// Seconds since media began, without pauses.
    double secondsOfMedia() const;
    /// The same, since the latest seek.
    double secondsOfPlayback() const { return secondsOfMedia() - m_playbackSince; }
    /// Where it plays: by the frames of a replay, else as far as can be reckoned by what was asked for and the
    /// description. None: live.
    std::optional<Position> position() const;
    /// The place, or the nearest to it from where there is something to play.
    Position within(Position place, bool backwards) const;
    /// Where it can play, as far as the description tells that in the unit that it plays by.
    Span span() const;
    /// The fields, with the position's time of the day where the frames of a replay tell it.
    Fields withTime(Fields fields = nullptr) const;
    /// Whether, if nothing more comes, that is the end of what was asked for.
    bool mayHaveEnded() const;
    /// Whether it plays backwards and came to where the recording begins.
    bool atBegin() const;
    /// Whether the latest frame of a replay is that one.
    /// @param mark  a tagZrReplayMark of an end
    bool toldEnd(ZR_ULONG mark) const;
    const Playback &playback() const { return m_playback; }
    const CourseOptions &options() const { return m_options; }
    /// Such as "UDP", as it is now.
    const char *transport() const;
    const Source &source() const { return m_source; }
    /// As of the last look.
    const Media &media() const { return m_media; }
    /// Seconds that the media should take, from the latest seek on, by the range that was asked for, else by the
    /// description; none: not known.
    std::optional<double> length() const;
    /// The notification that ended it.
    std::optional<ZR_ULONG> notice() const { return m_notice; }

private:
    void makeSession();
    std::optional<Position> toldPosition() const;
    void tellReplay();
    void open();
    void openAnew(const Failure &failed);
    bool mayFallBack() const;
    void start();
    void awaitMedia();
    void measure();
    void requireWithin();
    Failure nothingArrived(std::chrono::milliseconds within) const;
    /// Whether it plays backwards from wherever the server begins.
    bool backwardsFromBegin() const;
    void passOver();
    void lookAfterRecording();
    void endRecordingAtEnd();
    void tellFiles();
    void lookForSilence();
    void take(ZR_ULONG notice);
    void endPause();
    void stopIfInterrupted();

    Plugin &m_plugin;
    const Interrupt &m_interrupt;
    const Source &m_source;
    const CourseOptions &m_options;
    Report &m_report;
    Mailbox m_mailbox;
    std::optional<Session> m_session;
    tagProtocol m_protocol; ///< of the session
    Description m_description;
    Playback m_playback;                  ///< what was asked for last
    double m_playbackSince = 0;           ///< and when, in seconds of media
    uint64_t m_discontinuitiesBefore = 0; ///< of a replay, when it was asked for

    std::string m_recording; ///< empty: none

    Media m_media;
    std::optional<Clock::time_point> m_begin; ///< of media
    Clock::time_point m_resumed;              ///< when the server last agreed to play
    Clock::time_point m_lastLook;
    std::optional<Clock::time_point> m_lastRate; ///< since when the rate is reckoned, and of which bytes; none: anew
    uint64_t m_rateBytes = 0;
    std::optional<Clock::time_point> m_paused;
    double m_pausedSeconds = 0;
    double m_nextProbe = 0; ///< seconds of silence at which the server is looked for
    bool m_silent = false;  ///< and it was said
    bool m_over = false;
    bool m_whole = false;
    std::optional<ZR_ULONG> m_notice;
    std::optional<Failure> m_failure;
};

/// Such as "1.2 MB".
std::string amount(uint64_t bytes);
std::chrono::milliseconds inMilliseconds(double seconds);

} // namespace zr::host
