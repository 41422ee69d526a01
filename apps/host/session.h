/// @file
/// One RTSP session: the plug-in's object and its media port, opened together and closed together.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "mailbox.h"
#include "plugin.h"
#include "sdp.h"
#include "url.h"
#include "zr_platform.h"

namespace zr::host {

struct Source
{
    Url url;
    Credentials credentials;
    std::string tag = "onvif";           ///< decoder description
    tagZrTunnel tunnel = ZR_TUNNEL_NONE; ///< on the URL's port
    std::string name;                    ///< a camera's; empty: it has none
    std::optional<Failure> failure;      ///< why its password is not known, and it cannot be played

    bool tunnelled() const { return tunnel != ZR_TUNNEL_NONE; }
};

/// How a recording is asked for when it is to be kept, not looked at.
struct DownloadSpeed
{
    ZR_ULONG code = 0; ///< 0 to 3: 1, 2, 4 or 8 times
    bool fullFrame = true;
};

struct Playback
{
    std::string from; ///< as the source understands it; empty: from where it is
    std::string to;   ///< empty: to the end
    std::optional<ZR_ULONG> speedCode;
    std::optional<DownloadSpeed> download; ///< instead of a speed
};

/// How a recording is written.
struct Segments
{
    double seconds = 0;     ///< after which the next file begins; 0: never
    double megabytes = 0;   ///< likewise
    bool overwrite = false; ///< further files as well
};

/// A file of a recording that is whole.
struct RecordedFile
{
    std::string name;
    ZrRecordingFile facts; ///< but for its name
};

/// A track to be set up.
struct TrackUrl
{
    std::string media;
    std::string url; ///< absolute control URL
};

/// Operations block until the server answers, 25 s at most, and throw a Failure for what goes wrong. One thread.
class Session : private CIMediaCtrlObserver
{
public:
    /// Opens the media port and makes the object; nothing goes out yet.
    /// @param mailbox  receives the object's notifications; outlives the session
    Session(Plugin &plugin, const Source &source, Mailbox &mailbox);
    /// Ends the session if end did not.
    ~Session() override;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    const Description &describe();
    /// What describe returned.
    const Description &description() const { return m_description; }
    /// As it came, also where describe failed for what it holds; empty before, and once a track is set up.
    std::string sdp() const;
    /// What the server told of itself so far.
    ZrSessionFacts facts() const;
    /// Asks the server for a sign of life, as a keep-alive does, and waits for it.
    /// @param required  an option that it must know to answer well (RFC 2326, 12.32); empty: none
    /// @return what is known then; nothing when no answer came in time
    std::optional<ZrSessionFacts> ask(std::chrono::milliseconds longest, const std::string &required = "") const;
    /// @param metadata  of ONVIF (application/vnd.onvif.metadata) as well
    /// @return the first video and the first audio track, video first
    std::vector<TrackUrl> tracks(bool metadata = false) const;
    /// @param playback  what will be played: a download tells its speed already here
    /// Has what is set up from now on be sent to a group: over UDP, from where it is said to come.
    void askForMulticast();
    void setUp(const TrackUrl &track, tagProtocol protocol, const Playback &playback);
    void play(const Playback &playback);
    void pause();
    /// Plays from somewhere else or at another speed, also while it plays.
    void seek(const Playback &playback);
    /// Has the server send the stream to a TV wall as well; the session goes on.
    void setUpToTv(tagProtocol protocol, const tagTransportAddr &wall);
    /// Ends that, without waiting for the answer.
    void tearDownToTv();
    /// Tells the server that the session is over.
    void end();

    /// Starts a recording of all that arrives; before play, so that it begins with the stream.
    void record(const std::string &file, const Segments &segments);
    /// Those that became whole since the last call.
    std::vector<RecordedFile> recordedFiles();
    /// Ends it and returns when the file is whole.
    void endRecording();
    /// What ended a recording before its end, such as a disk that is full: the platform's code; 0: it goes on.
    ZR_ULONG recordingProblem() const;
    /// Writes the next whole picture.
    void snapshot(const std::string &file, ZR_ULONG timeoutMs);
    /// Shows the video until endShow.
    /// @param how  a tagZrShow
    void show(ZR_ULONG how, ZR_PICTURE_CALLBACK callback, void *user);
    void endShow();
    ZrMediaStatistics statistics() const;
    /// Asks for the recording of an ONVIF recorder from the next request on.
    void replay(const ZrOnvifReplay &how);
    /// What its frames told; nothing where they tell no times.
    std::optional<ZrReplayFacts> replayed() const;
    /// Packets of all tracks that came after a later one.
    uint64_t reordered() const;

private:
    /// Whether the server asked the plug-in for credentials, and got some.
    bool authenticated() const;
    void make(const std::string &local, ZR_USHORT port);
    /// Gives them to the platform, which then answers to all that the server asks for itself, and to no other server.
    /// @throws Failure  of wrong usage, for what cannot be handed over
    void handOverCredentials();
    void close();
    static void takeFile(const ZrRecordingFile *file, void *session);
    /// Calls an operation that waits for the server's answer; ends that when the program is interrupted.
    /// @param what  is asked, such as "setup of video"
    ZR_ULONG request(const std::string &what, const std::function<ZR_ULONG()> &call);
    ZR_ULONG getObserverID() override;
    void notify(ZR_ULONG *code, uintptr_t argument) override;
    Failure failed(const std::string &step, ZR_ULONG result) const;
    Failure credentialsRefused(const std::string &step, const std::string &text) const;
    void check(const std::string &step, ZR_ULONG result) const;
    /// Whether the latest request was neither refused by the server nor lost with the connection.
    bool unexplained() const;
    [[noreturn]] void throwDescribeFailed(ZR_ULONG result) const;
    CMediaAbility ability() const;
    bool onvif() const;

    Plugin &m_plugin;
    Source m_source;
    Mailbox &m_mailbox;
    ZR_ULONG m_id; ///< of the port and of the object
    CIMediaCtrl *m_control = nullptr;
    CIMediaCtrlEx *m_controlEx = nullptr;
    CIMediaCtrlEx2 *m_controlEx2 = nullptr;
    Description m_description;
    std::string m_recording;                   ///< the file that was begun last
    bool m_handedOver = false;                 ///< the credentials
    bool m_played = false;                     ///< the server agreed to
    std::chrono::duration<double> m_waited{0}; ///< for the answer to the latest request

    std::mutex m_filesMutex; ///< guards m_files
    std::vector<RecordedFile> m_files;
};

} // namespace zr::host
