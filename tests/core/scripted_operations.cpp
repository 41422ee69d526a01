// The in-house libraries' operations, each recorded by the scripted platform and failing on its cue.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "scripted_platform.h"
#include "tw_system.h"
#include "windows_kernel.h"
#include "zr_cc_rt.h"
#include "zr_player.h"

using namespace zr::test;

// the embedded platform's own, behind the scripted ones
decltype(TW_DigestCalcHA1) realHA1;
decltype(TW_DigestCalcResponse) realResponse;
decltype(TW_VODstr2Base64) realBase64;
ZR_ULONG scriptedInit(CMediaAbility *) asm("__wrap__ZN13CMediaAbility4initEv");
void scriptedRelease(CMediaAbility *) asm("__wrap__ZN13CMediaAbility7releaseEv");

namespace {

ZR_ULONG add(tagAOIMsg *message, const std::string &name, const std::string &value)
{
    const ZR_ULONG code = platform.enter(name);
    if (code == 0)
        static_cast<Message *>(message)->elements.push_back(name + "=" + value);
    return code;
}

ZR_ULONG get(const tagAOIMsg *message, ZR_ULONG id, const char *operation, std::string &text)
{
    const void *bytes = nullptr;
    ZR_ULONG length = 0, code = platform.enter(operation);
    if (code == 0)
        code = MDP_GetMsgIE(message, id, &bytes, &length);
    if (code == 0)
        text.assign(static_cast<const char *>(bytes) + (id == AOI_IE_DATA ? 84 : 0));
    return code;
}

template <typename Number>
ZR_ULONG get(const tagAOIMsg *message, ZR_ULONG id, const char *operation, Number &number)
{
    std::string text;
    const ZR_ULONG code = get(message, id, operation, text);
    if (code == 0)
        number = static_cast<Number>(std::stoul(text));
    return code;
}

ZR_ULONG getTransport(const tagAOIMsg *message, ZR_ULONG id, std::string &ip, ZR_USHORT &port)
{
    const Uncounted uncounted; // a stream would swallow the failure
    std::string text;
    const ZR_ULONG code = get(message, id, "getTransport", text);
    if (code == 0)
        std::getline(std::istringstream(text), ip, ':') >> port;
    return code;
}

} // namespace

// --- message platform and dispatch library

ZR_ULONG MDP_CreatReqMsgHeader(const tagMDPMsgHeader *header, tagMDPMsg *message)
{
    message->stHeader = *header;
    message->stHeader.ulMsgKind = REQUEST;
    return platform.enter("header");
}

ZR_ULONG MDP_GetMsgIE(const tagAOIMsg *message, ZR_ULONG id, const void **value, ZR_ULONG *length)
{
    const auto &elements = static_cast<const Answer *>(message)->elements;
    const auto found = elements.find(id);
    if (found == elements.end())
        return id;
    *value = found->second.data();
    *length = static_cast<ZR_ULONG>(found->second.size());
    return 0;
}

ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG maxBytes, ZR_ULONG timeoutMs, const char *userAgent, const char *caFile)
{
    platform.record("MSGDISP_Init", maxBytes, timeoutMs, userAgent ? userAgent : "-", caFile ? caFile : "-");
    return platform.enter("MSGDISP_Init");
}

void ZR_MSGDISP_Destroy()
{
    platform.record("MSGDISP_Destroy");
}

CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter()
{
    return &platform;
}

tagMDPMsg *CAOIIETool::mallocAOIMsg(ZR_ULONG size)
{
    if (platform.enter("malloc") != 0 || size != 2048)
        return nullptr;
    auto *message = new Message{};
    ++platform.liveMessages;
    return message;
}

void CAOIIETool::genAOIMsgHeader(ZR_ULONG id, ZR_ULONG source, ZR_ULONG destination, tagMDPMsgHeader &header)
{
    header = {id, header.ulMsgKind, source, destination};
}

