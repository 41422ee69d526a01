/// The operations of hosts on recordings that are there.

#include <cstdio>
#include <exception>
#include <string>

#include <unistd.h>

#include "error_text.h"
#include "media_file.h"
#include "new_file.h"
#include "platform_log.h"

namespace {

using zr::media::mediaLibrary;

ZR_ULONG refuse(ZR_ULONG code, const char *why)
{
    ZR_PLATFORM_LOG(WARNING, code, Player, "recording refused: %s", why);
    return code;
}

void writeLog(void *, int error, const char *text)
{
    if (error != 0)
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_INVALID, Player, "recording: %s", text);
    }
    else
    {
        ZR_PLATFORM_LOG(INFO, 0, Player, "recording: %s", text);
    }
}

/// Runs an operation with the media library; nothing is thrown out.
template <typename Operation>
ZR_ULONG withLibrary(Operation operation)
{
    try
    {
        const ZrMediaLibrary *library = mediaLibrary();
        return library == nullptr ? ZR_ULONG{ZR_MEDIA_UNAVAILABLE} : operation(*library);
    }
    catch (const std::exception &error)
    {
        return refuse(ZR_MEDIA_FAILED, error.what());
    }
}

} // namespace

ZR_ULONG ZR_RecordingFacts(const char *pszFile, ZrRecordingFacts *pstOut)
{
    if (pszFile == nullptr || pstOut == nullptr)
    {
        return refuse(ZR_MEDIA_INVALID, "null");
    }
    return withLibrary([=](const ZrMediaLibrary &library) -> ZR_ULONG {
        ZrMediaTimes times{};
        if (library.times(pszFile, &times, &writeLog, nullptr) == 0)
        {
            return ZR_MEDIA_INVALID;
        }
        constexpr uint64_t millisecond = 1000000;
        *pstOut = {times.ullEnd / millisecond, times.ullLastKey / millisecond};
        return 0;
    });
}

ZR_ULONG ZR_RecordingBegin(const char *pszFile, ZrRecordingBegin *pstOut)
{
    if (pszFile == nullptr || pstOut == nullptr)
    {
        return refuse(ZR_MEDIA_INVALID, "null");
    }
    return withLibrary([=](const ZrMediaLibrary &library) -> ZR_ULONG {
        ZrMediaTimes times{};
        if (library.times(pszFile, &times, &writeLog, nullptr) == 0 || times.llUnix <= 0)
        {
            return ZR_MEDIA_INVALID;
        }
        *pstOut = {static_cast<uint64_t>(times.llUnix) / 1000, times.iSenderClock != 0 ? 1U : 0U};
        return 0;
    });
}

ZR_ULONG ZR_RecordingContinue(const char *pszFile, const char *pszRest)
{
    if (pszFile == nullptr || pszRest == nullptr)
    {
        return refuse(ZR_MEDIA_INVALID, "null");
    }
    return withLibrary([=](const ZrMediaLibrary &library) -> ZR_ULONG {
        std::string made;
        zr::media::Descriptor held;
        zr::media::removeAbandoned(pszFile);
        if (const int error = zr::media::createTemporary(pszFile, made, held))
        {
            return refuse(ZR_MEDIA_UNWRITABLE, (made + ": " + zr::media::errorText(error)).c_str());
        }
        const int joined = library.join(pszFile, pszRest, made.c_str(), &writeLog, nullptr);
        ZR_ULONG code = joined != 0 ? 0U : ZR_MEDIA_INVALID;
        held.reset(); // some network file systems rename no open file
        if (joined == 1 && std::rename(made.c_str(), pszFile) != 0)
        {
            code = refuse(ZR_MEDIA_UNWRITABLE, "the new file cannot take its name");
        }
        if (code != 0 || joined != 1)
        {
            ::unlink(made.c_str());
        }
        return code;
    });
}
