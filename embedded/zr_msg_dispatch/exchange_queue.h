/// @file
/// The order of one session's requests: what waits, what is on the wire, and which answer belongs to which.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "aoi_message.h"
#include "delivery.h"
#include "route_registry.h"
#include "rtsp_message.h"
#include "settings.h"

namespace zr::dispatch {

constexpr bool isTeardown(ZR_ULONG messageId)
{
    return messageId == AOI_MSG_RTSP_TEARDOWN;
}

constexpr bool isKeepAlive(ZR_ULONG messageId)
{
    return messageId == AOI_MSG_RTSP_OPTIONS || messageId == AOI_MSG_RTSP_SET_PARAMERTER;
}

/// Requests for whose answers nobody waits: an ordinary tear-down sends some after the session has gone.
constexpr bool isDroppable(ZR_ULONG messageId)
{
    return isTeardown(messageId) || isKeepAlive(messageId);
}

/// A request that sendAOIMsg took, until it is answered or dropped.
struct Accepted
{
    Accepted(RegistrationPtr whose, aoi::Request &&what, SteadyClock::time_point until)
        : registration(std::move(whose))
        , request(std::move(what))
        , deadline(until)
    {
        ++registration->requests;
    }
    ~Accepted() { --registration->requests; }
    Accepted(const Accepted &) = delete;
    Accepted &operator=(const Accepted &) = delete;

    const RegistrationPtr registration;
    const aoi::Request request;
    const SteadyClock::time_point deadline; ///< nobody waits for the answer after that
    std::optional<route::Address> target;   ///< of a request that may open the connection
    bool own = false;                       ///< of the platform's accord: nobody is told of its answer
    unsigned redirects = 0;                 ///< that it has followed; on the turn
    unsigned answered = 0;                  ///< challenges for which it was asked again; on the turn
    bool repeated = false;                  ///< on another connection, as it was; on the turn
};
using AcceptedPtr = std::shared_ptr<Accepted>;

/// A request on the wire.
struct Exchange
{
    AcceptedPtr accepted; ///< null: its requester has given up, the answer will be dropped
    ZR_ULONG messageId = 0;
    unsigned cseq = 0;
    std::string url;
    SteadyClock::time_point sent;
    unsigned challenge = 0; ///< the number of the challenge that it answers; 0: none
};

/// One request at a time is on the wire (many cameras fail on pipelining), but for two: a keep-alive, or a TEARDOWN of
/// the platform's own, that is not answered holds the others back for a while only, and a TEARDOWN waits for nobody
/// when its session is over. One thread at a time.
class ExchangeQueue
{
public:
    explicit ExchangeQueue(const Settings &settings);

    void push(AcceptedPtr accepted) { m_waiting.push_back(std::move(accepted)); }
    /// Takes the request that may be sent now; null when none may.
    AcceptedPtr next(SteadyClock::time_point now);
    void sent(Exchange exchange) { m_onWire.push_back(std::move(exchange)); }
    /// The connection leads elsewhere now: what was on the wire is forgotten, and one that is asked there again goes
    /// before all others.
    void restart(AcceptedPtr accepted);
    /// The request is sent again, before all others.
    void again(AcceptedPtr accepted) { m_waiting.insert(m_waiting.begin(), std::move(accepted)); }
    /// Takes the exchange that an answer belongs to: by CSeq, or without one (RFC 2326, 12.17 demands it) the oldest.
    /// None when it belongs to no request.
    std::optional<Exchange> match(const rtsp::Message &response);

    /// Gives up what nobody waits for any more.
    /// @return a line for the log about each
    std::vector<std::string> expire(SteadyClock::time_point now);
    /// When expire or next will have something to do, by time alone.
    std::optional<SteadyClock::time_point> due(SteadyClock::time_point now) const;

    /// Whether a keep-alive of the requester's, or with `own` any, waits or is on the wire.
    bool hasKeepAlive(bool own) const;
    /// The same of a TEARDOWN.
    bool hasTeardown() const;
    /// Whether a requester still waits for an answer.
    bool awaited() const;

    /// Whether what is on the wire may be sent once more when its server closes the connection instead of answering.
    /// @param received  the server may have acted on it, within a session
    bool repeatable(bool received) const;
    /// Has what is on the wire wait again, before all others.
    /// @return the first that waits; there is one
    AcceptedPtr repeat();

    /// Takes all that is awaited, in order, and forgets the rest.
    std::vector<AcceptedPtr> takeAll();
    /// Takes all that is awaited but TEARDOWNs, in order; answers to what is on the wire will be dropped.
    std::vector<AcceptedPtr> giveUp();
    /// Takes the TEARDOWNs that wait, drops what else waits.
    std::vector<AcceptedPtr> takeTeardowns();

private:
    bool wireBusy(SteadyClock::time_point now) const;
    template <typename Kind>
    bool has(Kind kind) const;

    const Settings &m_settings;
    std::vector<AcceptedPtr> m_waiting;
    std::vector<Exchange> m_onWire; ///< in the order of sending
};

} // namespace zr::dispatch
