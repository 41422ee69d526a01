/// @file
/// The requests and answers of one registration: their order, their matching, the connection under them.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "authenticator.h"
#include "connection.h"
#include "delivery.h"
#include "exchange_queue.h"
#include "mapping.h"
#include "resolver.h"
#include "route_registry.h"
#include "session_keeper.h"
#include "settings.h"

namespace zr::dispatch {

/// What all channels share; outlives them.
struct ChannelServices
{
    IoLoop &loop;
    Delivery &delivery;
    Resolver &resolver;
    const Settings &settings;
    const TlsContext &tls;
};

/// Everything here happens on the loop's turn. The channel comes with the registration's first request that may open a
/// connection and goes with the registration: one request on the wire at a time, the others behind it.
class SessionChannel final : private Connection::Owner, public std::enable_shared_from_this<SessionChannel>
{
public:
    /// @param finished  called once, after end(), when nothing is left to do: the channel may be let go (by a job)
    SessionChannel(const ChannelServices &services, RegistrationPtr registration, std::function<void()> finished);
    ~SessionChannel();

    void submit(AcceptedPtr accepted);
    /// Sends a keep-alive now, unless one is outstanding.
    void check() { keepAlive(); }
    /// The host waits no longer: what is outstanding has failed.
    void giveUp();
    /// The registration is over: a TEARDOWN that was accepted is written at once, the rest dropped; the connection
    /// lingers until it is answered.
    void end();
    /// Drops everything now.
    void abort();

private:
    void connected() override;
    void received(rtsp::Message &message) override;
    void received(const rtsp::Frame &frame) override;
    void lost(const std::string &reason, bool orderly) override;

    /// Where a connection leads.
    struct Target
    {
        route::Address address;
        bool secure = false;
        std::string certificateHost; ///< of a secure one: the URL's host, which the server is to prove
        bool operator==(const Target &other) const;
    };

    /// What a redirect said: asked for the one URL, ask for the other.
    struct Redirect
    {
        std::string from;
        std::string to;
    };

    bool prepareConnection(const Accepted &accepted);
    bool leadsElsewhere(const Accepted &accepted, const Target &target) const;
    bool follow(const Exchange &exchange, const rtsp::Message &response);
    void leadTo(const Url &url, const Accepted &accepted);
    bool askAgain(const Connection &closed);
    void openConnection(const Accepted &cause);
    uint16_t tunnelPort(const Orders &orders) const;
    std::unique_ptr<TunnelPlan> planTunnel(const Accepted &cause, const Orders &orders, uint16_t port) const;
    void dropConnection();
    bool maySeeCredentials(std::string_view authorization);
    bool authenticates(const Orders &orders) const;
    bool mayShow(const Credentials &credentials) const;
    unsigned addOrders(std::string &bytes, const Orders &orders);
    /// What becomes of an answer where the host gave credentials.
    enum class Authentication
    {
        None,   ///< the answer is whose it would be without them
        Again,  ///< the request waits to be sent with an answer to the challenge
        Refused ///< its requester was told
    };
    Authentication authenticate(const Exchange &exchange, const rtsp::Message &response);
    void pump();
    void send(const AcceptedPtr &accepted);

    void takeResponse(const rtsp::Message &response);
    void noteFacts(const Exchange &exchange, const rtsp::Message &response);
    void keepAlive();
    bool isUnknown(const aoi::Request &request) const;
    void endUnknown(const aoi::Request &setup, const std::string &url);
    void submitOwn(aoi::Request request);
    void takeOwnAnswer(const Exchange &exchange, const rtsp::Message &response);
    void answer(const Exchange &exchange, const rtsp::Message &response);
    void noteDescription(ZR_ULONG messageId, const rtsp::Message &response);
    void setUpTrack(const Mapped &mapped);
    void answerServer(const rtsp::Message &request);

    void deliver(const aoi::Answer &answer);
    void refuse(const Accepted &accepted, ZR_ULONG status, const std::string &why);
    void failAll(const std::string &why);
    aoi::Answer notice(ZR_ULONG messageId) const;
    aoi::Answer lossNotice() const;
    void announce(ZR_ULONG quitReason);
    void resetSession();
    bool mayNote();

    void startTimer();
    void onTimer();
    void flushTeardowns();
    void closePort();
    void finish();

    static constexpr const char *givenUp = "the host waits no longer";

    std::string name() const;
    std::string farSide() const;

    const ChannelServices m_services;
    const RegistrationPtr m_registration;
    std::function<void()> m_finished;

    Target m_asked;  ///< by route and URL
    Target m_target; ///< where it leads: another when redirected
    std::optional<Redirect> m_redirect;
    std::shared_ptr<Connection> m_connection; ///< null: none; else being resolved, connecting, or up
    Session m_session;
    Authenticator m_authenticator; ///< of the session with its server
    bool m_wasUp = false;          ///< the connection
    bool m_answered = false;       ///< a request, on it
    bool m_interleaved = false;
    bool m_tornDown = false;     ///< the last answer was that to a TEARDOWN: the server may close now
    bool m_mayReconnect = false; ///< a UDP session whose server closed between requests
    bool m_doubted = false;      ///< it reset the connection, by a restart perhaps, and has confirmed nothing since
    std::shared_ptr<media::Port> m_port;

    ExchangeQueue m_exchanges;
    unsigned m_cseq = 0;
    unsigned m_notes = 0;     ///< lines logged about the server's oddities on this connection
    unsigned m_announced = 0; ///< ends of the session that the server announced on it

    enum class Life
    {
        Open,
        Lingering,
        Over
    };
    Life m_life = Life::Open;
    LoopTimer m_timer; ///< fires at the earliest deadline, or earlier
    SteadyClock::time_point m_timerDue;
    LoopTimer m_linger;
    SessionKeeper m_keeper;
};

} // namespace zr::dispatch
