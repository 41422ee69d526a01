#include "delivery.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "callback_thread.h"
#include "platform_log.h"
#include "quiet_thread.h"
#include "result_codes.h"

namespace zr::dispatch {

namespace {

constexpr ZR_ULONG nobody = 0xFFFFFFFF;
constexpr size_t usualThreads = 4;
constexpr size_t mostThreads = 32;
constexpr size_t mostMessages = 1024; ///< queued for one registration
constexpr std::chrono::milliseconds stallTime{50};
constexpr std::chrono::milliseconds tick{20}; ///< a call by the loop's thread may take that long, and that again
constexpr unsigned quietTicks = 2; ///< after them the watching thread sleeps: waking it costs less than looking on

void callProcessor(CIAOIMsgProc &processor, tagMDPMsg *message)
{
    try
    {
        processor.AOIMsgPro(message); // its result is its own: it has logged it
    }
    catch (const std::exception &error)
    {
        ZR_PLATFORM_LOG(ERROR, codeDropped, Dispatch, "a message processor threw: %s", error.what());
    }
}

} // namespace

Delivery::Delivery(IoLoop &loop)
    : m_loop(loop)
    , m_stallTimer(loop, [this] { checkStalled(); })
{
}

Delivery::~Delivery()
{
    stop();
}

ZR_ULONG Delivery::add(ZR_ULONG id, CIAOIMsgProc *processor)
{
    if (id == 0 || id == nobody || !processor)
    {
        ZR_PLATFORM_LOG(ERROR, codeInvalidArgument, Dispatch, "registration refused: identifier %u%s", id,
                        processor ? "" : ", no processor");
        return codeInvalidArgument;
    }
    bool taken = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped)
            return codeNotStarted;
        taken = !m_registrations.try_emplace(id, std::make_shared<Registration>(id, processor)).second;
    }
    if (!taken)
        return 0;
    ZR_PLATFORM_LOG(ERROR, codeInUse, Dispatch, "registration refused: identifier %u is in use", id);
    return codeInUse;
}

RegistrationPtr Delivery::find(ZR_ULONG id)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_registrations.find(id);
    return found == m_registrations.end() ? nullptr : found->second;
}

bool Delivery::retired(const Registration &registration)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return registration.retired;
}

RegistrationPtr Delivery::retire(ZR_ULONG id)
{
    std::vector<aoi::MessagePtr> dropped;
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_registrations.find(id);
    if (found == m_registrations.end())
        return nullptr;
    RegistrationPtr registration = std::move(found->second);
    m_registrations.erase(found);
    endRegistration(registration, dropped);
    return registration;
}

/// The mutex is held.
void Delivery::endRegistration(RegistrationPtr registration, std::vector<aoi::MessagePtr> &dropped)
{
    registration->retired = true;
    registration->orders->forget(registration->id);
    std::move(registration->messages.begin(), registration->messages.end(), std::back_inserter(dropped));
    registration->messages.clear();
    if (registration->running)
        m_ending.push_back(std::move(registration));
}

std::vector<RegistrationPtr> Delivery::retireAll()
{
    std::vector<RegistrationPtr> all;
    std::vector<aoi::MessagePtr> dropped;
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto &entry : m_registrations)
    {
        endRegistration(entry.second, dropped);
        all.push_back(std::move(entry.second));
    }
    m_registrations.clear();
    return all;
}

void Delivery::waitIdle(ZR_ULONG id)
{
    if (common::onCallbackThread())
        return;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_idle.wait(lock, [this, id] {
        return std::none_of(m_ending.begin(), m_ending.end(),
                            [id](const RegistrationPtr &ending) { return ending->id == id; });
    });
}

void Delivery::deliver(const RegistrationPtr &registration, aoi::MessagePtr message)
{
    bool overflow = false;
    bool answered = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (registration->retired || m_stopped)
            return;
        answered = message->stHeader.ulMsgKind != 0 && m_late < usualThreads;
        overflow = registration->messages.size() >= mostMessages;
        if (!overflow)
            registration->messages.push_back(std::move(message));
        if (!overflow && !std::exchange(registration->scheduled, true))
        {
            if (answered)
                m_answered.push_back(registration);
            else
                makeReady(registration);
        }
        watchForStalls();
    }
    if (overflow)
        ZR_PLATFORM_LOG(ERROR, codeDropped, Dispatch, "a message for %u is dropped: %zu wait already", registration->id,
                        mostMessages);
    else if (answered && !m_loop.onItsThread())
        m_loop.post([] { /* wakes it */ });
}

/// The mutex is held.
void Delivery::makeReady(const RegistrationPtr &registration)
{
    m_ready.push_back(registration);
    if (m_ready.size() > m_idleThreads && m_threads.size() < usualThreads)
        grow();
    m_wake.notify_one();
}

