/// @file
/// The dispatcher at work: what lives between the first ZR_MSGDISP_Init and the last ZR_MSGDISP_Destroy.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>

#include "delivery.h"
#include "io_loop.h"
#include "resolver.h"
#include "session_channel.h"
#include "settings.h"

namespace zr::dispatch {

/// The operations may be called on any thread, also while shutDown runs: they fail then.
///
/// How the threads meet: all that concerns connections and sessions happens on the loop's turn and needs no lock. A
/// caller whose request finds nobody there takes the turn himself, and so writes to the socket; otherwise the request
/// goes into the loop's job queue. Either way they are taken in the order in which they were accepted. Answers go
/// through the delivery, whose mutex alone decides whether a registration still gets calls. Nobody holds a lock, or the
/// turn, while he waits for another thread.
class Engine final : public CIAOIMsgDisp
{
public:
    explicit Engine(Settings settings);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    /// @return false when it cannot; the log says why
    bool start();
    /// Ends all registrations, lets connections that wait for their TEARDOWN's answer linger, ends the threads. Not on
    /// a thread that calls a processor. Idempotent.
    void shutDown();
    /// The process ends without shutDown: lets the I/O thread run out, so that it does not meet what is destroyed then.
    void abandon();

    ZR_ULONG sendAOIMsg(tagMDPMsg *message) override;
    ZR_ULONG registerAOIMsgProc(ZR_ULONG id, CIAOIMsgProc *processor) override { return m_delivery.add(id, processor); }
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG id) override;
    /// What a registration notes of its connection, or of its latest request; nothing when there is none.
    Problem note(ZR_ULONG id, Registration::Note Registration::*which);
    /// What its server told. @return nothing for an identifier that is not registered
    std::optional<Facts> facts(ZR_ULONG id);
    /// Null: none.
    std::shared_ptr<const std::string> description(ZR_ULONG id);
    /// Has its session send a keep-alive. @return false when it has none
    bool check(ZR_ULONG id);
    bool giveUp(ZR_ULONG id);

private:
    ZR_ULONG accept(aoi::Request &&request, const RegistrationPtr &registration);
    // on the turn
    void submit(const AcceptedPtr &accepted);
    void end(const RegistrationPtr &registration);
    void forget(Registration *registration);
    void endAll(std::function<void()> done);

    const Settings m_settings;
    TlsContext m_tls; ///< set by start
    IoLoop m_loop;
    Delivery m_delivery;
    Resolver m_resolver;
    bool m_down = false; ///< the thread of shutDown only

    // on the turn
    std::unordered_map<Registration *, std::shared_ptr<SessionChannel>> m_channels;
    std::function<void()> m_allEnded;
};

} // namespace zr::dispatch
