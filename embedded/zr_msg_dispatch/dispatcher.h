/// @file
/// The public face of the dispatcher.
#pragma once

#include <memory>
#include <mutex>

#include "engine.h"
#include "zr_msg_dispatch.h"

namespace zr::dispatch {

/// Made once and never destroyed; its engine comes and goes. Any thread.
class Dispatcher final : public CIAOIMsgDisp
{
public:
    static Dispatcher &instance();

    /// Starts the engine, or counts: then the settings of the first call stay.
    ZR_ULONG init(Settings settings);
    /// Trusts a further file from the next start on; empty: no further ones. @return 0, or a tagZrTlsCode
    ZR_ULONG addTrust(const std::string &file);
    ZR_ULONG setVerification(bool wanted);
    /// Copies out what a registration notes, the text cut to fit. @return its code
    ZR_ULONG tell(ZR_ULONG id, Registration::Note Registration::*which, char *text, ZR_ULONG size) const;
    std::optional<Facts> facts(ZR_ULONG id) const;
    /// Copies out what a server's description is as it came, cut to fit. @return its bytes
    ZR_ULONG description(ZR_ULONG id, char *text, ZR_ULONG size) const;
    bool check(ZR_ULONG id) const;
    bool giveUp(ZR_ULONG id) const;
    void destroy();
    bool everStarted() const;
    /// The process ends. @see Engine::abandon
    void abandon();

    ZR_ULONG sendAOIMsg(tagMDPMsg *pstMDPMsg) override;
    ZR_ULONG registerAOIMsgProc(ZR_ULONG ulID, CIAOIMsgProc *poProc) override;
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG ulID) override;

private:
    Dispatcher() = default;
    std::shared_ptr<Engine> engine() const;
    std::shared_ptr<Engine> lastEngine() const;

    mutable std::mutex m_mutex; ///< guards the members; nothing waits under it
    std::shared_ptr<Engine> m_engine;
    std::weak_ptr<Engine> m_last; ///< the one that was shut down last, or is being
    unsigned m_count = 0;
    bool m_everStarted = false;
    std::vector<std::string> m_moreCaFiles; ///< for the next engine, as the next
    bool m_verify = true;
};

} // namespace zr::dispatch
