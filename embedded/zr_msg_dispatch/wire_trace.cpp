#include "wire_trace.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "log_line.h"
#include "platform_log.h"
#include "quiet_thread.h"
#include "result_codes.h"
#include "rtsp_text.h"

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
            maskCredentials(told.text);
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

bool isSecretHeader(std::string_view name)
{
    static constexpr std::array<std::string_view, 4> names = {"Authorization", "Proxy-Authorization",
                                                              "Authentication-Info", "Proxy-Authentication-Info"};
    return std::any_of(names.begin(), names.end(), [&](std::string_view one) { return rtsp::sameText(one, name); });
}

/// Also the lines on which such a header goes on (RFC 2326, 4.2).
void maskHeaders(std::string &text)
{
    bool secret = false;
    for (size_t begin = 0; begin < text.size();)
    {
        size_t end = std::min(text.find_first_of("\r\n", begin), text.size());
        const std::string_view line(text.data() + begin, end - begin);
        const size_t colon = line.find(':');
        const bool goesOn = !line.empty() && (line.front() == ' ' || line.front() == '\t');
        secret = line.empty() ? secret && text[end] == '\n' && end > 0 && text[end - 1] == '\r'
                 : goesOn     ? secret
                              : isSecretHeader(rtsp::trimmed(line.substr(0, std::min(colon, line.size()))));
        if (secret && !line.empty())
        {
            size_t value = goesOn || colon == std::string_view::npos ? 0 : colon + 1;
            value = std::min(line.find_first_not_of(" \t", value), line.size());
            for (const std::string_view scheme : {"Basic ", "Digest "})
                value += !goesOn && rtsp::beginsWith(line.substr(value), scheme) ? scheme.size() : 0;
            const size_t at = begin + value;
            text.replace(at, end - at, "***");
            end = at + 3;
        }
        begin = end + 1;
    }
}

/// A text with stretches of another text masked, from its front to its end.
class Masked
{
public:
    explicit Masked(std::string_view text)
        : m_text(text)
    {
    }
    void mask(size_t begin, size_t end)
    {
        m_out.append(m_text.substr(m_done, begin - m_done)).append("***");
        m_done = end;
    }
    bool any() const { return m_done > 0; }
    std::string whole() { return std::move(m_out.append(m_text.substr(m_done))); }

private:
    const std::string_view m_text;
    std::string m_out;
    size_t m_done = 0;
};

constexpr const char *endsOfUrls = " \t\r\n\"<>";

/// A password may hold a slash that should have been escaped: then what looks like the host has more than a port. The
/// message is its server's, and may be nothing but schemes: no stretch of it is looked at for each of them.
void maskUserInformation(std::string &text)
{
    const std::string_view all = text;
    Masked masked(all);
    size_t end = 0; // of the word that holds the URL, and its last @
    size_t last = std::string_view::npos;
    size_t next = 0;
    for (size_t scheme = all.find("://"); scheme != std::string_view::npos; scheme = all.find("://", next))
    {
        const size_t begin = next = scheme + 3;
        if (begin >= end)
        {
            end = std::min(all.find_first_of(endsOfUrls, begin), all.size());
            last = all.substr(begin, end - begin).rfind('@');
            last = last == std::string_view::npos ? last : begin + last;
        }
        const std::string_view authority = all.substr(begin, std::min(all.find_first_of("/?#", begin), end) - begin);
        size_t at = authority.rfind('@');
        at = at == std::string_view::npos ? at : begin + at;
        const size_t colon = authority.find(':');
        if (at == std::string_view::npos && colon != std::string_view::npos && authority.front() != '[' &&
            authority.find_first_not_of("0123456789", colon + 1) != std::string_view::npos && last >= begin)
            at = last;
        if (at != std::string_view::npos)
        {
            masked.mask(begin, at);
            next = at;
        }
    }
    if (masked.any())
        text = masked.whole();
}

/// Behind a mark that is a path's, as some recorders have it (user=admin_password=x_channel=1), another such word ends
/// it, too.
size_t endOfValue(std::string_view text, char mark, size_t begin)
{
    const size_t end = std::min(text.find_first_of(std::string("&;").append(endsOfUrls), begin), text.size());
    if (mark != '/' && mark != '_')
        return end;
    size_t word = end; // its begin, where this may be one
    for (size_t at = begin; at < end; ++at)
    {
        if (text[at] == '=' && word < at)
            return word;
        const bool letter = (text[at] | 0x20) >= 'a' && (text[at] | 0x20) <= 'z';
        word = text[at] == '_' ? at : letter ? word : end;
    }
    return end;
}

void maskQueries(std::string &text)
{
    static constexpr std::array<std::string_view, 5> keys = {"password=", "passwd=", "pwd=", "pass=", "psw="};
    constexpr const char *marks = "?&;/_";
    const std::string_view all = text;
    Masked masked(all);
    for (size_t mark = all.find_first_of(marks); mark != std::string_view::npos;)
    {
        const std::string_view rest = all.substr(mark + 1);
        const auto *const key =
            std::find_if(keys.begin(), keys.end(), [&](std::string_view one) { return rtsp::beginsWith(rest, one); });
        size_t next = mark + 1;
        if (key != keys.end())
        {
            const size_t begin = next + key->size();
            next = endOfValue(all, all[mark], begin);
            masked.mask(begin, next);
        }
        mark = all.find_first_of(marks, next);
    }
    if (masked.any())
        text = masked.whole();
}

} // namespace

void maskCredentials(std::string &message)
{
    maskHeaders(message);
    maskUserInformation(message);
    maskQueries(message);
    common::conceal(message);
}

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
