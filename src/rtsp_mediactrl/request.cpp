#include "request.h"

#include "tw_system.h"

namespace {

constexpr ZR_ULONG AOI_MSG_SIZE = 2048;
constexpr ZR_ULONG NO_PARTICULAR_RECEIVER = 0xFFFFFFFF;

} // namespace

CAOIRequest::CAOIRequest(const char *pszFunction, ZR_ULONG ulMsgID, ZR_ULONG ulSrcID, int iLine)
    : m_pszFunction(pszFunction)
    , m_ulMsgID(ulMsgID)
    , m_ulSrcID(ulSrcID)
    , m_pstMsg(CAOIIETool::mallocAOIMsg(AOI_MSG_SIZE))
{
    if (m_pstMsg == nullptr)
        fail({"[%s] Not enough memory to malloc a aoi message", iLine}, ZR_RTSP_NO_MEMORY, ZR_RTSP_NO_MEMORY);
}

CAOIRequest::~CAOIRequest()
{
    release();
}

CAOIRequest &CAOIRequest::header(ZR_ULONG ulStatus, int iLine)
{
    const auto fnHeader = [this](tagAOIMsg *) {
        tagMDPMsgHeader stHeader = {};
        CAOIIETool::genAOIMsgHeader(m_ulMsgID, m_ulSrcID, NO_PARTICULAR_RECEIVER, stHeader);
        return MDP_CreatReqMsgHeader(&stHeader, m_pstMsg);
    };
    return row({"[%s] Failed to create RegMsgHeader of AoiMsg.", iLine}, ulStatus, fnHeader);
}

ZR_ULONG CAOIRequest::send(const tagLogText &stText, ZR_ULONG ulCode, ZR_ULONG ulStatus)
{
    if (m_ulStatus == ZR_RTSP_OK)
    {
        CIAOIMsgDisp *pDispatcher = g_pAOIMsgDispInter;
        const ZR_ULONG ulResult = pDispatcher != nullptr ? pDispatcher->sendAOIMsg(m_pstMsg) : ZR_RTSP_NO_DISPATCHER;
        release();
        if (ulResult != ZR_RTSP_OK)
        {
            logText(ZR_LOG_ERROR, ulCode != 0 ? ulCode : ulResult, stText, m_pszFunction);
            m_ulStatus = ulStatus != 0 ? ulStatus : ulResult;
        }
    }
    return m_ulStatus;
}

void CAOIRequest::fail(const tagLogText &stText, ZR_ULONG ulResult, ZR_ULONG ulStatus)
{
    logText(ZR_LOG_ERROR, ulResult, stText, m_pszFunction);
    release();
    m_ulStatus = ulStatus != 0 ? ulStatus : ulResult;
}

void CAOIRequest::release()
{
    if (m_pstMsg == nullptr)
        return;
    void *pvMsg = m_pstMsg;
    VELK_free(&pvMsg);
    m_pstMsg = nullptr;
}
