// The message-dispatch library, second half: the dispatcher. What is sent is answered by the loop-back and delivered on
// one thread; with a network behind it, an I/O thread stands between the two.

#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "callback_thread.h"
#include "elements.h"
#include "loop_back.h"
#include "zr_common.h"

namespace {

#define OWN_LOG(Level, Code, ...)                                                                                      \
    CZRWriteLog::writeLog(ZR_LOG_##Level, Code, 0x7000001, "zr_msg_dispatch", __LINE__, __VA_ARGS__)

class Dispatcher final : public CIAOIMsgDisp
{
public:
    // Called by whoever sends a request: a host's thread, the timer's, a delivery thread; always under the session's
    // lock, which the delivery of its answer needs too. So: copy the message (the caller frees it at once), put it into
    // a queue, return. Not to be done here: resolving, connecting, waiting, delivering. 0 promises an answer (503 for a
    // host that cannot be reached), or else the requester waits for 25 seconds; a code is the end of the request.
    ZR_ULONG sendAOIMsg(tagMDPMsg *pstMDPMsg) override
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
    ZR_ULONG registerAOIMsgProc(ZR_ULONG ulID, CIAOIMsgProc *poProc) override
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
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG ulID) override
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

    ZR_ULONG start()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_inits == 0)
        {
            try
            {
                m_thread = std::thread([this] { deliver(); });
            }
            catch (const std::system_error &)
            {
                return own::failed;
            }
        }
        ++m_inits;
        m_wasStarted = true;
        return own::ok;
    }

    bool wasStarted()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_wasStarted;
    }

    void stop()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_inits == 0 || --m_inits > 0)
            return;
        m_changed.notify_all();
        std::thread ending = std::move(m_thread);
        lock.unlock();
        ending.join();
    }

private:
    struct Receiver
    {
        CIAOIMsgProc *processor;
        unsigned number; ///< of the registration: an identifier may be registered anew
    };
    struct Request
    {
        own::Message message;
        unsigned number;
    };

    /// The delivery thread. It ends when the library does, and all that was accepted has gone out.
    void deliver()
    {
        own::onCallbackThread = true;
        own::LoopBack device;
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;)
        {
            m_changed.wait(lock, [this] { return !m_requests.empty() || m_inits == 0; });
            if (m_requests.empty())
                return;
            const Request request = std::move(m_requests.front());
            m_requests.pop_front();
            lock.unlock();
            const own::Message answer = answerTo(device, *request.message);
            lock.lock();
            if (answer == nullptr)
                continue;
            const ZR_ULONG id = answer->stHeader.ulDstID;
            const auto receiver = m_receivers.find(id);
            if (receiver == m_receivers.end() || receiver->second.number != request.number)
                continue;
            CIAOIMsgProc *const processor = receiver->second.processor;
            m_delivering = id;
            lock.unlock();
            // no lock is held: the plug-in may send, unregister or register from inside
            processor->AOIMsgPro(answer.get());
            lock.lock();
            m_delivering = 0;
            m_changed.notify_all();
        }
    }

    static own::Message answerTo(own::LoopBack &device, const tagAOIMsg &request)
    {
        try
        {
            return device.answer(request);
        }
        catch (const std::exception &error)
        {
            OWN_LOG(ERROR, own::failed, "[deliver] no answer to request %x of %u: %s", request.stHeader.ulMsgID,
                    request.stHeader.ulSrcID, error.what());
            return nullptr;
        }
    }

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

/// Never freed: the plug-in keeps the pointer beyond ZR_MSGDISP_Destroy, and its objects may be deleted after that.
Dispatcher *dispatcher()
{
    static Dispatcher *const instance = new Dispatcher;
    return instance;
}

} // namespace

// Called by init on the host's thread, with the host's own arguments; 0 and NULL stand for your defaults. Calls nest. A
// failure is init's result, and nothing was started. Let your threads block the signals: they are the host's.
ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG /*ulMaxMessageBytes*/, ZR_ULONG /*ulConnectTimeoutMs*/, const char * /*pszUserAgent*/,
                         const char * /*pszCaFile*/)
{
    return dispatcher()->start();
}

// Called by destroy on the host's thread, after the timers have been stopped, never inside AOIMsgPro. The last one lets
// each TEARDOWN go out (for 2 seconds at most) and ends the threads. Objects may still be registered.
void ZR_MSGDISP_Destroy()
{
    dispatcher()->stop();
}

// Called by init, after ZR_MSGDISP_Init succeeded. The plug-in keeps the pointer for good, and never frees it.
CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter()
{
    return dispatcher()->wasStarted() ? dispatcher() : nullptr;
}
