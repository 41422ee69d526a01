#include "loop_back.h"

#include <array>
#include <cstdio>
#include <new>

#include "elements.h"
#include "tw_system.h"
#include "tw_util.h"

namespace {

constexpr ZR_ULONG answerSize = 8192; ///< a description, and the URL twice
constexpr ZR_ULONG unauthorized = 401, notFoundStatus = 404, sessionNotFound = 454;

const std::string nonce = "7f3a5c21";
/// What the device keeps of its one user: MD5 of "demo:loop-back:demo".
const char *const userHash = "6d4f9968a72bb2f5ff581c141eeeb158";

const char *const description = "v=0\r\n"
                                "o=- 1 1 IN IP4 127.0.0.1\r\n"
                                "s=loop-back\r\n"
                                "t=0 0\r\n"
                                "a=control:*\r\n"
                                "m=video 0 RTP/AVP 96\r\n"
                                "a=rtpmap:96 H264/90000\r\n"
                                "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z0IAHukCgPRA,aM4G4g==\r\n"
                                "a=control:track1\r\n"
                                "m=audio 0 RTP/AVP 0\r\n"
                                "a=rtpmap:0 PCMU/8000\r\n"
                                "a=control:track2\r\n";

std::string textOf(const tagAOIMsg &message, ZR_ULONG id)
{
    std::string text;
    own::getText(&message, id, 0, text);
    return text;
}

void addText(tagAOIMsg *message, ZR_ULONG id, size_t lead, const std::string &text)
{
    own::addElement(message, id, std::string(lead, '\0') + text + '\0');
}

} // namespace

void own::FreeMessage::operator()(tagMDPMsg *message) const
{
    void *memory = message;
    VELK_free(&memory);
}

own::Message own::makeMessage(ZR_ULONG size)
{
    Message message(CAOIIETool::mallocAOIMsg(size));
    if (message == nullptr)
        throw std::bad_alloc();
    return message;
}

/// What the device does with a request.
struct own::LoopBack::Row
{
    ZR_ULONG messageId;
    ZR_ULONG (LoopBack::*answer)(const tagAOIMsg &request, tagAOIMsg *answer);
};

const own::LoopBack::Row *own::LoopBack::rowOf(ZR_ULONG messageId)
{
    static constexpr std::array<Row, 7> rows = {{
        {AOI_MSG_RTSP_DESCRIBE, &LoopBack::describe},
        {AOI_MSG_RTSP_SETUP, &LoopBack::setUp},
        {AOI_MSG_RTSP_PLAY, &LoopBack::play},
        {AOI_MSG_RTSP_PAUSE, &LoopBack::pause},
        {AOI_MSG_RTSP_TEARDOWN, &LoopBack::tearDown},
        {AOI_MSG_RTSP_OPTIONS, &LoopBack::keepAlive},
        {AOI_MSG_RTSP_SET_PARAMERTER, &LoopBack::keepAlive},
    }};
    for (const Row &row : rows)
    {
        if (row.messageId == messageId)
            return &row;
    }
    return nullptr;
}

bool own::LoopBack::knows(ZR_ULONG messageId)
{
    return rowOf(messageId) != nullptr;
}

own::Message own::LoopBack::answer(const tagAOIMsg &request)
{
    Message message = makeMessage(answerSize);
    const Row &row = *rowOf(request.stHeader.ulMsgID);
    const ZR_ULONG status = (this->*row.answer)(request, message.get());
    message->stHeader = {request.stHeader.ulMsgID, status == 0 ? MDP_MSG_KIND_SUCCESS : MDP_MSG_KIND_FAILURE,
                         request.stHeader.ulDstID, request.stHeader.ulSrcID};
    if (status != 0)
        addValue(message.get(), AOI_IE_ERRCODE, status);
    return message;
}

/// Whether the request bears the device's user's response (RFC 2617, 3.2.2).
bool own::LoopBack::authorized(const tagAOIMsg &request, const std::string &url)
{
    std::array<char, 33> response{};
    TW_DigestCalcResponse(userHash, nonce.c_str(), nullptr, nullptr, nullptr, "DESCRIBE", url.c_str(), nullptr,
                          response.data());
    const std::string expected = std::string("response=\"") + response.data() + '"';
    return textOf(request, AOI_IE_AUTHORIZATION_ID).find(expected) != std::string::npos;
}

