// The message-dispatch library: its start, its end, and where the dispatcher is.

#include "dispatcher.h"

namespace {

/// Never freed: the plug-in keeps the pointer beyond ZR_MSGDISP_Destroy, and its objects may be deleted after that.
own::Dispatcher *dispatcher()
{
    static own::Dispatcher *const instance = new own::Dispatcher;
    return instance;
}

} // namespace

// Called by init on the host's thread, with the host's own arguments; 0 and NULL stand for your defaults. Calls nest. A
// failure is init's result, and nothing was started. Let your threads block the signals: they are the host's.
ZR_ULONG ZR_MSGDISP_Init(ZR_ULONG /*ulMaxMessageBytes*/, ZR_ULONG /*ulConnectTimeoutMs*/, const char * /*pszUserAgent*/,
                         const char * /*pszCaFile*/)
{
    return dispatcher()->start();
}

// Called by destroy on the host's thread, after the timers have been stopped, never inside AOIMsgPro. The last one lets
// each TEARDOWN go out (for 2 seconds at most) and ends the threads. Objects may still be registered.
void ZR_MSGDISP_Destroy()
{
    dispatcher()->stop();
}

// Called by init, after ZR_MSGDISP_Init succeeded. The plug-in keeps the pointer for good, and never frees it.
CIAOIMsgDisp *ZR_MSGDISP_GetAOIMsgDispInter()
{
    return dispatcher()->wasStarted() ? dispatcher() : nullptr;
}
