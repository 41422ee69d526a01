#include "replay_media.h"

extern "C" // which this header lacks
{
#include <gst/rtsp-server/rtsp-onvif-server.h>
}

namespace zr::device {
namespace {

constexpr const char *beginKey = "zr-begin";

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

void initialize(gpointer type, gpointer)
{
    static_cast<GstRTSPMediaClass *>(type)->convert_range = convertRange;
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
}

} // namespace

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
