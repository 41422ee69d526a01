#include "wire_trace.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "masking.h"
#include "platform_log.h"
#include "quiet_thread.h"
#include "result_codes.h"

namespace zr::dispatch {

namespace {

/// What waits for a callback that takes its time, in bytes.
constexpr size_t mostWaiting = size_t{8} * 1024 * 1024;
/// Of one message.
constexpr size_t mostTold = 65536;

struct Told
{
    ZrTraceEvent event = {};
    std::string text;
};

/// Takes what is told and calls back on a thread of its own. Any thread.
class Trace
{
public:
    void add(Told told)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const size_t size = sizeof(told) + told.text.size();
        if (!m_running || m_waitingBytes + size > mostWaiting)
        {
            ++m_missed;
            return;
        }
        told.event.ullMissed = std::exchange(m_missed, 0);
        m_waiting.push_back(std::move(told));
        m_waitingBytes += size;
        m_changed.notify_one();
    }

    /// @return false on the trace's own thread
    bool set(ZR_TRACE_CALLBACK callback, void *user)
    {
        if (m_tracing.load() == std::this_thread::get_id())
            return false;
        const std::lock_guard<std::mutex> one(m_setting);
        stop();
        if (!callback)
            return true;
        m_running = true;
        m_missed = 0;
        m_thread = quietThread([this, callback, user] { run(callback, user); });
        traceIsOn = true;
        return true;
    }

private:
    void stop()
    {
        traceIsOn = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_running = false;
            m_changed.notify_one();
        }
        if (m_thread.joinable())
            m_thread.join();
    }

    void run(ZR_TRACE_CALLBACK callback, void *user)
    {
        m_tracing = std::this_thread::get_id();
        std::unique_lock<std::mutex> lock(m_mutex);
        while (true)
        {
            m_changed.wait(lock, [this] { return !m_waiting.empty() || !m_running; });
            if (m_waiting.empty())
                break;
            Told told = std::move(m_waiting.front());
            m_waiting.pop_front();
            m_waitingBytes -= sizeof(told) + told.text.size();
            lock.unlock();
            call(told, callback, user);
            lock.lock();
        }
        m_tracing = std::thread::id();
    }

    /// What cannot be masked is not told.
    static void call(Told &told, ZR_TRACE_CALLBACK callback, void *user)
    {
        try
        {
            common::maskCredentials(told.text);
            told.event.pszText = told.text.c_str();
            told.event.ulLength = static_cast<ZR_ULONG>(told.text.size());
            callback(&told.event, user);
        }
        catch (const std::exception &failure)
        {
            ZR_PLATFORM_LOG(WARNING, 0, Dispatch, "an event is not traced: %s", failure.what());
        }
    }

    std::mutex m_setting; ///< held while the thread is ended and started; the thread never takes it
    std::thread m_thread;
    std::atomic<std::thread::id> m_tracing{}; ///< the thread that calls back

    std::mutex m_mutex; ///< guards what follows; held for a moment, not while calling
    std::condition_variable m_changed;
    std::deque<Told> m_waiting;
    size_t m_waitingBytes = 0;
    uint64_t m_missed = 0;
    bool m_running = false;
};

Trace &trace()
{
    static Trace &instance = *new Trace; // never freed: connections may be told of until the process ends
    return instance;
}

uint64_t nowUs()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

/// How much of a message is told: what is cut within a word could not be recognised as secret.
size_t wholeWords(std::string_view text)
{
    if (text.size() <= mostTold)
        return text.size();
    const size_t blank = text.find_last_of(" \r\n", mostTold - 1);
    return blank == std::string_view::npos ? 0 : blank;
}

} // namespace

WireTap::Counts &WireTap::counts()
{
    if (!m_counts)
        m_counts = std::make_unique<Counts>();
    return *m_counts;
}

std::string *WireTap::keptRaw() noexcept
{
    try
    {
        return &counts().raw;
    }
    catch (const std::exception &)
    {
        return nullptr;
    }
}

void WireTap::note(tagZrTraceKind kind, std::string_view text) noexcept
{
    try
    {
        Counts &since = counts();
        Told told;
        told.event.ulAOIPortID = m_session;
        told.event.ulKind = kind;
        told.event.ullUnixUs = nowUs();
        told.event.ullFramesReceived = std::exchange(since.framesReceived, 0);
        told.event.ullFramesSent = std::exchange(since.framesSent, 0);
        told.event.ullFrameBytes = std::exchange(since.frameBytes, 0);
        told.text = text.substr(0, wholeWords(text));
        told.event.ullCut = text.size() - told.text.size();
        trace().add(std::move(told));
    }
    catch (const std::exception &)
    {
        // there is no memory for it, and the session goes on
    }
}

void WireTap::noteRaw(tagZrTraceKind kind) noexcept
{
    if (!m_counts)
        return;
    note(kind, m_counts->raw);
    std::string().swap(m_counts->raw);
}

void WireTap::countFrame(bool sent, size_t size) noexcept
{
    if (!m_counts)
        return;
    ++(sent ? m_counts->framesSent : m_counts->framesReceived);
    m_counts->frameBytes += size;
}

} // namespace zr::dispatch

ZR_ULONG ZR_TraceSet(ZR_TRACE_CALLBACK pfnCallback, void *pvUser)
{
    try
    {
        return zr::dispatch::trace().set(pfnCallback, pvUser) ? 0 : 1;
    }
    catch (const std::exception &failure)
    {
        ZR_PLATFORM_LOG(ERROR, zr::dispatch::codeNoResources, Dispatch, "no trace: %s", failure.what());
        return 1;
    }
}
