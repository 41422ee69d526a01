#include "scripted_platform.h"

#include <algorithm>
#include <cstdlib>

namespace zr::test
{

Answer::Answer(ZR_ULONG id, ZR_ULONG kind, ZR_ULONG destination)
    : tagAOIMsg{{id, kind, 1, destination}}
{
}

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
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    clearRecord();
    m_faults.clear();
    m_hooks.clear();
    m_scripted.clear();
    m_queue.clear();
    m_processors.clear();
    m_timers.clear();
    m_stopping = false;
    dispatcherMissing = false;
    sendChunk = 0;
    clockOffset = todOffset = 0;
    m_delivery = std::thread([this] { runDelivery(); });
}

void Platform::stop()
{
    {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
        m_stopping = true;
        m_changed.notify_all();
    }
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

void Platform::fail(const std::string &operation, ZR_ULONG code, int nth, int count)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_faults[operation] = {code, nth - 1, count};
}

void Platform::heal(const std::string &operation)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_faults.erase(operation);
}

void Platform::hook(const std::string &operation, std::function<void()> action)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_hooks[operation] = std::move(action);
}

void Platform::answer(const Answer &scripted)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_scripted.push_back(scripted);
}

void Platform::deliver(const Answer &message)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_queue.push_back(message);
    m_changed.notify_all();
}

void Platform::expireWaits()
{
    clockOffset = todOffset =
        std::chrono::nanoseconds(std::chrono::milliseconds(5) - std::chrono::seconds(25)).count() / 100;
}

std::vector<std::string> Platform::logs(char fromLevel) const
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    std::vector<std::string> texts;
    for (const LogLine &line : m_logs)
    {
        if (line.text[0] >= fromLevel)
            texts.push_back(line.text);
    }
    return texts;
}

#define ZR_TEST_GETTER(Type, name, member)                                                                             \
    Type Platform::name() const                                                                                        \
    {                                                                                                                  \
        const std::lock_guard<std::recursive_mutex> guard(m_lock);                                                     \
        return member;                                                                                                 \
    }
ZR_TEST_GETTER(std::vector<LogLine>, logLines, m_logs)
ZR_TEST_GETTER(std::vector<Request>, requests, m_requests)
ZR_TEST_GETTER(std::vector<std::string>, events, m_events)
ZR_TEST_GETTER(std::vector<std::string>, datagrams, m_datagrams)
ZR_TEST_GETTER(std::vector<std::string>, playerPackets, m_playerPackets)
ZR_TEST_GETTER(std::vector<ZR_ULONG>, deliveryResults, m_deliveryResults)
ZR_TEST_GETTER(size_t, liveMessages, m_messages.size())

void Platform::record(const std::string &event)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_events.push_back(event);
    m_changed.notify_all();
}

void Platform::clearRecord()
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_logs.clear();
    m_requests.clear();
    m_events.clear();
    m_datagrams.clear();
    m_playerPackets.clear();
    m_deliveryResults.clear();
}

bool Platform::waitFor(const std::function<bool()> &predicate)
{
    std::unique_lock<std::recursive_mutex> guard(m_lock);
    return m_changed.wait_for(guard, std::chrono::seconds(20), predicate);
}

bool Platform::waitForRequests(size_t count)
{
    return waitFor([&] { return m_requests.size() >= count; });
}

ZR_ULONG Platform::enter(const std::string &operation)
{
    std::function<void()> action;
    ZR_ULONG code = 0;
    {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
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

void Platform::writeLog(const std::string &text, int line)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_logs.push_back({text, line, m_messages.size()});
    m_changed.notify_all();
}

tagMDPMsg *Platform::allocateMessage()
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    auto *message = static_cast<tagMDPMsg *>(std::malloc(sizeof(tagMDPMsg)));
    *message = tagMDPMsg{};
    m_messages[message];
    return message;
}

void Platform::freeMessage(void *message)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_messages.erase(message);
    std::free(message);
}

ZR_ULONG Platform::addElement(tagAOIMsg *message, const std::string &name, const std::string &value)
{
    if (const ZR_ULONG code = enter(name))
        return code;
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_messages.at(message).push_back(name + value);
    return 0;
}

ZR_ULONG Platform::send(tagMDPMsg *message)
{
    if (const ZR_ULONG code = enter("send"))
        return code;
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    const tagMDPMsgHeader &header = message->stHeader;
    m_requests.push_back({header.ulMsgID, header.ulMsgKind, header.ulSrcID, header.ulDstID, m_messages.at(message)});
    for (auto scripted = m_scripted.begin(); scripted != m_scripted.end(); ++scripted)
    {
        if (scripted->stHeader.ulMsgID == header.ulMsgID)
        {
            m_queue.push_back(*scripted);
            m_scripted.erase(scripted);
            break;
        }
    }
    m_changed.notify_all();
    return 0;
}

ZR_ULONG Platform::registerProcessor(ZR_ULONG id, CIAOIMsgProc *processor)
{
    record("register(" + std::to_string(id) + ")");
    if (const ZR_ULONG code = enter("register"))
        return code;
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_processors[id] = processor;
    return 0;
}

ZR_ULONG Platform::unregisterProcessor(ZR_ULONG id)
{
    record("unregister(" + std::to_string(id) + ")");
    enter("unregister");
    std::unique_lock<std::recursive_mutex> guard(m_lock);
    m_processors.erase(id);
    if (std::this_thread::get_id() != m_delivery.get_id())
        m_changed.wait(guard, [&] { return m_runningId != id; });
    return 0;
}

void Platform::startTimer(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user, ZR_ULONG &handle)
{
    record("startTimer(" + std::to_string(periodMs) + ")");
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    handle = ++m_lastTimer;
    m_timers[handle] = {periodMs, callback, user};
}

ZR_ULONG Platform::stopTimer(ZR_ULONG handle)
{
    const ZR_ULONG code = enter("stopTimer");
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    return m_timers.erase(handle) == 1 ? code : 1;
}

void Platform::tick(ZR_ULONG periodMs)
{
    std::vector<Timer> due;
    {
        const std::lock_guard<std::recursive_mutex> guard(m_lock);
        for (const auto &[handle, timer] : m_timers)
        {
            if (timer.periodMs == periodMs)
                due.push_back(timer);
        }
    }
    for (const Timer &timer : due)
        timer.callback(timer.user);
}

int Platform::sendDatagram(const std::string &target, const std::string &bytes)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    const int chunk = sendChunk;
    const std::string sent = chunk == 0 ? bytes : bytes.substr(0, static_cast<size_t>(std::max(chunk, 0)));
    m_events.push_back("sendto " + target);
    m_datagrams.push_back(sent);
    return static_cast<int>(sent.size());
}

void Platform::playerPacket(const std::string &packet)
{
    const std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_playerPackets.push_back(packet);
}

} // namespace zr::test
