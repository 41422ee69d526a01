#include "replay_media.h"

#include <memory>
#include <string>

extern "C" // which this header lacks
{
#include <gst/rtsp-server/rtsp-onvif-server.h>
}

#include "backwards.h"
#include "seekable_media.h"

namespace zr::device {
namespace {

constexpr const char *beginKey = "zr-begin";

struct Free
{
    void operator()(gchar *text) const { g_free(text); }
};
using Text = std::unique_ptr<gchar, Free>;

void shift(GstRTSPTime &time, double seconds)
{
    if (time.type == GST_RTSP_TIME_SECONDS)
    {
        time.seconds += seconds;
    }
}

// The library converts to seconds since 1900; the recording's own begin with it.
gboolean convertRange(GstRTSPMedia *media, GstRTSPTimeRange *range, GstRTSPRangeUnit unit)
{
    awaitRates(media);
    const double begin = GPOINTER_TO_UINT(g_object_get_data(G_OBJECT(media), beginKey)) + double{from1900To1970};
    if (range->unit == unit)
    {
        return TRUE;
    }
    if (unit == GST_RTSP_RANGE_CLOCK)
    {
        shift(range->min, begin);
        shift(range->max, begin);
    }
    if (gst_rtsp_range_convert_units(range, unit) == FALSE)
    {
        return FALSE;
    }
    if (unit == GST_RTSP_RANGE_NPT)
    {
        shift(range->min, -begin);
        shift(range->max, -begin);
    }
    return TRUE;
}

GstRTSPMediaClass *parentClass = nullptr; // set once, before there is any media

// The library tells every range in seconds, whatever the media understands.
gboolean describe(GstRTSPMedia *media, GstSDPMessage *description, GstSDPInfo *info)
{
    const Text range(gst_rtsp_media_get_range_string(media, FALSE, GST_RTSP_RANGE_CLOCK));
    const bool described = parentClass->setup_sdp(media, description, info) == TRUE;
    for (guint i = 0; described && range && i < gst_sdp_message_attributes_len(description); ++i)
    {
        if (std::string(gst_sdp_message_get_attribute(description, i)->key) == "range")
        {
            GstSDPAttribute attribute{};
            gst_sdp_attribute_set(&attribute, "range", range.get());
            gst_sdp_message_replace_attribute(description, i, &attribute); // which takes its texts over
        }
    }
    return described ? TRUE : FALSE;
}

void initialize(gpointer type, gpointer)
{
    auto *own = static_cast<GstRTSPMediaClass *>(type);
    parentClass = static_cast<GstRTSPMediaClass *>(g_type_class_peek_parent(type));
    own->convert_range = convertRange;
    own->setup_sdp = describe;
}

GType replayMediaType()
{
    static const GType type =
        g_type_register_static_simple(GST_TYPE_RTSP_ONVIF_MEDIA, "ZrReplayMedia", sizeof(GstRTSPOnvifMediaClass),
                                      initialize, sizeof(GstRTSPOnvifMedia), nullptr, GTypeFlags{});
    return type;
}

void onMedia(GstRTSPMediaFactory *, GstRTSPMedia *media, gpointer begin)
{
    g_object_set_data(G_OBJECT(media), beginKey, begin);
    paceBackwards(media);
}

/// From where it is, as far as it goes in that direction.
/// @return null: where it is cannot be told
Text rangeFromNow(GstRTSPMedia *media, bool backwards)
{
    gint64 place = 0;
    if (GST_RTSP_MEDIA_GET_CLASS(media)->query_position(media, &place) == FALSE || place < 0)
    {
        return nullptr;
    }
    GstRTSPTimeRange range{};
    range.unit = GST_RTSP_RANGE_NPT;
    range.min = {GST_RTSP_TIME_SECONDS, static_cast<gdouble>(place) / GST_SECOND};
    range.max = {backwards ? GST_RTSP_TIME_SECONDS : GST_RTSP_TIME_END, 0}; // backwards a range falls (RFC 2326, 12.34)
    return Text(convertRange(media, &range, GST_RTSP_RANGE_CLOCK) == TRUE ? gst_rtsp_range_to_string(&range) : nullptr);
}

// For another speed alone the library seeks to the very place, and what comes first is the key frame before it, whose
// time cannot be reckoned then: the media ends in an error. To a range's begin it seeks by key frames.
GstRTSPStatusCode beforePlay(GstRTSPClient *, GstRTSPContext *context, gpointer)
{
    gchar *scale = nullptr;
    gchar *range = nullptr;
    if (context->media != nullptr && G_TYPE_CHECK_INSTANCE_TYPE(context->media, replayMediaType()) == TRUE &&
        gst_rtsp_message_get_header(context->request, GST_RTSP_HDR_SCALE, &scale, 0) == GST_RTSP_OK &&
        gst_rtsp_message_get_header(context->request, GST_RTSP_HDR_RANGE, &range, 0) != GST_RTSP_OK)
    {
        if (const Text now = rangeFromNow(context->media, g_ascii_strtod(scale, nullptr) < 0))
        {
            gst_rtsp_message_add_header(context->request, GST_RTSP_HDR_RANGE, now.get());
        }
    }
    return GST_RTSP_STS_OK;
}

} // namespace

void keepPlace(GstRTSPClient *client)
{
    g_signal_connect(client, "pre-play-request", G_CALLBACK(beforePlay), nullptr);
}

GstRTSPServer *makeReplayServer()
{
    return gst_rtsp_onvif_server_new();
}

GstRTSPMediaFactory *makeReplayFactory(uint32_t begin)
{
    GstRTSPMediaFactory *factory = gst_rtsp_onvif_media_factory_new();
    gst_rtsp_onvif_media_factory_set_replay_support(GST_RTSP_ONVIF_MEDIA_FACTORY(factory), TRUE);
    gst_rtsp_media_factory_set_media_gtype(factory, replayMediaType());
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMedia), GUINT_TO_POINTER(begin));
    return factory;
}

} // namespace zr::device
