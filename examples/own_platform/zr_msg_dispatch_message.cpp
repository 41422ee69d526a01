// The message-dispatch library: messages without elements yet (CAOIIETool), made on the thread that sends them.

#include <cstdlib>
#include <new>

#include "message.h"
#include "zr_msg_dispatch.h"

// NULL says that there is no memory: the operation then returns 3. VELK_free takes it back, on the same thread.
tagMDPMsg *CAOIIETool::mallocAOIMsg(ZR_ULONG ulSize)
{
    if (ulSize < sizeof(own::Frame))
        return nullptr;
    void *const memory = std::malloc(ulSize);
    if (memory == nullptr)
        return nullptr;
    auto *const frame = new (memory) own::Frame{};
    frame->capacity = ulSize - static_cast<ZR_ULONG>(sizeof(own::Frame));
    return frame;
}

// ulSrcID is the identifier under which the session is registered: the answer goes there. It cannot fail.
void CAOIIETool::genAOIMsgHeader(ZR_ULONG ulMsgID, ZR_ULONG ulSrcID, ZR_ULONG ulDstID, tagMDPMsgHeader &stHeader)
{
    stHeader = {ulMsgID, MDP_MSG_KIND_REQUEST, ulSrcID, ulDstID};
}
