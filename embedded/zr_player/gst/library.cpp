/// The entry point of the media library.

#include <exception>

#include "sink.h"

namespace {

int accepts(const ZrMediaFormat *format)
{
    return format->ulClockRate != 0 && zr::media::chainOf(format->pszEncoding) != nullptr ? 1 : 0;
}

ZrMediaSink *open(ZrMediaKind kind, const char *file, const ZrMediaFormat *tracks, uint32_t count, ZrMediaLog log,
                  void *user)
{
    try
    {
        auto sink = std::make_unique<ZrMediaSink>(kind, log, user);
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

constexpr ZrMediaLibrary library = {ZR_MEDIA_LIBRARY_VERSION, &accepts, &open, &push, &state, &finish, &close};

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
