#include "elements.h"
#include "loop_back.h"

/// The first SETUP begins the session, others (further tracks, a TV wall) belong to it.
ZR_ULONG own::LoopBack::setUp(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const ZR_ULONG who = request.stHeader.ulSrcID;
    const bool begins = textOf(request, AOI_IE_SESSION_ID).empty();
    if (!begins && sessionOf(request) == nullptr)
        return noSession;
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

ZR_ULONG own::LoopBack::tearDown(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const Session *session = sessionOf(request);
    if (session == nullptr)
        return noSession;
    addText(answer, AOI_IE_SESSION_ID, 0, session->id);
    m_sessions.erase(request.stHeader.ulSrcID);
    return 0;
}

own::LoopBack::Session *own::LoopBack::sessionOf(const tagAOIMsg &request)
{
    const auto found = m_sessions.find(request.stHeader.ulSrcID);
    return found != m_sessions.end() && found->second.id == textOf(request, AOI_IE_SESSION_ID) ? &found->second
                                                                                               : nullptr;
}
