/// @file
/// The message platform: headers of messages, and the raw look-up of one information element (IE).
#pragma once

#include "zr_types.h"

/// What a message is.
enum tagMDPMsgKind : ZR_ULONG
{
    MDP_MSG_KIND_REQUEST = 0,
    MDP_MSG_KIND_SUCCESS = 1, ///< a good answer
    MDP_MSG_KIND_FAILURE = 2,
};

/// Who sends which message to whom. Identifiers are registration identifiers (CIAOIMsgDisp::registerAOIMsgProc).
struct tagMDPMsgHeader
{
    ZR_ULONG ulMsgID;   ///< one of the AOI_MSG_ identifiers
    ZR_ULONG ulMsgKind; ///< a tagMDPMsgKind
    ZR_ULONG ulSrcID;   ///< the sender's registration identifier
    ZR_ULONG ulDstID;   ///< the receiver's; 0xFFFFFFFF: no particular one
};

/// A message as it is read. What follows the header in the buffer belongs to the dispatch library.
struct tagAOIMsg
{
    tagMDPMsgHeader stHeader; ///< who sends what to whom
};

/// A message as it is allocated: the same memory.
struct tagMDPMsg : tagAOIMsg
{
};

/// Writes a header into a message as that of a request (kind 0).
/// @param pstHeader  the header, filled by CAOIIETool::genAOIMsgHeader
/// @param pstMsg     a message of CAOIIETool::mallocAOIMsg
/// @return 0; 2 when either is NULL
/// Any thread; a message belongs to one thread at a time.
ZR_PLATFORM_API ZR_ULONG MDP_CreatReqMsgHeader(const tagMDPMsgHeader *pstHeader, tagMDPMsg *pstMsg);

/// Finds one IE of a message.
/// @param pstAOIMsg  the message, which keeps owning what is found
/// @param ulIEID     the IE's identifier (AOI_IE_DATA, AOI_IE_AUTHORIZATION_ID ...)
/// @param ppvIE      receives its first byte, aligned to 4
/// @param pulLen     receives its length in bytes, a text's terminating zero counted. It may be shorter than the 84
///                   bytes in front of a data IE's text or the 8 in front of a challenge's.
/// @return 0; a code when there is none or the message is malformed (nothing is written then)
ZR_PLATFORM_API ZR_ULONG MDP_GetMsgIE(const tagAOIMsg *pstAOIMsg, ZR_ULONG ulIEID, const void **ppvIE,
                                      ZR_ULONG *pulLen);
