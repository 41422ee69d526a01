/// The entry point of the media library.

#include <exception>
#include <string>

#include "join.h"
#include "sink.h"

namespace {

int accepts(const ZrMediaFormat *format)
{
    const std::string encoding = format->pszEncoding;
    const bool known = format->ulClockRate != 0 && zr::media::chainOf(encoding) != nullptr;
    // no element takes a configuration that comes with the frames (RFC 6416, 6.1)
    const bool configured =
        encoding != "MP4A-LATM" || std::string(format->pszFmtp).find("config=") != std::string::npos;
    return known && configured ? 1 : 0;
}

ZrMediaSink *open(ZrMediaKind kind, const char *file, const ZrMediaParts *parts, const ZrMediaFormat *tracks,
                  uint32_t count, ZrMediaPicture picture, ZrMediaLog log, void *user)
{
    try
    {
        auto sink = std::make_unique<ZrMediaSink>(kind, picture, log, user);
        return sink->open(file, parts, {tracks, tracks + count}) ? sink.release() : nullptr;
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

void clockOf(ZrMediaSink *sink, uint32_t track, uint32_t ssrc, uint32_t timestamp, int64_t unixTime)
{
    sink->clock(track, ssrc, timestamp, unixTime);
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
        *out = {look.end, look.hasVideo() && !look.keys.empty() ? look.keys.back().time : look.end, look.date,
                zr::media::isBySender(look.comment) ? 1 : 0};
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
        const auto joined = zr::media::joinRecordings(first, second, out);
        log(user, 0, joined.value_or(std::string(first) + " holds all of " + second).c_str());
        return joined ? 1 : 2;
    }
    catch (const std::exception &error)
    {
        log(user, 1, error.what());
        return 0;
    }
}

constexpr ZrMediaLibrary library = {
    ZR_MEDIA_LIBRARY_VERSION, &accepts, &open, &push, &clockOf, &state, &finish, &close, &times, &join};

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