/// A stream under "/missing" is not there; one under "/protected" is shown to the device's user.
ZR_ULONG own::LoopBack::describe(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const std::string url = textOf(request, AOI_IE_URL);
    if (url.find("/missing") != std::string::npos)
        return notFoundStatus;
    if (url.find("/protected") != std::string::npos && !authorized(request, url))
    {
        addText(answer, AOI_IE_AUTHORIZATION_ID, challengeLead, "Digest realm=\"loop-back\", nonce=\"" + nonce + "\"");
        return unauthorized;
    }
    addText(answer, AOI_IE_URL, 0, url);
    addText(answer, AOI_IE_CONTENT_BASE, 0, url.empty() || url.back() != '/' ? url + '/' : url);
    addText(answer, AOI_IE_SERVER, 0, "loop-back");
    addText(answer, AOI_IE_DATA, dataLead, description);
    return 0;
}

/// The first SETUP begins the session, others (further tracks, a TV wall) belong to it.
ZR_ULONG own::LoopBack::setUp(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const ZR_ULONG who = request.stHeader.ulSrcID;
    const bool begins = textOf(request, AOI_IE_SESSION_ID).empty();
    if (!begins && sessionOf(request) == nullptr)
        return sessionNotFound;
    Session &session = m_sessions[who];
    if (begins)
    {
        session = {};
        session.id = "loop-back-" + std::to_string(++m_lastSession);
    }
    // both forms, whichever is asked for: the address itself, and that of the session's broadcast method
    Transport transport{6970, PROTOCOL_UDP, BROADCASTMETHOD_NONE, "127.0.0.1"};
    addValue(answer, AOI_IE_TRANSPORT, transport);
    Transport asked;
    if (getValue(&request, AOI_IE_METHOD_TRANSPORT, asked) == ok)
    {
        if (asked.method == BROADCASTMETHOD_MULTICAST)
            transport = {5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE, "239.0.0.1"};
        transport.method = asked.method;
        addValue(answer, AOI_IE_METHOD_TRANSPORT, transport);
    }
    addText(answer, AOI_IE_SESSION_ID, 0, session.id);
    return 0;
}

ZR_ULONG own::LoopBack::play(const tagAOIMsg &request, tagAOIMsg *answer)
{
    Session *session = sessionOf(request);
    if (session == nullptr)
        return sessionNotFound;
    session->position = session->now();
    std::sscanf(textOf(request, AOI_IE_RANGE_TIME).c_str(), "%lf", &session->position);
    session->scale = 1.0F;
    getValue(&request, AOI_IE_SCALE, session->scale);
    session->playing = true;
    session->since = Clock::now();
    return keepAlive(request, answer);
}

ZR_ULONG own::LoopBack::pause(const tagAOIMsg &request, tagAOIMsg *answer)
{
    Session *session = sessionOf(request);
    if (session == nullptr)
        return sessionNotFound;
    session->position = session->now();
    session->playing = false;
    return keepAlive(request, answer);
}

ZR_ULONG own::LoopBack::tearDown(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const Session *session = sessionOf(request);
    if (session == nullptr)
        return sessionNotFound;
    addText(answer, AOI_IE_SESSION_ID, 0, session->id);
    m_sessions.erase(request.stHeader.ulSrcID);
    return 0;
}

/// What all answers within a session tell: whose it is, and where it plays.
ZR_ULONG own::LoopBack::keepAlive(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const Session *session = sessionOf(request);
    if (session == nullptr)
        return sessionNotFound;
    std::array<char, 64> range{};
    VELK_snprintf(range.data(), range.size(), "npt=%.3f-", session->now());
    addText(answer, AOI_IE_SESSION_ID, 0, session->id);
    addText(answer, AOI_IE_RANGE, 0, range.data());
    return 0;
}

own::LoopBack::Session *own::LoopBack::sessionOf(const tagAOIMsg &request)
{
    const auto found = m_sessions.find(request.stHeader.ulSrcID);
    return found != m_sessions.end() && found->second.id == textOf(request, AOI_IE_SESSION_ID) ? &found->second
                                                                                               : nullptr;
}

double own::LoopBack::Session::now() const
{
    if (!playing)
        return position;
    return position + std::chrono::duration<double>(Clock::now() - since).count() * static_cast<double>(scale);
}
