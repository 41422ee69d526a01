// The base utility library: periodic timers, digest and Base64.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include <strings.h>

#include "callback_thread.h"
#include "md5.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG failed = 1;
constexpr ZR_ULONG invalid = 2;

/// A timer and its thread, which keeps it alive as long as it runs.
struct Timer
{
    std::mutex mutex; ///< guards the mark; no callback runs under it
    std::condition_variable changed;
    bool stopped = false;
    std::thread thread;

    void run(std::chrono::milliseconds period, TW_TIMER_CALLBACK callback, void *user)
    {
        own::onCallbackThread = true;
        auto next = std::chrono::steady_clock::now() + period;
        std::unique_lock<std::mutex> lock(mutex);
        while (!changed.wait_until(lock, next, [this] { return stopped; }))
        {
            lock.unlock();
            callback(user); // the plug-in's, which lets no exception out
            lock.lock();
            next += period;
        }
    }
};

struct Timers
{
    std::mutex mutex; ///< guards all below
    std::map<ZR_ULONG, std::shared_ptr<Timer>> byHandle;
    ZR_ULONG last = 0;
};

Timers &timers()
{
    static Timers &instance = *new Timers; // never freed: a host may end its process with timers running
    return instance;
}

ZR_ULONG write(const std::string &hash, char *out)
{
    std::memcpy(out, hash.c_str(), hash.size() + 1);
    return 0;
}

} // namespace

// Called twice by init, on its host's thread: every 800 ms and every 30 s. The clock must be monotonic, or setting the
// time of day stops the keep-alives. The callbacks may take their time (they walk all sessions); one timer's must never
// overlap. It must not be called on the host's thread. A failure leaves the handle as it was: the sessions then have no
// keep-alive; init succeeds all the same.
ZR_ULONG TW_StartIndependTimer(ZR_ULONG ulPeriodMs, TW_TIMER_CALLBACK pfnCallback, void *pvUser, ZR_ULONG *pulHandle)
{
    if (ulPeriodMs == 0 || pfnCallback == nullptr || pulHandle == nullptr)
        return invalid;
    Timers &all = timers();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto timer = std::make_shared<Timer>();
    try
    {
        timer->thread = std::thread([=] { timer->run(std::chrono::milliseconds(ulPeriodMs), pfnCallback, pvUser); });
    }
    catch (const std::system_error &)
    {
        return failed;
    }
    all.byHandle[++all.last] = timer;
    *pulHandle = all.last;
    return 0;
}

// Called by destroy, on its host's thread, for each timer. When it returns, the callback does not run and never will:
// the host may unload the plug-in. On the timer's own thread do not wait, for you would wait for yourself. A failure is
// logged.
ZR_ULONG TW_StopIndependTimer(ZR_ULONG ulHandle)
{
    std::unique_lock<std::mutex> lock(timers().mutex);
    const auto found = timers().byHandle.extract(ulHandle);
    lock.unlock();
    if (found.empty())
        return failed;
    Timer &timer = *found.mapped();
    {
        const std::lock_guard<std::mutex> guard(timer.mutex);
        timer.stopped = true;
        timer.changed.notify_all();
    }
    if (timer.thread.get_id() == std::this_thread::get_id())
        timer.thread.detach();
    else
        timer.thread.join();
    return 0;
}

// The digests: called inside AOIMsgPro on the delivery thread, when a challenge came. Write 33 bytes or, on failure,
// nothing; a failure makes the plug-in leave the challenge unanswered. Keep no credential.
ZR_ULONG TW_DigestCalcHA1(const char *pszAlg, const char *pszUserName, const char *pszRealm, const char *pszPassword,
                          const char *pszNonce, const char *pszCNonce, char *pszHA1)
{
    const bool session = strcasecmp(pszAlg, "md5-sess") == 0;
    if ((!session && strcasecmp(pszAlg, "MD5") != 0) || (session && (pszNonce == nullptr || pszCNonce == nullptr)))
        return invalid;
    const std::string user = own::md5(std::string(pszUserName) + ":" + pszRealm + ":" + pszPassword);
    return write(session ? own::md5(user + ":" + pszNonce + ":" + pszCNonce) : user, pszHA1);
}

// Called once for each method that will carry an Authorization; the plug-in itself passes no qop.
ZR_ULONG TW_DigestCalcResponse(const char *pszHA1, const char *pszNonce, const char *pszNonceCount,
                               const char *pszCNonce, const char *pszQop, const char *pszMethod,
                               const char *pszDigestUri, const char *pszHEntity, char *pszResponse)
{
    const std::string qop = pszQop == nullptr ? "" : pszQop;
    if (!qop.empty() && (pszNonceCount == nullptr || pszCNonce == nullptr))
        return invalid;
    std::string request = std::string(pszMethod) + ":" + pszDigestUri;
    if (strcasecmp(qop.c_str(), "auth-int") == 0)
        request += std::string(":") + pszHEntity;
    const std::string quality = qop.empty() ? "" : std::string(pszNonceCount) + ":" + pszCNonce + ":" + qop + ":";
    return write(own::md5(std::string(pszHA1) + ":" + pszNonce + ":" + quality + own::md5(request)), pszResponse);
}

// Called like the digests, for a challenge without a realm. The result has 128 bytes, zero included: cut what is too
// long, 93 bytes of input fit.
ZR_ULONG TW_VODstr2Base64(const char *pszIn, ZR_ULONG ulInLength, char *pszOut)
{
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const ZR_ULONG length = std::min<ZR_ULONG>(ulInLength, 93);
    for (ZR_ULONG at = 0; at < length; at += 3)
    {
        uint32_t bits = 0;
        for (ZR_ULONG i = at; i < at + 3; ++i)
            bits = bits << 8 | (i < length ? static_cast<unsigned char>(pszIn[i]) : 0U);
        for (ZR_ULONG i = 0; i < 4; ++i)
            *pszOut++ = at + i > length ? '=' : digits[bits >> (18 - 6 * i) & 63];
    }
    *pszOut = '\0';
    return 0;
}
