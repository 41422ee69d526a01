#include "dispatcher.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "callback_thread.h"
#include "masking.h"
#include "platform_log.h"
#include "result_codes.h"
#include "rtsp_text.h"
#include "zr_platform.h"

namespace zr::dispatch {

namespace {

/// What nobody can do for the caller becomes a code: no exception leaves the library.
template <typename Operation>
ZR_ULONG guarded(const char *name, Operation operation, ZR_ULONG failed = codeNoResources)
{
    try
    {
        return operation();
    }
    catch (const std::exception &error)
    {
        ZR_PLATFORM_LOG(ERROR, failed, Dispatch, "%s failed: %s", name, error.what());
        return failed;
    }
}

} // namespace

Dispatcher &Dispatcher::instance()
{
    // never destroyed: hosts keep the interface, and other threads may be inside it when the process ends
    static Dispatcher *const dispatcher = [] {
        prepareTls();
        std::atexit([] { instance().abandon(); }); // NOLINT(cert-err33-c): without it the end is less tidy
        return new Dispatcher;
    }();
    return *dispatcher;
}

std::shared_ptr<Engine> Dispatcher::engine() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_engine;
}

std::shared_ptr<Engine> Dispatcher::lastEngine() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_last.lock();
}

bool Dispatcher::everStarted() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_everStarted;
}

ZR_ULONG Dispatcher::init(Settings settings)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_count == 0)
    {
        settings.moreCaFiles = m_moreCaFiles;
        settings.verify = m_verify;
        auto engine = std::make_shared<Engine>(std::move(settings));
        if (!engine->start())
            return codeNoResources;
        m_engine = std::move(engine);
        m_everStarted = true;
    }
    ++m_count;
    return 0;
}

void Dispatcher::destroy()
{
    if (common::onCallbackThread())
    {
        ZR_PLATFORM_LOG(ERROR, codeInvalidArgument, Dispatch, "ZR_MSGDISP_Destroy is not for a callback: nothing done");
        return;
    }
    std::shared_ptr<Engine> last;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_count == 0 || --m_count > 0)
            return;
        last = std::move(m_engine);
        m_engine.reset();
        m_last = last;
    }
    last->shutDown();
}

void Dispatcher::abandon()
{
    if (const auto running = engine())
        running->abandon();
}

ZR_ULONG Dispatcher::addTrust(const std::string &file)
{
    if (!file.empty() && !makeTlsContext({file, {}, true}))
        return ZR_TLS_UNREADABLE;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_count > 0)
        return ZR_TLS_TOO_LATE;
    if (file.empty())
        m_moreCaFiles.clear();
    else
        m_moreCaFiles.push_back(file);
    return 0;
}

ZR_ULONG Dispatcher::setVerification(bool wanted)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_count > 0)
        return ZR_TLS_TOO_LATE;
    m_verify = wanted;
    return 0;
}

ZR_ULONG Dispatcher::tell(ZR_ULONG id, Registration::Note Registration::*which, char *text, ZR_ULONG size) const
{
    const bool wanted = text != nullptr && size > 0;
    if (wanted)
        *text = '\0';
    const auto running = engine();
    Problem problem = running ? running->note(id, which) : Problem();
    if (wanted)
    {
        common::maskCredentials(problem.text); // what is cut would not be recognised any more
        text[problem.text.copy(text, size - 1)] = '\0';
    }
    return problem.code;
}

std::optional<Facts> Dispatcher::facts(ZR_ULONG id) const
{
    const auto running = engine();
    return running ? running->facts(id) : std::nullopt;
}

ZR_ULONG Dispatcher::description(ZR_ULONG id, char *text, ZR_ULONG size) const
{
    const auto running = engine();
    const auto description = running ? running->description(id) : nullptr;
    if (!description)
        return 0;
    if (text)
        description->copy(text, size);
    return static_cast<ZR_ULONG>(description->size());
}

bool Dispatcher::check(ZR_ULONG id) const
{
    const auto running = engine();
    return running && running->check(id);
}

bool Dispatcher::giveUp(ZR_ULONG id) const
{
    const auto running = engine();
    return running && running->giveUp(id);
}

ZR_ULONG Dispatcher::sendAOIMsg(tagMDPMsg *pstMDPMsg)
{
    return guarded("sendAOIMsg", [this, pstMDPMsg] {
        const auto running = engine();
        return running ? running->sendAOIMsg(pstMDPMsg) : codeNotStarted;
    });
}

ZR_ULONG Dispatcher::registerAOIMsgProc(ZR_ULONG ulID, CIAOIMsgProc *poProc)
{
    return guarded("registerAOIMsgProc", [this, ulID, poProc] {
        const auto running = engine();
        return running ? running->registerAOIMsgProc(ulID, poProc) : codeNotStarted;
    });
}

ZR_ULONG Dispatcher::unregisterAOIMsgProc(ZR_ULONG ulID)
{
    return guarded("unregisterAOIMsgProc", [this, ulID] {
        const auto running = engine();
        if (running)
            return running->unregisterAOIMsgProc(ulID);
        if (const auto last = lastEngine()) // its calls may still be running
            last->unregisterAOIMsgProc(ulID);
        return ZR_ULONG{codeNotStarted};
    });
}

} // namespace zr::dispatch

