/// @file
/// Nothing throws out of the library.
#pragma once

#include <cxxabi.h>
#include <exception>
#include <pthread.h>
#include <type_traits>

#include "log.h"

/// Runs what the host or the platform called, and lets nothing out: an exception is logged and becomes the failure.
/// A thread's cancellation is no failure; it goes on. There is no object behind the reference that catches it, which
/// UBSan takes for a fault, wherever it is inlined.
template <typename Body, typename... Failure>
__attribute__((noinline, no_sanitize("null"))) auto guarded(const char *pszFile, const char *pszFunction, Body &&fnBody,
                                                            Failure... tFailure) -> decltype(fnBody())
{
    using Result = decltype(fnBody());
    try
    {
        return fnBody();
    }
    catch (abi::__forced_unwind &)
    {
        throw;
    }
    catch (const std::exception &oException)
    {
        RTSP_LOG_OF(ERROR, 1, MODULE_RTSP, pszFile, "[%s] unexpected exception: %s", pszFunction, oException.what());
    }
    catch (...)
    {
        RTSP_LOG_OF(ERROR, 1, MODULE_RTSP, pszFile, "[%s] unexpected exception", pszFunction);
    }
    if constexpr (!std::is_void_v<Result>)
        return Result(tFailure...);
}

/// Keeps a thread's cancellation away from what could not be left half done.
class CNoCancellation
{
public:
    CNoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iBefore); }
    ~CNoCancellation() { pthread_setcancelstate(m_iBefore, nullptr); }
    CNoCancellation(const CNoCancellation &) = delete;
    CNoCancellation &operator=(const CNoCancellation &) = delete;

private:
    int m_iBefore = PTHREAD_CANCEL_ENABLE;
};
