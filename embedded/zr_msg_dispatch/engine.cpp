#include "engine.h"

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "platform_log.h"
#include "result_codes.h"

namespace zr::dispatch {

namespace {

/// DESCRIBE, and a SETUP that belongs to no session yet.
bool mayOpen(const aoi::Request &request)
{
    return request.messageId == AOI_MSG_RTSP_DESCRIBE ||
           (request.messageId == AOI_MSG_RTSP_SETUP && request.sessionId.empty());
}

std::string describe(const aoi::Request &request)
{
    return std::string(methodOf(request.messageId)) + " of " + std::to_string(request.sourceId);
}

/// The one address of a request's UA pair.
ZR_ULONG findRoute(const aoi::Request &request, route::Address &target)
{
    route::Found found = route::find(request.srcUaId, request.dstUaId);
    if (found.first && found.others.empty())
    {
        target = std::move(*found.first);
        return 0;
    }
    const ZR_ULONG code = found.first ? codeAmbiguousRoute : codeNoRoute;
    std::string text;
    if (found.first)
        text = ": " + hostAndPort({found.first->host, found.first->port});
    for (const route::Address &address : found.others)
        text += " or " + hostAndPort({address.host, address.port});
    ZR_PLATFORM_LOG(ERROR, code, Dispatch, "%s is refused: \"%s\" to \"%s\" has %s route%s", describe(request).c_str(),
                    request.srcUaId.c_str(), request.dstUaId.c_str(), found.first ? "no unambiguous" : "no",
                    text.c_str());
    return code;
}

/// Lets one thread wait for another's job.
class Gate
{
public:
    void open()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool wait(milliseconds patience)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, patience, [this] { return m_open; });
    }

private:
    std::mutex m_mutex; ///< guards m_open
    std::condition_variable m_changed;
    bool m_open = false;
};

} // namespace

Engine::Engine(Settings settings)
    : m_settings(std::move(settings))
    , m_delivery(m_loop)
{
}

Engine::~Engine()
{
    shutDown();
}

bool Engine::start()
{
    m_tls = makeTlsContext({m_settings.caFile, m_settings.moreCaFiles, m_settings.verify});
    return m_tls && m_loop.start([this] { m_delivery.handOver(); });
}

ZR_ULONG Engine::sendAOIMsg(tagMDPMsg *message)
{
    aoi::Request request;
    const ZR_ULONG code = message ? aoi::readRequest(message, request) : codeInvalidArgument;
    if (code != 0)
    {
        ZR_PLATFORM_LOG(ERROR, code, Dispatch, "a message is refused: %s",
                        message ? "it is no request that is understood" : "there is none");
        return code;
    }
    if (isDroppable(request.messageId) && request.sessionId.empty())
        return 0;
    const RegistrationPtr registration = m_delivery.find(request.sourceId);
    if (registration)
        return accept(std::move(request), registration);
    if (isDroppable(request.messageId))
        return 0;
    ZR_PLATFORM_LOG(ERROR, codeNotRegistered, Dispatch, "%s is refused: nobody is registered so",
                    describe(request).c_str());
    return codeNotRegistered;
}

Problem Engine::note(ZR_ULONG id, Registration::Note Registration::*which)
{
    const RegistrationPtr registration = m_delivery.find(id);
    return registration ? (registration.get()->*which).get() : Problem();
}

std::optional<Facts> Engine::facts(ZR_ULONG id)
{
    const RegistrationPtr registration = m_delivery.find(id);
    return registration ? std::optional<Facts>(registration->facts.get()) : std::nullopt;
}

std::shared_ptr<const std::string> Engine::description(ZR_ULONG id)
{
    const RegistrationPtr registration = m_delivery.find(id);
    return registration ? registration->description.get() : nullptr;
}

bool Engine::check(ZR_ULONG id)
{
    const RegistrationPtr registration = m_delivery.find(id);
    return registration && m_loop.post([registration] {
        if (registration->channel)
            registration->channel->check();
    });
}

