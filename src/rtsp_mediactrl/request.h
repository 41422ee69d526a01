/// @file
/// One AOI request from its allocation to its sending.
#pragma once

#include <string>

#include "log.h"
#include "rtsp_impl.h"
#include "zr_msg_dispatch.h"
#include "zr_rtsp/codes.h"

/// Owns the message of a request and takes the steps that all requests share. The steps are called in a row: after the
/// first that fails the rest do nothing, the failure has been logged, and status() tells what the request returns. The
/// message is released right after it was sent, whatever came of it, and on every other way out.
///
/// Each step takes its log text and the status that its failure gives; a status of 0 stands for the step's own result.
/// One thread at a time, under the object's mutex.
class CAOIRequest
{
public:
    /// Allocates the message; a failure is logged and gives 3.
    /// @param pszFunction  the qualified name of the requesting function, for the log
    /// @param ulSrcID      the object's registration identifier
    CAOIRequest(const char *pszFunction, ZR_ULONG ulMsgID, ZR_ULONG ulSrcID, int iLine = __builtin_LINE());
    ~CAOIRequest();
    CAOIRequest(const CAOIRequest &) = delete;
    CAOIRequest &operator=(const CAOIRequest &) = delete;

    /// Writes the request header.
    CAOIRequest &header(ZR_ULONG ulStatus, int iLine = __builtin_LINE());

    /// Adds a text element.
    CAOIRequest &add(const tagLogText &stText, ZR_ULONG ulStatus, ZR_ULONG (*pfnAdd)(const std::string &, tagAOIMsg *),
                     const std::string &strValue)
    {
        return row(stText, ulStatus, [&](tagAOIMsg *pstMsg) { return pfnAdd(strValue, pstMsg); });
    }

    /// Adds a user-agent identifier.
    CAOIRequest &add(const tagLogText &stText, ZR_ULONG ulStatus,
                     ZR_ULONG (*pfnAdd)(const std::string &, tagAOIMsg *, ZR_ULONG), const std::string &strUaID,
                     ZR_ULONG ulOnvif)
    {
        return row(stText, ulStatus, [&](tagAOIMsg *pstMsg) { return pfnAdd(strUaID, pstMsg, ulOnvif); });
    }

    /// Adds an element whose value is the library's own.
    CAOIRequest &add(const tagLogText &stText, ZR_ULONG ulStatus, ZR_ULONG (*pfnAdd)(tagAOIMsg *))
    {
        return row(stText, ulStatus, pfnAdd);
    }

    /// A row of its own kind: what it does beside adding happens only when it is its turn.
    /// @param fnAdd  takes the message, gives the result of the add
    template <typename Add>
    CAOIRequest &row(const tagLogText &stText, ZR_ULONG ulStatus, Add &&fnAdd)
    {
        if (m_ulStatus == ZR_RTSP_OK)
        {
            const ZR_ULONG ulResult = fnAdd(static_cast<tagAOIMsg *>(m_pstMsg));
            if (ulResult != ZR_RTSP_OK)
                fail(stText, ulResult, ulStatus);
        }
        return *this;
    }

    /// Sends the message and releases it.
    /// @param ulCode  what the log line reports; 0: the send's own result (13601 without a dispatcher)
    /// @return status()
    ZR_ULONG send(const tagLogText &stText, ZR_ULONG ulCode, ZR_ULONG ulStatus);

    /// @return 0, or what the first failure gave
    ZR_ULONG status() const { return m_ulStatus; }

private:
    void fail(const tagLogText &stText, ZR_ULONG ulResult, ZR_ULONG ulStatus);
    void release();

    const char *const m_pszFunction;
    const ZR_ULONG m_ulMsgID;
    const ZR_ULONG m_ulSrcID;
    tagMDPMsg *m_pstMsg;
    ZR_ULONG m_ulStatus = ZR_RTSP_OK;
};
