#include "exchange_queue.h"

#include <algorithm>
#include <iterator>

#include "mapping.h"
#include "rtsp_text.h"

namespace zr::dispatch {

namespace {

/// So many late answers are still recognised.
constexpr size_t mostForgotten = 32;
constexpr uint32_t largestCseq = 0xFFFFFFFF;

/// A request that holds others back for a while only.
bool holdsBriefly(const Exchange &exchange)
{
    return isKeepAlive(exchange.messageId) || exchange.accepted->own;
}

} // namespace

ExchangeQueue::ExchangeQueue(const Settings &settings)
    : m_settings(settings)
{
}

AcceptedPtr ExchangeQueue::next(SteadyClock::time_point now)
{
    if (m_waiting.empty() || wireBusy(now))
        return nullptr;
    AcceptedPtr accepted = std::move(m_waiting.front());
    m_waiting.erase(m_waiting.begin());
    return accepted;
}

void ExchangeQueue::restart(AcceptedPtr accepted)
{
    m_onWire.clear();
    again(std::move(accepted));
}

bool ExchangeQueue::wireBusy(SteadyClock::time_point now) const
{
    return std::any_of(m_onWire.begin(), m_onWire.end(), [this, now](const Exchange &exchange) {
        return exchange.accepted && !(holdsBriefly(exchange) && now - exchange.sent >= m_settings.keepAliveHold);
    });
}

std::optional<Exchange> ExchangeQueue::match(const rtsp::Message &response)
{
    auto found = m_onWire.begin();
    if (const std::string *cseq = response.find("CSeq"))
    {
        const auto number = rtsp::parseNumber(rtsp::trimmed(*cseq), largestCseq);
        found = std::find_if(m_onWire.begin(), m_onWire.end(),
                             [number](const Exchange &exchange) { return number && exchange.cseq == *number; });
    }
    if (found == m_onWire.end())
        return std::nullopt;
    Exchange exchange = std::move(*found);
    // answers come in order: what the server passed over and nobody waits for will not be answered any more
    const auto passedOver =
        std::remove_if(m_onWire.begin(), found, [](const Exchange &older) { return !older.accepted; });
    m_onWire.erase(m_onWire.erase(passedOver, found));
    return exchange;
}

std::vector<std::string> ExchangeQueue::expire(SteadyClock::time_point now)
{
    std::vector<std::string> lines;
    for (Exchange &exchange : m_onWire)
    {
        if (!exchange.accepted || exchange.accepted->deadline > now)
            continue;
        exchange.accepted.reset();
        lines.push_back(std::string("no answer to ") + methodOf(exchange.messageId) + " (CSeq " +
                        std::to_string(exchange.cseq) + ") in time");
    }
    while (!m_waiting.empty() && m_waiting.front()->deadline <= now)
    {
        lines.push_back(std::string(methodOf(m_waiting.front()->request.messageId)) +
                        " waited too long and is never sent");
        m_waiting.erase(m_waiting.begin());
    }
    while (m_onWire.size() > mostForgotten && !m_onWire.front().accepted)
        m_onWire.erase(m_onWire.begin());
    return lines;
}

std::optional<SteadyClock::time_point> ExchangeQueue::due(SteadyClock::time_point now) const
{
    auto earliest = SteadyClock::time_point::max();
    if (!m_waiting.empty()) // the first was accepted first
        earliest = m_waiting.front()->deadline;
    for (const Exchange &exchange : m_onWire)
    {
        if (!exchange.accepted)
            continue;
        earliest = std::min(earliest, exchange.accepted->deadline);
        const auto released = exchange.sent + m_settings.keepAliveHold;
        if (holdsBriefly(exchange) && !m_waiting.empty() && released > now)
            earliest = std::min(earliest, released);
    }
    return earliest == SteadyClock::time_point::max() ? std::nullopt : std::optional(earliest);
}

template <typename Kind>
bool ExchangeQueue::has(Kind kind) const
{
    return std::any_of(m_waiting.begin(), m_waiting.end(),
                       [kind](const AcceptedPtr &accepted) { return kind(*accepted); }) ||
           std::any_of(m_onWire.begin(), m_onWire.end(),
                       [kind](const Exchange &exchange) { return exchange.accepted && kind(*exchange.accepted); });
}

bool ExchangeQueue::hasKeepAlive(bool own) const
{
    return has(
        [own](const Accepted &accepted) { return isKeepAlive(accepted.request.messageId) && (own || !accepted.own); });
}

bool ExchangeQueue::hasTeardown() const
{
    return has([](const Accepted &accepted) { return isTeardown(accepted.request.messageId); });
}

bool ExchangeQueue::awaited() const
{
    return has([](const Accepted &accepted) { return !accepted.own; });
}

/// One that was received: where twice is as good as once (RFC 2616, 8.1.4). A SETUP would leave a stream behind, PLAYs
/// are queued (RFC 2326, 10.5), and there are servers for which to close is the answer to TEARDOWN. One that was left
/// unread, whatever it is: should a server reset what it has read, a PLAY goes on twice at worst, and 454 answers the
/// other TEARDOWN.
bool ExchangeQueue::repeatable(bool received) const
{
    return std::all_of(m_onWire.begin(), m_onWire.end(), [received](const Exchange &exchange) {
        const ZR_ULONG id = exchange.messageId;
        const bool harmless = isKeepAlive(id) || id == AOI_MSG_RTSP_DESCRIBE || id == AOI_MSG_RTSP_PAUSE;
        return !exchange.accepted || (!exchange.accepted->repeated && (harmless || !received));
    });
}

AcceptedPtr ExchangeQueue::repeat()
{
    for (const Exchange &exchange : m_onWire)
    {
        if (exchange.accepted)
            exchange.accepted->repeated = true;
    }
    m_waiting = takeAll();
    return m_waiting.front();
}

std::vector<AcceptedPtr> ExchangeQueue::takeAll()
{
    std::vector<AcceptedPtr> all;
    for (Exchange &exchange : m_onWire)
    {
        if (exchange.accepted)
            all.push_back(std::move(exchange.accepted));
    }
    std::move(m_waiting.begin(), m_waiting.end(), std::back_inserter(all));
    m_onWire.clear();
    m_waiting.clear();
    return all;
}

std::vector<AcceptedPtr> ExchangeQueue::giveUp()
{
    std::vector<AcceptedPtr> all;
    for (Exchange &exchange : m_onWire)
    {
        if (exchange.accepted && !isTeardown(exchange.messageId))
            all.push_back(std::move(exchange.accepted));
    }
    const auto waiting = std::stable_partition(m_waiting.begin(), m_waiting.end(), [](const AcceptedPtr &accepted) {
        return isTeardown(accepted->request.messageId);
    });
    std::move(waiting, m_waiting.end(), std::back_inserter(all));
    m_waiting.erase(waiting, m_waiting.end());
    return all;
}

std::vector<AcceptedPtr> ExchangeQueue::takeTeardowns()
{
    std::vector<AcceptedPtr> teardowns;
    std::copy_if(m_waiting.begin(), m_waiting.end(), std::back_inserter(teardowns),
                 [](const AcceptedPtr &accepted) { return isTeardown(accepted->request.messageId); });
    m_waiting.clear();
    return teardowns;
}

} // namespace zr::dispatch
