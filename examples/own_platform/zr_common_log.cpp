// The common library, first third: the log, and the marks of received media.

#include <cstdarg>
#include <cstdio>

#include "zr_common.h"

// Called from every thread that is inside the plug-in, often under a session's lock or the observer list's: a slow sink
// needs a queue of its own. It must not throw, must not call the plug-in, and cannot fail. Texts may hold what a far
// side sent; pszFile is kept by the caller, the text is not.
void CZRWriteLog::writeLog(tagZrLogLevel enLevel, ZR_ULONG ulCode, ZR_ULONG /*ulModule*/, const char *pszFile,
                           int iLine, const char *pszFormat, ...)
{
    if (enLevel < ZR_LOG_WARNING)
        return;
    char text[2048];
    va_list arguments;
    va_start(arguments, pszFormat);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started in the line above
    std::vsnprintf(text, sizeof text, pszFormat, arguments);
    va_end(arguments);
    std::fprintf(stderr, "%s:%d: %u: %s\n", pszFile, iLine, ulCode, text);
}

// Called when a session is created and when it is deleted: forget what the port received before.
void CJugeMediaKeepLive::RefreshMediaKeepLive(ZR_ULONG /*ulPortID*/) {}

// Called on the timer's thread, under the session's lock, once a keep-alive period: whether packets came since the last
// call, which takes the mark back. Let your receiver set the mark without a lock, it does so for every packet. Here no
// media is received, so the answer is always no; the sessions live by the answers to their OPTIONS.
ZR_ULONG CJugeMediaKeepLive::CheckIfRecvPkt(ZR_ULONG /*ulPortID*/)
{
    return 0;
}
