/// @file
/// A session of the session client, through the plug-in's interfaces.
#pragma once

#include <atomic>
#include <string>

#include "client_program.h"
#include "session.h"

namespace client {

class PluginSession : public ClientSession, private CIMediaCtrlObserver
{
public:
    /// @param receives     its media is received, not passed over
    /// @param keepAliveMs  0: an "onvif" session, whose keep-alives are its own affair, and whose credentials the
    ///                     plug-in knows; else one that the plug-in keeps alive so often, and whose challenges are
    ///                     answered below it (an "onvif" session takes no interval)
    PluginSession(const Options &options, const std::string &path, bool receives, unsigned keepAliveMs = 0);

    void open() override;
    void pause() override { bench::Library::require("pause", m_extended->pause()); }
    void play() override { bench::Library::require("play", m_session.control().play("", "")); }
    void end() override;
    /// Looks whether the position that the answers to keep-alives tell is another.
    bool keptAlive() override;
    ZrMediaStatistics statistics() const { return m_session.statistics(); }

private:
    ZR_ULONG getObserverID() override { return 1; }
    void notify(ZR_ULONG *code, uintptr_t) override { m_notice = *code; }
    void setUpByDescription();

    const Options &m_options;
    const unsigned m_keepAliveMs;
    std::atomic<ZR_ULONG> m_notice{0};
    std::string m_position;
    bench::Session m_session;
    CIMediaCtrlEx *const m_extended; ///< the same object's
};

} // namespace client
