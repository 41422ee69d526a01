#include "callback_thread.h"

namespace {

thread_local unsigned depth = 0;

} // namespace

zr::common::CallbackThreadMark::CallbackThreadMark()
{
    ++depth;
}

zr::common::CallbackThreadMark::~CallbackThreadMark()
{
    --depth;
}

bool zr::common::onCallbackThread()
{
    return depth > 0;
}
