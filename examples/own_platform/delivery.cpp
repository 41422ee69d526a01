// The message-dispatch library: the thread that answers and delivers.

#include <exception>
#include <system_error>
#include <utility>

#include "callback_thread.h"
#include "dispatcher.h"
#include "message.h"
#include "zr_common.h"

namespace {

#define OWN_LOG(Level, Code, ...)                                                                                      \
    CZRWriteLog::writeLog(ZR_LOG_##Level, Code, 0x7000001, "zr_msg_dispatch", __LINE__, __VA_ARGS__)

own::Message answerTo(own::LoopBack &device, const tagAOIMsg &request)
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

} // namespace

ZR_ULONG own::Dispatcher::start()
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

bool own::Dispatcher::wasStarted()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_wasStarted;
}

void own::Dispatcher::stop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_inits == 0 || --m_inits > 0)
        return;
    m_changed.notify_all();
    std::thread ending = std::move(m_thread);
    lock.unlock();
    ending.join();
}

void own::Dispatcher::deliver()
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