bool Engine::giveUp(ZR_ULONG id)
{
    const RegistrationPtr registration = m_delivery.find(id);
    return registration && m_loop.post([registration] {
        registration->givenUp = true;
        if (registration->channel)
            registration->channel->giveUp();
    });
}

ZR_ULONG Engine::accept(aoi::Request &&request, const RegistrationPtr &registration)
{
    if (registration->requests >= m_settings.maxRequests)
    {
        ZR_PLATFORM_LOG(ERROR, codeTooManyRequests, Dispatch, "%s is refused: %zu requests wait already",
                        describe(request).c_str(), m_settings.maxRequests);
        return codeTooManyRequests;
    }
    const auto accepted =
        std::make_shared<Accepted>(registration, std::move(request), SteadyClock::now() + m_settings.requestTimeout);
    if (mayOpen(accepted->request))
    {
        const ZR_ULONG code = findRoute(accepted->request, accepted->target.emplace());
        if (code != 0)
            return code;
    }
    return m_loop.run([this, accepted] { submit(accepted); }) ? ZR_ULONG{0} : codeNotStarted;
}

void Engine::submit(const AcceptedPtr &accepted)
{
    const RegistrationPtr &registration = accepted->registration;
    if (!registration->channel)
    {
        // one that has just been ended must not come to life again
        if (m_allEnded || m_delivery.retired(*registration))
            return;
        Registration *const key = registration.get();
        const auto channel =
            std::make_shared<SessionChannel>(ChannelServices{m_loop, m_delivery, m_resolver, m_settings, m_tls},
                                             registration, [this, key] { m_loop.post([this, key] { forget(key); }); });
        m_channels.emplace(key, channel);
        key->channel = channel.get();
    }
    registration->channel->submit(accepted);
}

ZR_ULONG Engine::unregisterAOIMsgProc(ZR_ULONG id)
{
    const RegistrationPtr registration = m_delivery.retire(id);
    if (!registration)
    {
        ZR_PLATFORM_LOG(WARNING, codeNotRegistered, Dispatch, "%u is not registered", id);
        m_delivery.waitIdle(id); // it may have been ended from inside its call, and its owner goes now
        return codeNotRegistered;
    }
    // before the wait: a TEARDOWN is not to be held up by a call that takes its time
    m_loop.run([this, registration] { end(registration); });
    m_delivery.waitIdle(id);
    return 0;
}

void Engine::end(const RegistrationPtr &registration)
{
    if (registration->channel)
        registration->channel->end();
}

void Engine::forget(Registration *registration)
{
    const auto found = m_channels.find(registration);
    if (found != m_channels.end())
    {
        registration->channel = nullptr; // the channel holds the registration
        m_channels.erase(found);
    }
    if (m_channels.empty() && m_allEnded)
        m_allEnded();
}

void Engine::endAll(std::function<void()> done)
{
    m_allEnded = std::move(done);
    for (const auto &entry : m_channels)
        entry.second->end();
    if (m_channels.empty())
        m_allEnded();
}

void Engine::shutDown()
{
    if (std::exchange(m_down, true))
        return;
    m_delivery.retireAll();
    const auto allEnded = std::make_shared<Gate>();
    constexpr milliseconds grace{1000}; // for the thread to come to it
    if (m_loop.post([this, allEnded] { endAll([allEnded] { allEnded->open(); }); }) &&
        !allEnded->wait(m_settings.linger + grace))
        ZR_PLATFORM_LOG(WARNING, codeTimedOut, Dispatch, "connections are closed before their sessions have ended");
    m_loop.post([this] {
        for (const auto &entry : m_channels)
            entry.second->abort();
    });
    m_loop.stop();
    m_channels.clear();
    m_delivery.stop();
    m_resolver.stop(m_settings.linger);
}

void Engine::abandon()
{
    m_loop.abandon(milliseconds(500));
}

} // namespace zr::dispatch
