// The in-house libraries' operations, each recorded by the scripted platform and failing on its cue.
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <strings.h>
#include <utility>

#include <openssl/evp.h>

#include "scripted_platform.h"
#include "tw_system.h"
#include "windows_kernel.h"
#include "zr_cc_rt.h"
#include "zr_player.h"

using zr::test::Answer;
using zr::test::Platform;

namespace
{

Platform &platform()
{
    return Platform::instance();
}

std::string md5(const std::string &text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i)
    {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", digest[i]);
        hex += digits;
    }
    return hex;
}

const std::vector<char> *element(const tagAOIMsg *message, ZR_ULONG id)
{
    const auto &elements = static_cast<const Answer *>(message)->elements;
    const auto found = elements.find(id);
    return found == elements.end() ? nullptr : &found->second;
}

ZR_ULONG getText(const tagAOIMsg *message, ZR_ULONG id, const char *operation, std::string &text)
{
    if (const ZR_ULONG code = platform().enter(operation))
        return code;
    const auto *bytes = element(message, id);
    if (bytes == nullptr)
        return id;
    text.assign(bytes->data() + (id == AOI_IE_DATA ? 84 : 0));
    return 0;
}

template <typename Number>
ZR_ULONG getNumber(const tagAOIMsg *message, ZR_ULONG id, const char *operation, Number &number)
{
    std::string text;
    if (const ZR_ULONG code = getText(message, id, operation, text))
        return code;
    number = static_cast<Number>(std::stoul(text));
    return 0;
}

ZR_ULONG getTransport(const tagAOIMsg *message, ZR_ULONG id, std::string &ip, ZR_USHORT &port)
{
    std::string text;
    if (const ZR_ULONG code = getText(message, id, "getTransport", text))
        return code;
    ip = text.substr(0, text.find(':'));
    port = static_cast<ZR_USHORT>(std::stoul(text.substr(text.find(':') + 1)));
    return 0;
}

class ScriptedDispatcher final : public CIAOIMsgDisp
{
public:
    ZR_ULONG sendAOIMsg(tagMDPMsg *message) override { return platform().send(message); }
    ZR_ULONG registerAOIMsgProc(ZR_ULONG id, CIAOIMsgProc *processor) override
    {
        return platform().registerProcessor(id, processor);
    }
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG id) override { return platform().unregisterProcessor(id); }
};

} // namespace

// --- message platform and dispatch library

ZR_ULONG MDP_CreatReqMsgHeader(const tagMDPMsgHeader *header, tagMDPMsg *message)
{
    message->stHeader = *header;
    message->stHeader.ulMsgKind = zr::test::REQUEST;
    return platform().enter("header");
}

ZR_ULONG MDP_GetMsgIE(const tagAOIMsg *message, ZR_ULONG id, const void **value, ZR_ULONG *length)
{
    if (const ZR_ULONG code = platform().enter("getMsgIE"))
        return code;
    const auto *bytes = element(message, id);
    if (bytes == nullptr)
        return id;
    *value = bytes->data();
    *length = static_cast<ZR_ULONG>(bytes->size());
    return 0;
}

ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG maxBytes, ZR_ULONG timeoutMs, const char *userAgent, const char *caFile)
{
    platform().record("MSGDISP_Init(" + std::to_string(maxBytes) + "," + std::to_string(timeoutMs) + "," +
                      (userAgent ? userAgent : "-") + "," + (caFile ? caFile : "-") + ")");
    return platform().enter("MSGDISP_Init");
}

void ZR_MSGDISP_Destroy()
{
    platform().record("MSGDISP_Destroy");
}

CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter()
{
    static ScriptedDispatcher dispatcher;
    return platform().dispatcherMissing ? nullptr : &dispatcher;
}

tagMDPMsg *CAOIIETool::mallocAOIMsg(ZR_ULONG size)
{
    if (platform().enter("malloc") != 0 || size != 2048)
        return nullptr;
    return platform().allocateMessage();
}

void CAOIIETool::genAOIMsgHeader(ZR_ULONG id, ZR_ULONG source, ZR_ULONG destination, tagMDPMsgHeader &header)
{
    header.ulMsgID = id;
    header.ulSrcID = source;
    header.ulDstID = destination;
}