#define ZR_TEST_ADD(Name, Parameters, ...)                                                                             \
    ZR_ULONG CAOIIETool::addAOIIE##Name Parameters                                                                     \
    {                                                                                                                  \
        return add(message, #Name, listed(__VA_ARGS__));                                                               \
    }
ZR_TEST_ADD(URL, (const std::string &value, tagAOIMsg *message), value)
ZR_TEST_ADD(SessionID, (const std::string &value, tagAOIMsg *message), value)
ZR_TEST_ADD(Auth, (const std::string &value, tagAOIMsg *message), value)
ZR_TEST_ADD(SrcUaID, (const std::string &value, tagAOIMsg *message, ZR_ULONG onvif), value, onvif)
ZR_TEST_ADD(DstUaID, (const std::string &value, tagAOIMsg *message, ZR_ULONG onvif), value, onvif)
ZR_TEST_ADD(UserAgent, (tagAOIMsg * message), "")
ZR_TEST_ADD(Accept, (tagAOIMsg * message), "")
ZR_TEST_ADD(Scale, (float scale, tagAOIMsg *message), scale)
ZR_TEST_ADD(Rangetime, (const std::string &begin, const std::string &end, tagAOIMsg *message), begin, end)
ZR_TEST_ADD(Transport,
            (const std::string &ip, ZR_USHORT port, tagProtocol protocol, tagAOIMsg *message, ZR_ULONG reserved), ip,
            port, protocol, reserved)
ZR_TEST_ADD(Transport,
            (const std::string &ip, ZR_USHORT port, tagProtocol protocol, tagBroadcastmethod method, tagAOIMsg *message,
             ZR_ULONG reserved),
            ip, port, protocol, static_cast<int32_t>(method), reserved)

#define ZR_TEST_GET(Name, Value, id)                                                                                   \
    ZR_ULONG CAOIIETool::getAOIIE##Name(const tagAOIMsg *message, Value &value)                                        \
    {                                                                                                                  \
        return get(message, id, "get" #Name, value);                                                                   \
    }
ZR_TEST_GET(SessionID, std::string, AOI_IE_SESSION_ID)
ZR_TEST_GET(Range, std::string, AOI_IE_RANGE)
ZR_TEST_GET(ContentBase, std::string, AOI_IE_CONTENT_BASE)
ZR_TEST_GET(URL, std::string, AOI_IE_URL)
ZR_TEST_GET(Server, std::string, AOI_IE_SERVER)
ZR_TEST_GET(SDP, std::string, AOI_IE_DATA)
ZR_TEST_GET(Errcode, ZR_ULONG, AOI_IE_ERRCODE)
ZR_TEST_GET(QuitReason, tagAOIIEQuitReason, AOI_IE_QUIT_REASON)
ZR_TEST_GET(SAction, tagAOIIERtspActionType, AOI_IE_SESSION_ACTION)

ZR_ULONG CAOIIETool::getAOIIETransport(const tagAOIMsg *message, std::string &ip, ZR_USHORT &port)
{
    return getTransport(message, AOI_IE_TRANSPORT, ip, port);
}

ZR_ULONG CAOIIETool::getAOIIETransport(const tagAOIMsg *message, tagBroadcastmethod method, std::string &ip,
                                       ZR_USHORT &port)
{
    return method == BROADCASTMETHOD_MULTICAST ? getTransport(message, AOI_IE_METHOD_TRANSPORT, ip, port) : 1;
}

// --- common library

void CZRWriteLog::writeLog(tagZrLogLevel level, ZR_ULONG code, ZR_ULONG module, const char *file, int,
                           const char *format, ...)
{
    const Uncounted uncounted;
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started in the line above
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::ostringstream whole;
    whole << level << ':' << code << ':' << text;
    if (module != 0x6000003)
        whole << " {" << std::hex << module << '}';
    if (std::strcmp(file, "rtsp_mediactrl") != 0)
        whole << " {" << file << '}';
    platform.writeLog(whole.str());
    platform.enter("log");
}

ZR_ULONG scriptedInit(CMediaAbility *)
{
    platform.record("init");
    return platform.enter("init");
}

void scriptedRelease(CMediaAbility *)
{
    platform.record("release");
    platform.enter("release");
}

void CJugeMediaKeepLive::RefreshMediaKeepLive(ZR_ULONG port)
{
    platform.record("refresh", port);
}

ZR_ULONG CJugeMediaKeepLive::CheckIfRecvPkt(ZR_ULONG)
{
    return platform.enter("received");
}

// --- route registry, player

ZR_ULONG CRouteMgr::addUAAddr(const std::string &source, const std::string &destination, const std::string &ip,
                              ZR_USHORT port)
{
    platform.record("addUAAddr", source, destination, ip, port);
    ++platform.openRoutes;
    return platform.enter("addUAAddr");
}

ZR_ULONG CRouteMgr::deleteUAAddr(const std::string &source, const std::string &destination)
{
    platform.record("deleteUAAddr", source, destination);
    --platform.openRoutes;
    return platform.enter("deleteUAAddr");
}

int PlayerInputOnvifRtpInfo(ZR_ULONG port, const unsigned char *packet, ZR_ULONG length)
{
    platform.record("player", port);
    platform.recordPacket(std::string(reinterpret_cast<const char *>(packet), length));
    return static_cast<int>(platform.enter("player"));
}

// --- base utility library

ZR_ULONG TW_StartIndependTimer(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user, ZR_ULONG *handle)
{
    platform.record("startTimer", periodMs);
    if (const ZR_ULONG code = platform.enter("startTimer"))
        return code;
    platform.setTimer(periodMs, [=] { callback(user); });
    *handle = periodMs;
    return 0;
}

ZR_ULONG TW_StopIndependTimer(ZR_ULONG handle)
{
    return platform.dropTimer(handle) ? platform.enter("stopTimer") : 1;
}

ZR_ULONG TW_DigestCalcHA1(const char *algorithm, const char *user, const char *realm, const char *password,
                          const char *nonce, const char *clientNonce, char *ha1)
{
    const ZR_ULONG code = platform.enter("HA1");
    return code != 0 ? code : realHA1(algorithm, user, realm, password, nonce, clientNonce, ha1);
}

ZR_ULONG TW_DigestCalcResponse(const char *ha1, const char *nonce, const char *count, const char *clientNonce,
                               const char *qop, const char *method, const char *uri, const char *entity, char *response)
{
    const ZR_ULONG code = platform.enter("response");
    return code != 0 ? code : realResponse(ha1, nonce, count, clientNonce, qop, method, uri, entity, response);
}

ZR_ULONG TW_VODstr2Base64(const char *in, ZR_ULONG length, char *out)
{
    const ZR_ULONG code = platform.enter("base64");
    if (code != 0)
        return code;
    constexpr ZR_ULONG fills128 = 93, tooLong = 888;
    return length > fills128 ? tooLong : realBase64(in, length, out);
}

// --- system wrapper library

void VELK_free(void **memory)
{
    delete static_cast<Message *>(static_cast<tagMDPMsg *>(std::exchange(*memory, nullptr)));
    --platform.liveMessages;
}

int VELK_socket(int family, int type, int)
{
    const bool expected = family == AF_INET && type == SOCK_DGRAM;
    errno = 98;
    return platform.enter("socket") != 0 || !expected ? -1 : 100 + platform.openSockets++;
}

int VELK_sendto(int, const void *data, int length, int, const sockaddr *to, int toLength)
{
    const Uncounted uncounted;
    const int taken = static_cast<int>(platform.enter("sendto"));
    errno = 99;
    if (taken == INJECTED || toLength != sizeof(sockaddr_in))
        return -1;
    const auto *address = reinterpret_cast<const sockaddr_in *>(to);
    char ip[INET_ADDRSTRLEN];
    platform.record("sendto", inet_ntop(AF_INET, &address->sin_addr, ip, sizeof ip), ntohs(address->sin_port));
    const int sent = taken == 0 ? length : std::clamp(taken, 0, length);
    platform.recordPacket(std::string(static_cast<const char *>(data), static_cast<size_t>(sent)));
    return sent;
}

int VELK_closesocket(int)
{
    --platform.openSockets;
    return 0;
}

// --- clocks

int QueryPerformanceFrequency(LARGE_INTEGER *frequency)
{
    frequency->QuadPart = 10'000'000;
    return platform.enter("frequency") == 0 ? 1 : 0;
}

int QueryPerformanceCounter(LARGE_INTEGER *counter)
{
    if (platform.enter("counter") != 0)
        return 0;
    counter->QuadPart = std::chrono::steady_clock::now().time_since_epoch().count() / 100 -
                        int64_t{platform.enter("counterBehindMs")} * 10'000;
    return 1;
}

void GetSystemTimeAsFileTime(FILETIME *time)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const int64_t ticks = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() / 100 + 116444736000000000 -
                          int64_t{platform.enter("timeBehindMs")} * 10'000;
    time->dwLowDateTime = static_cast<uint32_t>(ticks);
    time->dwHighDateTime = static_cast<uint32_t>(ticks >> 32);
}
