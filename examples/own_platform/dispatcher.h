/// @file
/// The dispatcher: what is sent is answered by the loop-back and delivered on one thread; with a network behind it, an
/// I/O thread stands between the two.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "loop_back.h"

namespace own {

class Dispatcher final : public CIAOIMsgDisp
{
public:
    ZR_ULONG sendAOIMsg(tagMDPMsg *pstMDPMsg) override;
    ZR_ULONG registerAOIMsgProc(ZR_ULONG ulID, CIAOIMsgProc *poProc) override;
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG ulID) override;

    /// Calls nest.
    ZR_ULONG start();
    bool wasStarted();
    void stop();

private:
    struct Receiver
    {
        CIAOIMsgProc *processor;
        unsigned number; ///< of the registration: an identifier may be registered anew
    };
    struct Request
    {
        Message message;
        unsigned number;
    };

    /// The delivery thread. It ends when the library does, and all that was accepted has gone out.
    void deliver();

    std::mutex m_mutex; ///< guards all below; never held while the plug-in or the device is called
    std::condition_variable m_changed;
    std::map<ZR_ULONG, Receiver> m_receivers;
    std::deque<Request> m_requests;
    unsigned m_lastNumber = 0;
    unsigned m_inits = 0;
    bool m_wasStarted = false;
    ZR_ULONG m_delivering = 0; ///< whose processor is being called, 0: none's
    std::thread m_thread;
};

} // namespace own
