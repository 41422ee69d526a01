// The common library: the log, a session's media parameters, and the marks of received media.

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "zr_common.h"

namespace {

struct Fields
{
    std::string ServerIP, LocalIP, LocalUaID, RemoteUaID, SessionID, DecoderTag, DescribeRspSdp, NATSessionStr,
        TcpVodToTvServerIP;
    ZR_USHORT ServerPort = 0, ServerAudioPort = 0, LocalPort = 0, TcpVodToTvServerPort = 0,
              TcpVodToTvServerAudioPort = 0;
    ZR_ULONG PacketType = 0, TransportType = 0;
    tagNatMode NATMode = NAT_MODE_NONE;
    COnvifInfo OnvifInfo;
};

} // namespace

// Called from every thread that is inside the plug-in, often under a session's lock or the observer list's: a slow sink
// needs a queue of its own. It must not throw, must not call the plug-in, and cannot fail. Texts may hold what a far
// side sent; pszFile is kept by the caller, the text is not.
void CZRWriteLog::writeLog(tagZrLogLevel enLevel, ZR_ULONG ulCode, ZR_ULONG /*ulModule*/, const char *pszFile,
                           int iLine, const char *pszFormat, ...)
{
    if (enLevel < ZR_LOG_WARNING)
        return;
    char text[2048];
    va_list arguments;
    va_start(arguments, pszFormat);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started in the line above
    std::vsnprintf(text, sizeof text, pszFormat, arguments);
    va_end(arguments);
    std::fprintf(stderr, "%s:%d: %u: %s\n", pszFile, iLine, ulCode, text);
}

// The media parameters of a session: one object inside each session, copies at the host. The host's threads, the
// delivery thread and the timers use one object at a time, some under the session's lock and some not: each operation
// guards itself, takes no lock but its own, and gives texts by value. Getters and setters cannot fail.
struct CMediaAbility::Values
{
    mutable std::mutex mutex; ///< guards the fields
    Fields fields;

    Fields copy() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return fields;
    }
};

CMediaAbility::CMediaAbility()
    : m_poValues(std::make_unique<Values>())
{
}

CMediaAbility::CMediaAbility(const CMediaAbility &oOther)
    : CMediaAbility()
{
    m_poValues->fields = oOther.m_poValues->copy();
}

// One lock at a time, so that two objects may be assigned to each other.
CMediaAbility &CMediaAbility::operator=(const CMediaAbility &oOther)
{
    if (this == &oOther)
        return *this;
    const Fields fields = oOther.m_poValues->copy();
    const std::lock_guard<std::mutex> lock(m_poValues->mutex);
    m_poValues->fields = fields;
    return *this;
}

CMediaAbility::~CMediaAbility() = default;

// Called by every setup() of a session whose parameters are its own: repeated, and while it plays. Keep what is set. A
// failure is setup()'s result, and no request is sent.
ZR_ULONG CMediaAbility::init()
{
    return 0;
}

// Called once, when such a session is deleted; also without an init. Free what init took: copies share nothing.
void CMediaAbility::release() {}

// 1 for the sources that get authentication, control URLs and the hand-off of stream information; asked often.
ZR_ULONG CMediaAbility::isOnvif() const
{
    return getDecoderTag() == "onvif" ? 1 : 0;
}

// NOLINTBEGIN(bugprone-macro-parentheses): types and names stand in no parentheses
#define OWN_FIELD(Type, Name, Argument)                                                                                \
    Type CMediaAbility::get##Name() const                                                                              \
    {                                                                                                                  \
        const std::lock_guard<std::mutex> lock(m_poValues->mutex);                                                     \
        return m_poValues->fields.Name;                                                                                \
    }                                                                                                                  \
    void CMediaAbility::set##Name(Argument value)                                                                      \
    {                                                                                                                  \
        const std::lock_guard<std::mutex> lock(m_poValues->mutex);                                                     \
        m_poValues->fields.Name = value;                                                                               \
    }
// NOLINTEND(bugprone-macro-parentheses)

OWN_FIELD(std::string, ServerIP, const std::string &)
OWN_FIELD(std::string, LocalIP, const std::string &)
OWN_FIELD(std::string, LocalUaID, const std::string &)
OWN_FIELD(std::string, RemoteUaID, const std::string &)
OWN_FIELD(std::string, SessionID, const std::string &)
OWN_FIELD(std::string, DecoderTag, const std::string &)
OWN_FIELD(std::string, DescribeRspSdp, const std::string &)
OWN_FIELD(std::string, NATSessionStr, const std::string &)
OWN_FIELD(std::string, TcpVodToTvServerIP, const std::string &)
OWN_FIELD(ZR_USHORT, ServerPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, ServerAudioPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, LocalPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, TcpVodToTvServerPort, ZR_USHORT)
OWN_FIELD(ZR_USHORT, TcpVodToTvServerAudioPort, ZR_USHORT)
OWN_FIELD(ZR_ULONG, PacketType, ZR_ULONG)
OWN_FIELD(ZR_ULONG, TransportType, ZR_ULONG)
OWN_FIELD(tagNatMode, NATMode, tagNatMode)
OWN_FIELD(COnvifInfo, OnvifInfo, const COnvifInfo &)
#undef OWN_FIELD

// Called when a session is created and when it is deleted: forget what the port received before.
void CJugeMediaKeepLive::RefreshMediaKeepLive(ZR_ULONG /*ulPortID*/) {}

// Called on the timer's thread, under the session's lock, once a keep-alive period: whether packets came since the last
// call, which takes the mark back. Let your receiver set the mark without a lock, it does so for every packet. Here no
// media is received, so the answer is always no; the sessions live by the answers to their OPTIONS.
ZR_ULONG CJugeMediaKeepLive::CheckIfRecvPkt(ZR_ULONG /*ulPortID*/)
{
    return 0;
}
