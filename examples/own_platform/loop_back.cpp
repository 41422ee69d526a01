#include "loop_back.h"

#include <array>
#include <new>

#include "elements.h"
#include "tw_system.h"

namespace {

constexpr ZR_ULONG answerSize = 8192; ///< a description, and the URL twice

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
