// The message-dispatch library: what the plug-in calls of the dispatcher.

#include "dispatcher.h"

#include <cstring>
#include <new>
#include <utility>

#include "callback_thread.h"
#include "message.h"

// Called by whoever sends a request: a host's thread, the timer's, a delivery thread; always under the session's
// lock, which the delivery of its answer needs too. So: copy the message (the caller frees it at once), put it into
// a queue, return. Not to be done here: resolving, connecting, waiting, delivering. 0 promises an answer (503 for a
// host that cannot be reached), or else the requester waits for 25 seconds; a code is the end of the request.
ZR_ULONG own::Dispatcher::sendAOIMsg(tagMDPMsg *pstMDPMsg)
{
    if (pstMDPMsg == nullptr || !own::LoopBack::knows(pstMDPMsg->stHeader.ulMsgID))
        return own::invalid;
    const auto &frame = static_cast<const own::Frame &>(*pstMDPMsg);
    try
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_inits == 0)
            return own::failed;
        const auto receiver = m_receivers.find(frame.stHeader.ulSrcID);
        if (receiver == m_receivers.end())
            // a session that was torn down says it again when its object is deleted
            return frame.stHeader.ulMsgID == AOI_MSG_RTSP_TEARDOWN ? own::ok : own::notFound;
        const size_t size = sizeof frame + frame.capacity;
        own::Message copy = own::makeMessage(static_cast<ZR_ULONG>(size));
        std::memcpy(static_cast<void *>(copy.get()), &frame, sizeof frame + frame.used);
        m_requests.push_back({std::move(copy), receiver->second.number});
    }
    catch (const std::bad_alloc &)
    {
        return own::failed;
    }
    m_changed.notify_all();
    return own::ok;
}

// Called by createMediaCtrlInter on the host's thread. Refuse an identifier in use: answers would reach a stranger.
// A failure is not looked at; the object's requests are then refused by sendAOIMsg. The processor is never yours.
ZR_ULONG own::Dispatcher::registerAOIMsgProc(ZR_ULONG ulID, CIAOIMsgProc *poProc)
{
    if (ulID == 0 || ulID == 0xFFFFFFFF || poProc == nullptr)
        return own::invalid;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_inits == 0)
        return own::failed;
    return m_receivers.insert({ulID, {poProc, ++m_lastNumber}}).second ? own::ok : own::invalid;
}

// Called by tearDown and deleteMediaCtrlInter, without the session's lock, and the object is deleted afterwards: so
// when it returns, no call into the processor runs or will begin. On one of your own callback threads (an observer
// tore the session down) do not wait, for you would wait for the call that you are in, or for one that waits for a
// lock of this thread's. What was accepted before goes out, a TEARDOWN first of all; its answer reaches nobody.
ZR_ULONG own::Dispatcher::unregisterAOIMsgProc(ZR_ULONG ulID)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = m_receivers.find(ulID);
    const bool known = found != m_receivers.end();
    if (known)
        m_receivers.erase(found);
    // also for one that is unknown: a callback thread may have unregistered it a moment ago, and not waited
    if (!own::onCallbackThread)
        m_changed.wait(lock, [&] { return m_delivering != ulID; });
    return known ? own::ok : own::notFound;
}