#define ZR_TEST_ADD_TEXT(Name)                                                                                         \
    ZR_ULONG CAOIIETool::addAOIIE##Name(const std::string &value, tagAOIMsg *message)                                  \
    {                                                                                                                  \
        return platform().addElement(message, #Name, "=" + value);                                                     \
    }
ZR_TEST_ADD_TEXT(URL)
ZR_TEST_ADD_TEXT(SessionID)
ZR_TEST_ADD_TEXT(Auth)

#define ZR_TEST_ADD_UA(Name)                                                                                           \
    ZR_ULONG CAOIIETool::addAOIIE##Name(const std::string &ua, tagAOIMsg *message, ZR_ULONG onvif)                     \
    {                                                                                                                  \
        return platform().addElement(message, #Name, "=" + ua + "," + std::to_string(onvif));                          \
    }
ZR_TEST_ADD_UA(SrcUaID)
ZR_TEST_ADD_UA(DstUaID)

#define ZR_TEST_ADD_OWN(Name)                                                                                          \
    ZR_ULONG CAOIIETool::addAOIIE##Name(tagAOIMsg *message)                                                            \
    {                                                                                                                  \
        return platform().addElement(message, #Name, "");                                                              \
    }
ZR_TEST_ADD_OWN(UserAgent)
ZR_TEST_ADD_OWN(Accept)

ZR_ULONG CAOIIETool::addAOIIETransport(const std::string &ip, ZR_USHORT port, tagProtocol protocol, tagAOIMsg *message,
                                       ZR_ULONG reserved)
{
    return platform().addElement(message, "TvTransport",
                                 "=" + ip + ":" + std::to_string(port) + "," + std::to_string(protocol) + "," +
                                     std::to_string(reserved));
}

ZR_ULONG CAOIIETool::addAOIIETransport(const std::string &ip, ZR_USHORT port, tagProtocol protocol,
                                       tagBroadcastmethod method, tagAOIMsg *message, ZR_ULONG reserved)
{
    return platform().addElement(message, "Transport",
                                 "=" + ip + ":" + std::to_string(port) + "," + std::to_string(protocol) + "," +
                                     std::to_string(static_cast<int32_t>(method)) + "," + std::to_string(reserved));
}

ZR_ULONG CAOIIETool::addAOIIEScale(float scale, tagAOIMsg *message)
{
    return platform().addElement(message, "Scale", "=" + std::to_string(scale));
}

ZR_ULONG CAOIIETool::addAOIIERangetime(const std::string &begin, const std::string &end, tagAOIMsg *message)
{
    return platform().addElement(message, "Range", "=" + begin + "~" + end);
}

#define ZR_TEST_GET_TEXT(Name, id)                                                                                     \
    ZR_ULONG CAOIIETool::getAOIIE##Name(const tagAOIMsg *message, std::string &text)                                   \
    {                                                                                                                  \
        return getText(message, id, "get" #Name, text);                                                                \
    }
ZR_TEST_GET_TEXT(SessionID, AOI_IE_SESSION_ID)
ZR_TEST_GET_TEXT(Range, AOI_IE_RANGE)
ZR_TEST_GET_TEXT(ContentBase, AOI_IE_CONTENT_BASE)
ZR_TEST_GET_TEXT(URL, AOI_IE_URL)
ZR_TEST_GET_TEXT(Server, AOI_IE_SERVER)
ZR_TEST_GET_TEXT(SDP, AOI_IE_DATA)

ZR_ULONG CAOIIETool::getAOIIEErrcode(const tagAOIMsg *message, ZR_ULONG &code)
{
    return getNumber(message, AOI_IE_ERRCODE, "getErrcode", code);
}

ZR_ULONG CAOIIETool::getAOIIEQuitReason(const tagAOIMsg *message, tagAOIIEQuitReason &reason)
{
    return getNumber(message, AOI_IE_QUIT_REASON, "getQuitReason", reason);
}

ZR_ULONG CAOIIETool::getAOIIESAction(const tagAOIMsg *message, tagAOIIERtspActionType &action)
{
    return getNumber(message, AOI_IE_SESSION_ACTION, "getSAction", action);
}

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

void CZRWriteLog::writeLog(tagZrLogLevel level, ZR_ULONG code, ZR_ULONG module, const char *file, int line,
                           const char *format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started in the line above
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::string whole = std::to_string(level) + ":" + std::to_string(code) + ":" + text;
    if (module != 0x6000003)
    {
        char number[16];
        std::snprintf(number, sizeof number, " {%x}", module);
        whole += number;
    }
    if (std::strcmp(file, "rtsp_mediactrl") != 0)
        whole += std::string(" {") + file + "}";
    platform().writeLog(whole, line);
    platform().enter("log");
}

struct AbilityFields
{
    std::string ServerIP, LocalIP, LocalUaID, RemoteUaID, SessionID, DecoderTag, DescribeRspSdp, NATSessionStr,
        TcpVodToTvServerIP;
    ZR_USHORT ServerPort = 0, ServerAudioPort = 0, LocalPort = 0, TcpVodToTvServerPort = 0,
              TcpVodToTvServerAudioPort = 0;
    ZR_ULONG PacketType = 0, TransportType = 0;
    tagNatMode NATMode = NAT_MODE_NONE;
    COnvifInfo OnvifInfo;
};

struct CMediaAbility::Values
{
    std::mutex lock;
    AbilityFields fields;
};

CMediaAbility::CMediaAbility()
    : m_poValues(new Values)
{
}
CMediaAbility::CMediaAbility(const CMediaAbility &other)
    : CMediaAbility()
{
    *this = other;
}
CMediaAbility &CMediaAbility::operator=(const CMediaAbility &other)
{
    if (this != &other)
    {
        const std::scoped_lock guard(m_poValues->lock, other.m_poValues->lock);
        m_poValues->fields = other.m_poValues->fields;
    }
    return *this;
}
CMediaAbility::~CMediaAbility() = default;

ZR_ULONG CMediaAbility::init()
{
    platform().record("init");
    return platform().enter("init");
}

void CMediaAbility::release()
{
    platform().record("release");
    platform().enter("release");
}

ZR_ULONG CMediaAbility::isOnvif() const
{
    return getDecoderTag() == "onvif" ? 1 : 0;
}

namespace
{
std::string shown(const std::string &value)
{
    return value;
}
std::string shown(ZR_ULONG value)
{
    return std::to_string(value);
}
std::string shown(const COnvifInfo &)
{
    return {};
}
} // namespace

#define ZR_TEST_ABILITY(Type, Argument, Name)                                                                          \
    Type CMediaAbility::get##Name() const                                                                              \
    {                                                                                                                  \
        const std::lock_guard<std::mutex> guard(m_poValues->lock);                                                     \
        return m_poValues->fields.Name;                                                                                \
    }                                                                                                                  \
    void CMediaAbility::set##Name(Argument value)                                                                      \
    {                                                                                                                  \
        platform().record("set" #Name "(" + shown(value) + ")");                                                       \
        const std::lock_guard<std::mutex> guard(m_poValues->lock);                                                     \
        m_poValues->fields.Name = value;                                                                               \
    }
ZR_TEST_ABILITY(std::string, const std::string &, ServerIP)
ZR_TEST_ABILITY(std::string, const std::string &, LocalIP)
ZR_TEST_ABILITY(std::string, const std::string &, LocalUaID)
ZR_TEST_ABILITY(std::string, const std::string &, RemoteUaID)
ZR_TEST_ABILITY(std::string, const std::string &, SessionID)
ZR_TEST_ABILITY(std::string, const std::string &, DecoderTag)
ZR_TEST_ABILITY(std::string, const std::string &, DescribeRspSdp)
ZR_TEST_ABILITY(std::string, const std::string &, NATSessionStr)
ZR_TEST_ABILITY(std::string, const std::string &, TcpVodToTvServerIP)
ZR_TEST_ABILITY(ZR_USHORT, ZR_USHORT, ServerPort)
ZR_TEST_ABILITY(ZR_USHORT, ZR_USHORT, ServerAudioPort)
ZR_TEST_ABILITY(ZR_USHORT, ZR_USHORT, LocalPort)
ZR_TEST_ABILITY(ZR_USHORT, ZR_USHORT, TcpVodToTvServerPort)
ZR_TEST_ABILITY(ZR_USHORT, ZR_USHORT, TcpVodToTvServerAudioPort)
ZR_TEST_ABILITY(ZR_ULONG, ZR_ULONG, PacketType)
ZR_TEST_ABILITY(ZR_ULONG, ZR_ULONG, TransportType)
ZR_TEST_ABILITY(tagNatMode, tagNatMode, NATMode)
ZR_TEST_ABILITY(COnvifInfo, const COnvifInfo &, OnvifInfo)

void CJugeMediaKeepLive::RefreshMediaKeepLive(ZR_ULONG port)
{
    platform().record("refresh(" + std::to_string(port) + ")");
}

ZR_ULONG CJugeMediaKeepLive::CheckIfRecvPkt(ZR_ULONG)
{
    return platform().enter("received");
}

// --- route registry, player

ZR_ULONG CRouteMgr::addUAAddr(const std::string &source, const std::string &destination, const std::string &ip,
                              ZR_USHORT port)
{
    platform().record("addUAAddr(" + source + "," + destination + "," + ip + "," + std::to_string(port) + ")");
    return 0;
}

ZR_ULONG CRouteMgr::deleteUAAddr(const std::string &source, const std::string &destination)
{
    platform().record("deleteUAAddr(" + source + "," + destination + ")");
    return 0;
}

int PlayerInputOnvifRtpInfo(ZR_ULONG port, const unsigned char *packet, ZR_ULONG length)
{
    platform().record("player(" + std::to_string(port) + ")");
    platform().playerPacket(std::string(reinterpret_cast<const char *>(packet), length));
    return static_cast<int>(platform().enter("player"));
}

// --- base utility library

ZR_ULONG TW_StartIndependTimer(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user, ZR_ULONG *handle)
{
    platform().startTimer(periodMs, callback, user, *handle);
    return 0;
}

ZR_ULONG TW_StopIndependTimer(ZR_ULONG handle)
{
    return platform().stopTimer(handle);
}

ZR_ULONG TW_DigestCalcHA1(const char *algorithm, const char *user, const char *realm, const char *password,
                          const char *, const char *clientNonce, char *ha1)
{
    if (const ZR_ULONG code = platform().enter("HA1"))
        return code;
    if (std::strcmp(algorithm, "MD5") != 0 || clientNonce != nullptr)
        return 1;
    std::memcpy(ha1, md5(std::string(user) + ":" + realm + ":" + password).c_str(), 33);
    return 0;
}

ZR_ULONG TW_DigestCalcResponse(const char *ha1, const char *nonce, const char *count, const char *clientNonce,
                               const char *qop, const char *method, const char *uri, const char *entity, char *response)
{
    if (const ZR_ULONG code = platform().enter("response"))
        return code;
    if (count != nullptr || clientNonce != nullptr || qop != nullptr || *entity != '\0')
        return 1;
    std::memcpy(response, md5(std::string(ha1) + ":" + nonce + ":" + md5(std::string(method) + ":" + uri)).c_str(), 33);
    return 0;
}

ZR_ULONG TW_VODstr2Base64(const char *in, ZR_ULONG length, char *out)
{
    if (const ZR_ULONG code = platform().enter("base64"))
        return code;
    const std::string text(in, std::min<size_t>(length, 93));
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out), reinterpret_cast<const unsigned char *>(text.data()),
                    static_cast<int>(text.size()));
    return 0;
}

// --- system wrapper library

void VELK_free(void **memory)
{
    platform().freeMessage(std::exchange(*memory, nullptr));
}

int VELK_strncmp(const char *left, const char *right, size_t length)
{
    return std::strncmp(left, right, length);
}

int VELK_strncasecmp(const char *left, const char *right, size_t length)
{
    return strncasecmp(left, right, length);
}

char *VELK_strnstr(const char *haystack, const char *needle, size_t length)
{
    const std::string text(haystack, strnlen(haystack, length));
    const size_t found = text.find(needle);
    return found == std::string::npos ? nullptr : const_cast<char *>(haystack) + found;
}

char *VELK_strncat(char *target, const char *source, size_t length)
{
    return std::strncat(target, source, length);
}

size_t VELK_strlen(const char *text)
{
    return std::strlen(text);
}

int VELK_snprintf(char *out, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started in the line above
    const int length = std::vsnprintf(out, size, format, arguments);
    va_end(arguments);
    return length;
}

long VELK_atol(const char *text)
{
    return std::strtol(text, nullptr, 10);
}

void VELK_memzero(void *memory, size_t length)
{
    std::memset(memory, 0, length);
}

int VELK_socket(int family, int type, int)
{
    const bool expected = family == 2 && type == 2;
    return platform().enter("socket") != 0 || !expected ? -1 : 100 + platform().openSockets++;
}

int VELK_sendto(int, const void *data, int length, int, const sockaddr *to, int toLength)
{
    if (platform().enter("sendto") != 0 || toLength != 16)
        return -1;
    const auto *address = reinterpret_cast<const sockaddr_in *>(to);
    char ip[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address->sin_addr, ip, sizeof ip);
    return platform().sendDatagram(std::string(ip) + ":" + std::to_string(ntohs(address->sin_port)),
                                   std::string(static_cast<const char *>(data), static_cast<size_t>(length)));
}

int VELK_closesocket(int)
{
    --platform().openSockets;
    return 0;
}

ZR_ULONG VELK_inet_addr(const char *address)
{
    return inet_addr(address);
}

ZR_USHORT VELK_htons(ZR_USHORT value)
{
    return htons(value);
}

int VELK_getlasterr()
{
    return 99;
}

// --- clocks

int QueryPerformanceFrequency(LARGE_INTEGER *frequency)
{
    ++platform().frequencyReads;
    frequency->QuadPart = 10'000'000;
    return platform().enter("frequency") == 0 ? 1 : 0;
}

int QueryPerformanceCounter(LARGE_INTEGER *counter)
{
    counter->QuadPart = std::chrono::steady_clock::now().time_since_epoch().count() / 100 + platform().clockOffset;
    return platform().enter("counter") == 0 ? 1 : 0;
}

void GetSystemTimeAsFileTime(FILETIME *time)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const int64_t ticks = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() / 100 + 116444736000000000 +
                          platform().todOffset.exchange(0);
    time->dwLowDateTime = static_cast<uint32_t>(ticks);
    time->dwHighDateTime = static_cast<uint32_t>(ticks >> 32);
}