using zr::dispatch::Dispatcher;

ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG ulMaxMessageBytes, ZR_ULONG ulConnectTimeoutMs, const char *pszUserAgent,
                         const char *pszCaFile)
{
    return zr::dispatch::guarded("ZR_MSGDISP_Init", [&]() -> ZR_ULONG {
        zr::dispatch::Settings settings;
        settings.userAgent = pszUserAgent ? pszUserAgent : zr::aoi::defaultUserAgent;
        if (ulMaxMessageBytes != 0)
            settings.maxBody = ulMaxMessageBytes;
        if (ulConnectTimeoutMs != 0)
            settings.connectTimeout = std::chrono::milliseconds(ulConnectTimeoutMs);
        if (pszCaFile)
            settings.caFile = pszCaFile;
        if (zr::rtsp::hasControls(settings.userAgent))
        {
            ZR_PLATFORM_LOG(ERROR, zr::dispatch::codeInvalidArgument, Dispatch,
                            "ZR_MSGDISP_Init is refused: a User-Agent has no control characters");
            return zr::dispatch::codeInvalidArgument;
        }
        return Dispatcher::instance().init(settings);
    });
}

void ZR_MSGDISP_Destroy()
{
    Dispatcher::instance().destroy();
}

CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter()
{
    Dispatcher &dispatcher = Dispatcher::instance();
    return dispatcher.everStarted() ? &dispatcher : nullptr;
}

ZR_ULONG ZR_TlsAddTrust(const char *pszCaFile)
{
    return zr::dispatch::guarded(
        "ZR_TlsAddTrust", [&] { return Dispatcher::instance().addTrust(pszCaFile ? pszCaFile : ""); }, ZR_TLS_FAILED);
}

ZR_ULONG ZR_TlsSetVerification(ZR_ULONG ulVerify)
{
    return Dispatcher::instance().setVerification(ulVerify != 0);
}

ZR_ULONG ZR_ConnectionProblem(ZR_ULONG ulAOIPortID, char *pszText, ZR_ULONG ulSize)
{
    const auto read = [&] {
        return Dispatcher::instance().tell(ulAOIPortID, &zr::dispatch::Registration::connection, pszText, ulSize);
    };
    return zr::dispatch::guarded("ZR_ConnectionProblem", read, ZR_CONNECTION_FAILED);
}

ZR_ULONG ZR_RequestRefusal(ZR_ULONG ulAOIPortID, char *pszText, ZR_ULONG ulSize)
{
    const auto read = [&] {
        return Dispatcher::instance().tell(ulAOIPortID, &zr::dispatch::Registration::refusal, pszText, ulSize);
    };
    return zr::dispatch::guarded("ZR_RequestRefusal", read, ZR_ULONG{0});
}

namespace {

template <size_t Size>
void copyText(std::string text, char (&out)[Size])
{
    zr::common::maskCredentials(text); // what is cut would not be recognised any more
    out[text.copy(out, Size - 1)] = '\0';
}

} // namespace

ZR_ULONG ZR_SessionFacts(ZR_ULONG ulAOIPortID, ZrSessionFacts *pstOut)
{
    return zr::dispatch::guarded(
        "ZR_SessionFacts",
        [&]() -> ZR_ULONG {
            const auto facts = pstOut ? Dispatcher::instance().facts(ulAOIPortID) : std::nullopt;
            if (!facts)
                return 1;
            *pstOut = {};
            copyText(facts->tls, pstOut->szTls);
            copyText(facts->server, pstOut->szServer);
            copyText(facts->methods, pstOut->szMethods);
            pstOut->ulTimeout = facts->timeoutSeconds;
            pstOut->ulChecksAnswered = facts->checksAnswered;
            pstOut->ulCheckStatus = static_cast<ZR_ULONG>(facts->checkStatus);
            return 0;
        },
        1);
}

ZR_ULONG ZR_SessionDescription(ZR_ULONG ulAOIPortID, char *pszText, ZR_ULONG ulSize)
{
    const auto read = [&] { return Dispatcher::instance().description(ulAOIPortID, pszText, ulSize); };
    return zr::dispatch::guarded("ZR_SessionDescription", read, ZR_ULONG{0});
}

ZR_ULONG ZR_SessionCheck(ZR_ULONG ulAOIPortID)
{
    return zr::dispatch::guarded(
        "ZR_SessionCheck", [&]() -> ZR_ULONG { return Dispatcher::instance().check(ulAOIPortID) ? 0 : 1; }, 1);
}

ZR_ULONG ZR_SessionGiveUp(ZR_ULONG ulAOIPortID)
{
    return zr::dispatch::guarded(
        "ZR_SessionGiveUp", [&]() -> ZR_ULONG { return Dispatcher::instance().giveUp(ulAOIPortID) ? 0 : 1; }, 1);
}
