/// @file
/// A scripted server, a processor that records, and requests as the plug-in makes them. The media port is a recording
/// one as well.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <openssl/ssl.h>

#include "engine.h"
#include "media_port.h"

namespace zr::test {

constexpr std::chrono::seconds patience{10}; ///< for what must happen; nothing waits that long when all is well

/// Waits until a condition holds under its mutex; false when it does not in time.
class Signal
{
public:
    template <typename Change>
    void change(Change change_)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        change_();
        m_changed.notify_all();
    }
    template <typename Condition>
    bool wait(Condition condition, std::chrono::milliseconds limit = patience)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, condition);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
};

enum class After
{
    Stay,
    Close,
    Reset
};

/// What the server does with one request of a connection.
struct Step
{
    std::string method;              ///< expected; anything else is a failure of the test. Empty: any
    std::vector<std::string> pieces; ///< sent one after the other; "{cseq}" stands for the request's
    After after = After::Stay;
};
using Script = std::vector<Step>;

/// The server's side of one connection.
class ServerStream
{
public:
    ServerStream(int socket, SSL_CTX *tls);
    ~ServerStream();
    /// Whether there is something before the test ends.
    bool readable(int stop) const;
    /// @return as recv
    ssize_t read(char *bytes, size_t size) const;
    bool write(const std::string &bytes) const;
    void end(After how) const;
    /// Whether the client has ended TLS in good order.
    bool saidGoodbye() const;

private:
    const int m_socket;
    const std::shared_ptr<SSL> m_tls; ///< null: plain
};

/// Serves the scripts' connections one after the other on 127.0.0.1; requests beyond a script are recorded and not
/// answered. Over TLS the client's good end is recorded as "close_notify".
class ScriptedServer
{
public:
    explicit ScriptedServer(std::vector<Script> scripts, std::shared_ptr<SSL_CTX> tls = nullptr);
    ~ScriptedServer();
    uint16_t port() const { return m_port; }
    /// All requests so far, as they came. Waits until there are that many.
    std::vector<std::string> requests(size_t count);
    /// Whether so many connections have ended at the client's or the script's will.
    bool ended(size_t connections);
    /// Interleaved bytes ($...) that the client sent.
    std::string frames(size_t size);

private:
    void run();
    void serve(const ServerStream &stream, const Script &script);
    bool play(const ServerStream &stream, const Step &step, const std::string &request);
    bool takeRequest(std::string &buffer, std::string &request);

    const std::vector<Script> m_scripts;
    const std::shared_ptr<SSL_CTX> m_tls;
    uint16_t m_port = 0; ///< set by what makes the listener
    const int m_listener;
    int m_stop[2] = {-1, -1};
    Signal m_signal;
    std::vector<std::string> m_requests;
    std::string m_frames;
    size_t m_ended = 0;
    std::thread m_thread;
};

/// A port on which nobody listens.
uint16_t refusedPort();
/// A port on which connections are made but nobody answers; with `full` not even that. It stays so.
uint16_t silentPort(bool full);

struct Received
{
    ZR_ULONG messageId = 0;
    ZR_ULONG kind = 0;
    ZR_ULONG destination = 0;
    ZR_ULONG error = 0;
    std::string session;
    std::string sdp;
    std::string base;
    std::string range;
    ZR_ULONG reason = 0;
    ZR_ULONG action = 0;
};

class Recorder : public CIAOIMsgProc
{
public:
    ZR_ULONG AOIMsgPro(tagAOIMsg *message) override;
    /// Waits for that many messages.
    std::vector<Received> messages(size_t count, std::chrono::milliseconds limit = patience);
    /// Runs inside each call.
    std::function<void()> inside;

private:
    Signal m_signal;
    std::vector<Received> m_messages;
};

class RecordingPort : public media::Port
{
public:
    /// Opens the port of a session, until the next one is opened.
    static std::shared_ptr<RecordingPort> open(ZR_ULONG aoiPort);
    void setUpTrack(unsigned number, const media::TrackTransport &transport, media::InterleavedWriter writer) override;
    void interleavedFrame(uint8_t channel, const uint8_t *data, size_t size) override;
    void connectionClosed() override;
    /// What happened, in words ("track 0 channels 0-1", "frame 0 abc", "closed"); waits for that many.
    std::vector<std::string> events(size_t count);
    media::InterleavedWriter writer();

private:
    void note(std::string event);
    Signal m_signal;
    std::vector<std::string> m_events;
    media::InterleavedWriter m_writer;
};

/// Requests of one session, sent to a dispatcher or an engine.
class Client
{
public:
    /// Registers itself, and the route of its own UA pair.
    Client(CIAOIMsgDisp &dispatcher, ZR_ULONG id, const std::string &host, uint16_t port);
    ~Client();
    ZR_ULONG describe(const std::string &authorization = "");
    ZR_ULONG setup(const std::string &session = "", tagProtocol protocol = PROTOCOL_TCP);
    /// PLAY, PAUSE, TEARDOWN, OPTIONS, SET_PARAMERTER
    ZR_ULONG send(ZR_ULONG messageId, const std::string &session = "S1");
    ZR_ULONG unregister();

    Recorder recorder;
    std::string url;

private:
    ZR_ULONG post(aoi::MessagePtr message);
    aoi::MessagePtr create(ZR_ULONG messageId) const;

    CIAOIMsgDisp &m_dispatcher;
    const ZR_ULONG m_id;
    const std::string m_host;
    const uint16_t m_port;
    bool m_registered = false;
};

/// An answer of 200 with a session, more headers and a body.
std::string ok(const std::string &headers = "", const std::string &body = "");
extern const std::string describeAnswer;
extern const std::string setupAnswer; ///< interleaved 0-1, session S1

/// Durations short enough for a test.
dispatch::Settings quickSettings();

} // namespace zr::test
