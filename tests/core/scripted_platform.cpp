#include "scripted_platform.h"

#include <algorithm>
#include <chrono>

namespace zr::test {

Answer &Answer::with(ZR_ULONG element, const std::string &value)
{
    const size_t lead = element == AOI_IE_DATA ? 84 : element == AOI_IE_AUTHORIZATION_ID ? 8 : 0;
    return raw(element, std::string(lead, '\x7f') + value + '\0');
}

Answer &Answer::raw(ZR_ULONG element, const std::string &bytes)
{
    elements[element].assign(bytes.begin(), bytes.end());
    return *this;
}

Platform &Platform::instance()
{
    static Platform platform;
    return platform;
}

void Platform::start()
{
    const Locked guard = locked();
    clearRecord();
    m_faults.clear();
    m_hooks.clear();
    m_scripted.clear();
    m_queue.clear();
    m_processors.clear();
    m_timers.clear();
    m_stopping = false;
    sendChunk = 0;
    clockOffset = todOffset = 0;
    m_delivery = std::thread([this] { runDelivery(); });
}

void Platform::stop()
{
    locked()->m_stopping = true;
    m_delivery.join();
}

void Platform::runDelivery()
{
    std::unique_lock<std::recursive_mutex> guard(m_lock);
    for (;;)
    {
        m_changed.wait(guard, [this] { return m_stopping || !m_queue.empty(); });
        if (m_queue.empty())
            return;
        Answer message = m_queue.front();
        m_queue.pop_front();
        const auto processor = m_processors.find(message.stHeader.ulDstID);
        if (processor == m_processors.end())
            continue;
        m_runningId = processor->first;
        guard.unlock();
        const ZR_ULONG result = processor->second->AOIMsgPro(&message);
        guard.lock();
        m_runningId = 0;
        m_deliveryResults.push_back(result);
        m_changed.notify_all();
    }
}

void Platform::expireWaits()
{
    clockOffset = todOffset =
        std::chrono::nanoseconds(std::chrono::milliseconds(5) - std::chrono::seconds(25)).count() / 100;
}

Texts Platform::logs(char fromLevel)
{
    Texts texts;
    for (const LogLine &line : logLines())
    {
        if (line.text[0] >= fromLevel)
            texts.push_back(line.text);
    }
    return texts;
}

void Platform::clearRecord()
{
    const Locked guard = locked();
    m_logs.clear();
    m_requests.clear();
    m_events.clear();
    m_packets.clear();
    m_deliveryResults.clear();
}

bool Platform::waitFor(const std::function<bool()> &predicate)
{
    std::unique_lock<std::recursive_mutex> guard(m_lock);
    return m_changed.wait_for(guard, std::chrono::seconds(20), predicate);
}

ZR_ULONG Platform::enter(const std::string &operation)
{
    std::function<void()> action;
    ZR_ULONG code = 0;
    {
        const Locked guard = locked();
        if (const auto hooked = m_hooks.find(operation); hooked != m_hooks.end())
            action = hooked->second;
        if (const auto fault = m_faults.find(operation); fault != m_faults.end() && fault->second.skip-- <= 0)
        {
            code = fault->second.code;
            if (--fault->second.count == 0)
                m_faults.erase(fault);
        }
    }
    if (action)
        action();
    return code;
}

ZR_ULONG Platform::sendAOIMsg(tagMDPMsg *message)
{
    if (const ZR_ULONG code = enter("send"))
        return code;
    const Locked guard = locked();
    const tagMDPMsgHeader &header = message->stHeader;
    m_requests.push_back(
        {header.ulMsgID, header.ulMsgKind, header.ulSrcID, header.ulDstID, static_cast<Message *>(message)->elements});
    const auto scripted = std::find_if(m_scripted.begin(), m_scripted.end(),
                                       [&](const Answer &answer) { return answer.stHeader.ulMsgID == header.ulMsgID; });
    if (scripted != m_scripted.end())
    {
        m_queue.push_back(*scripted);
        m_scripted.erase(scripted);
    }
    return 0;
}

ZR_ULONG Platform::registerAOIMsgProc(ZR_ULONG id, CIAOIMsgProc *processor)
{
    record("register", id);
    locked()->m_processors[id] = processor;
    return 0;
}

ZR_ULONG Platform::unregisterAOIMsgProc(ZR_ULONG id)
{
    record("unregister", id);
    enter("unregister");
    std::unique_lock<std::recursive_mutex> guard(m_lock);
    m_processors.erase(id);
    if (std::this_thread::get_id() != m_delivery.get_id())
        m_changed.wait(guard, [&] { return m_runningId != id; });
    return 0;
}

ZR_ULONG Platform::startTimer(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user)
{
    record("startTimer", periodMs);
    const Locked guard = locked();
    m_timers[++m_lastTimer] = {periodMs, callback, user};
    return m_lastTimer;
}

ZR_ULONG Platform::stopTimer(ZR_ULONG handle)
{
    const ZR_ULONG code = enter("stopTimer");
    return locked()->m_timers.erase(handle) == 1 ? code : 1;
}

void Platform::tick(ZR_ULONG periodMs)
{
    const auto timers = locked()->m_timers;
    for (const auto &[handle, timer] : timers)
    {
        if (timer.periodMs == periodMs)
            timer.callback(timer.user);
    }
}

} // namespace zr::test
