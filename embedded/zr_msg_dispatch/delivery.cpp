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
    : m_stallTimer(loop, [this] { checkStalled(); })
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
    std::deque<aoi::MessagePtr> dropped;
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
void Delivery::endRegistration(RegistrationPtr registration, std::deque<aoi::MessagePtr> &dropped)
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
    std::deque<aoi::MessagePtr> dropped;
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
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (registration->retired || m_stopped)
            return;
        overflow = registration->messages.size() >= mostMessages;
        if (!overflow)
            registration->messages.push_back(std::move(message));
        if (!overflow && !registration->scheduled)
        {
            registration->scheduled = true;
            m_ready.push_back(registration);
            if (m_ready.size() > m_idleThreads && m_threads.size() < usualThreads)
                grow();
            m_wake.notify_one();
        }
        if (m_ready.size() > m_idleThreads && !m_stallTimer.armed())
        {
            m_takenAtCheck = m_taken;
            m_stallTimer.start(stallTime);
        }
    }
    if (overflow)
        ZR_PLATFORM_LOG(ERROR, codeDropped, Dispatch, "a message for %u is dropped: %zu wait already", registration->id,
                        mostMessages);
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
        callNext(lock);
    }
}

/// Takes the first ready registration, makes one call for it, and puts it back behind the others when more waits for
/// it. The mutex is held before and after, not during the call.
void Delivery::callNext(std::unique_lock<std::mutex> &lock)
{
    const RegistrationPtr registration = std::move(m_ready.front());
    m_ready.pop_front();
    ++m_taken;
    if (!registration->messages.empty())
    {
        aoi::MessagePtr message = std::move(registration->messages.front());
        registration->messages.pop_front();
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
    {
        registration->scheduled = false;
        return;
    }
    m_ready.push_back(registration);
    m_wake.notify_one();
}

void Delivery::stop()
{
    std::vector<std::thread> threads;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        threads.swap(m_threads);
    }
    m_wake.notify_all();
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace zr::dispatch
