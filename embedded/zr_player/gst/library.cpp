/// The entry point of the media library.

#include <exception>

#include "join.h"
#include "sink.h"

namespace {

int accepts(const ZrMediaFormat *format)
{
    return format->ulClockRate != 0 && zr::media::chainOf(format->pszEncoding) != nullptr ? 1 : 0;
}

ZrMediaSink *open(ZrMediaKind kind, const char *file, const ZrMediaFormat *tracks, uint32_t count,
                  ZrMediaPicture picture, ZrMediaLog log, void *user)
{
    try
    {
        auto sink = std::make_unique<ZrMediaSink>(kind, picture, log, user);
        return sink->open(file, {tracks, tracks + count}) ? sink.release() : nullptr;
    }
    catch (const std::exception &error)
    {
        log(user, 1, error.what());
        return nullptr;
    }
}

void push(ZrMediaSink *sink, uint32_t track, const uint8_t *packet, uint32_t size, uint64_t arrival)
{
    sink->push(track, packet, size, arrival);
}

ZrMediaState state(ZrMediaSink *sink)
{
    return sink->state();
}

ZrMediaState finish(ZrMediaSink *sink, uint32_t timeoutMs)
{
    return sink->finish(timeoutMs);
}

void close(ZrMediaSink *sink)
{
    delete sink;
}

int times(const char *file, ZrMediaTimes *out, ZrMediaLog log, void *user)
{
    try
    {
        const zr::media::RecordingLook look = zr::media::lookThrough(file);
        *out = {look.end, look.hasVideo() && !look.keys.empty() ? look.keys.back().time : look.end};
        return 1;
    }
    catch (const std::exception &error)
    {
        log(user, 1, error.what());
        return 0;
    }
}

int join(const char *first, const char *second, const char *out, ZrMediaLog log, void *user)
{
    try
    {
        log(user, 0, zr::media::joinRecordings(first, second, out).c_str());
        return 1;
    }
    catch (const std::exception &error)
    {
        log(user, 1, error.what());
        return 0;
    }
}

constexpr ZrMediaLibrary library = {
    ZR_MEDIA_LIBRARY_VERSION, &accepts, &open, &push, &state, &finish, &close, &times, &join};

} // namespace

extern "C" __attribute__((visibility("default"))) const ZrMediaLibrary *zr_media_library(ZrMediaLog log)
{
    GError *error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) == FALSE)
    {
        log(nullptr, 1, error == nullptr ? "GStreamer does not start" : error->message);
        g_clear_error(&error);
        return nullptr;
    }
    return &library;
}