/// The mutex is held, on the loop's turn.
void Delivery::watchForStalls()
{
    if (m_ready.size() <= m_idleThreads || m_stallTimer.armed())
        return;
    m_takenAtCheck = m_taken;
    m_stallTimer.start(stallTime);
}

/// Somebody waited while all threads were busy. When none of them has begun a call since, all are stuck.
void Delivery::checkStalled()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ready.empty() || m_stopped)
        return;
    if (m_taken == m_takenAtCheck && m_threads.size() < mostThreads)
        grow();
    m_takenAtCheck = m_taken;
    m_stallTimer.start(stallTime);
}

/// The mutex is held.
void Delivery::grow()
{
    if (m_stopped)
        return;
    try
    {
        m_threads.push_back(quietThread([this] { work(); }));
    }
    catch (const std::system_error &error)
    {
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "no further delivery thread: %s", error.what());
    }
}

void Delivery::work()
{
    const common::CallbackThreadMark mark;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;)
    {
        ++m_idleThreads;
        m_wake.wait(lock, [this] { return m_stopped || !m_ready.empty(); });
        --m_idleThreads;
        if (m_stopped)
            return;
        ++m_taken;
        callNext(lock, m_ready);
    }
}

/// Takes the first registration, makes one call for it, and lets the threads go on when more waits for it. The mutex is
/// held before and after, not during the call.
void Delivery::callNext(std::unique_lock<std::mutex> &lock, Ready &ready)
{
    const RegistrationPtr registration = std::move(ready.front());
    ready.pop_front();
    if (!registration->messages.empty())
    {
        aoi::MessagePtr message = std::move(registration->messages.front());
        registration->messages.erase(registration->messages.begin());
        registration->running = true;
        lock.unlock();
        callProcessor(*registration->processor, message.get());
        message.reset();
        lock.lock();
        registration->running = false;
        if (registration->retired)
        {
            m_ending.erase(std::find(m_ending.begin(), m_ending.end(), registration));
            m_idle.notify_all();
        }
    }
    if (registration->messages.empty())
        registration->scheduled = false;
    else
        makeReady(registration);
}

void Delivery::handOver()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_answered.empty())
        return;
    const common::CallbackThreadMark mark;
    beginWatch();
    const auto begun = std::chrono::steady_clock::now();
    while (!m_answered.empty() && m_loop.onItsThread())
    {
        if (m_late >= usualThreads ||
            std::chrono::steady_clock::now() - begun >= tick) // the sockets have waited long enough
        {
            for (const RegistrationPtr &registration : std::exchange(m_answered, {}))
                makeReady(registration);
            break;
        }
        ++m_handedOver;
        m_handingOver = true;
        callNext(lock, m_answered);
        if (m_loop.onItsThread())
            m_handingOver = false;
        else
            --m_late;
    }
    if (m_ready.size() > m_idleThreads)
        m_loop.post([this] {
            const std::lock_guard<std::mutex> guard(m_mutex);
            watchForStalls();
        });
}

/// The mutex is held.
void Delivery::beginWatch()
{
    if (std::exchange(m_watching, true))
        return;
    if (m_watcher.joinable())
    {
        m_watch.notify_one();
        return;
    }
    try
    {
        m_watcher = quietThread([this] { watchHandOver(); });
    }
    catch (const std::system_error &error)
    {
        m_watching = false;
        ZR_PLATFORM_LOG(ERROR, codeNoResources, Dispatch, "nobody watches the I/O thread: %s", error.what());
    }
}

/// Gives the loop another thread when a call has been running for a whole tick.
void Delivery::watchHandOver()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    unsigned quiet = 0;
    while (!m_stopped)
    {
        if (quiet == quietTicks)
        {
            m_watching = false;
            m_watch.wait(lock, [this] { return m_watching || m_stopped; });
            quiet = 0;
        }
        const uint64_t before = m_handedOver;
        const bool running = m_handingOver;
        m_watch.wait_for(lock, tick, [this] { return m_stopped; });
        const bool late = running && m_handingOver && m_handedOver == before;
        quiet = m_handedOver == before && !m_handingOver ? quiet + 1 : 0;
        if (!late || !m_loop.replaceThread())
            continue;
        m_handingOver = false;
        ++m_late;
        lock.unlock();
        ZR_PLATFORM_LOG(WARNING, 0, Dispatch, "a message processor does not return: the I/O loop gets another thread");
        lock.lock();
    }
}

void Delivery::stop()
{
    std::vector<std::thread> threads;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        threads.swap(m_threads);
        if (m_watcher.joinable())
            threads.push_back(std::move(m_watcher));
    }
    m_wake.notify_all();
    m_watch.notify_all();
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace zr::dispatch
