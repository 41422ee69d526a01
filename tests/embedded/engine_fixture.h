/// @file
/// A scripted server, a processor and a media port that record, and requests as the plug-in makes them.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <ace/SOCK_Acceptor.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "engine.h"
#include "media_port.h"

namespace zr::test {

constexpr std::chrono::seconds patience{10}; ///< for what must happen; nothing waits that long when all is well

/// What one thread notes and another waits for.
template <typename Item>
class Notes
{
public:
    void add(Item item)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_items.push_back(std::move(item));
        m_added.notify_all();
    }
    /// All so far. Waits until there are that many.
    std::vector<Item> operator()(size_t count, std::chrono::milliseconds limit = patience)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_added.wait_for(lock, limit, [&] { return m_items.size() >= count; });
        return m_items;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<Item> m_items;
};

enum class After
{
    Stay,
    Close, ///< of a tunnel both; of a POST itself: the GET stays
    Reset,
    CloseGet,  ///< of a tunnel, the POST stays
    ClosePost, ///< the GET stays; of a POST itself: at the end of the body that it announces
    NextPost,  ///< of a POST: it is closed at once, another one comes
    Share      ///< of a GET: the POST comes on its connection
};

/// What the server does with one request of a connection.
struct Step
{
    std::string method;              ///< expected; anything else is a failure of the test. Empty: any
    std::vector<std::string> pieces; ///< sent one after the other; "{cseq}" stands for the request's
    After after = After::Stay;
};
using Script = std::vector<Step>;

/// Serves the scripts' connections one after the other on 127.0.0.1; requests beyond a script are recorded and not
/// answered. Behind a GET that stays the next connection is the POST of its tunnel, and a part of its script.
class ScriptedServer
{
public:
    explicit ScriptedServer(std::vector<Script> scripts, std::shared_ptr<SSL_CTX> tls = nullptr);
    ~ScriptedServer();
    uint16_t port() const;
    std::string url(const std::string &scheme = "rtsp") const;
    /// Whether so many connections have ended at the client's or the script's will.
    bool ended(size_t connections) { return m_ends(connections).size() >= connections; }

    Notes<std::string> requests; ///< whole; "close_notify" for the good end of TLS
    Notes<std::string> frames;   ///< interleaved ones of the client

private:
    void run();
    struct Free
    {
        void operator()(BIO *stream) const { BIO_free_all(stream); }
    };
    using Stream = std::unique_ptr<BIO, Free>;

    bool readable(int socket) const;
    Stream accept() const;
    void serve(BIO *stream, const Script &script);
    bool takeRequest(std::string &buffer, std::string &request);

    const std::vector<Script> m_scripts;
    const std::shared_ptr<SSL_CTX> m_tls;
    ACE_SOCK_Acceptor m_listener;
    int m_stop[2] = {-1, -1};
    Notes<size_t> m_ends;
    std::thread m_thread;
};

/// A port on which nobody listens.
uint16_t refusedPort();
/// A port on which connections are made but nobody answers; with `full` not even that. It stays so.
uint16_t silentPort(bool full);

struct Received
{
    ZR_ULONG messageId = 0;
    ZR_ULONG kind = 9;
    ZR_ULONG destination = 0;
    ZR_ULONG error = 0;
    std::string session;
    std::string sdp;
    std::string base;
    std::string range;
    tagAOIIEQuitReason reason = {};
    tagAOIIERtspActionType action = {};
};

class Recorder : public CIAOIMsgProc
{
public:
    ZR_ULONG AOIMsgPro(tagAOIMsg *message) override;
    std::function<void()> inside; ///< runs inside each call
    Notes<Received> messages;
};

class RecordingPort : public media::Port
{
public:
    /// Opens the port of a session, until the next one is opened.
    static std::shared_ptr<RecordingPort> open(ZR_ULONG aoiPort);
    void setUpTrack(unsigned number, const media::TrackTransport &transport, media::InterleavedWriter writer) override
    {
        writers.add(std::move(writer));
        events.add("track " + std::to_string(number) + " channels " + std::to_string(transport.rtpChannel) + "-" +
                   std::to_string(transport.rtcpChannel));
    }
    void interleavedFrame(uint8_t channel, const uint8_t *data, size_t size) override
    {
        events.add("frame " + std::to_string(channel) + " " + std::string(data, data + size));
    }
    void playing() override { events.add("playing"); }
    void played() override
    {
        events.add("played");
        if (inside)
            inside();
    }
    void connectionClosed() override { events.add("closed"); }

    std::optional<media::ReplayTimes> replayTimes() override { return times; }

    std::function<void()> inside;            ///< runs inside played(), on the loop's turn
    std::optional<media::ReplayTimes> times; ///< set while nothing is asked
    Notes<media::InterleavedWriter> writers;
    Notes<std::string> events; ///< what happened, in words
};

/// Requests of one registration, sent to a dispatcher or an engine.
class Client
{
public:
    /// Registers itself, and the route of its own UA pair.
    Client(CIAOIMsgDisp &dispatcher, ZR_ULONG id, const std::string &host, uint16_t port);
    Client(CIAOIMsgDisp &dispatcher, ZR_ULONG id, const ScriptedServer &server);
    ~Client();
    /// DESCRIBE and SETUP as they open a session, the others within it.
    ZR_ULONG send(ZR_ULONG messageId);
    /// Sends it and waits for the next message.
    Received ask(ZR_ULONG messageId);
    ZR_ULONG unregister();
    /// Where the UA pair leads from now on.
    void reroute(uint16_t port) const;

    std::string url;
    std::string authorization; ///< of a DESCRIBE
    std::string session = "S1";
    tagProtocol protocol = PROTOCOL_TCP;
    Recorder recorder;

private:
    CIAOIMsgDisp &m_dispatcher;
    const ZR_ULONG m_id;
    const std::string m_ua;
    bool m_registered = true;
};

/// An engine, with the settings that it has when it is used first.
class EngineTest : public testing::Test
{
protected:
    EngineTest() { settings.userAgent = "test"; }
    dispatch::Engine &engine()
    {
        if (!m_engine)
        {
            m_engine = std::make_unique<dispatch::Engine>(settings);
            EXPECT_TRUE(m_engine->start());
        }
        return *m_engine;
    }
    dispatch::Settings settings;

private:
    std::unique_ptr<dispatch::Engine> m_engine;
};

/// An answer of 200 with more headers and a body.
std::string ok(const std::string &headers = "", const std::string &body = "");
extern const std::string describeAnswer;
extern const std::string setupAnswer;    ///< interleaved 0-1, session S1
extern const std::string udpSetupAnswer; ///< of session S1
extern const std::string sessionAnswer;  ///< 200, of session S1

} // namespace zr::test
