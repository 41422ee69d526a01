#include "seekable_media.h"

namespace zr::device {
namespace {

bool tellsRates(GstRTSPStream *stream)
{
    gdouble rate = 0;
    gdouble appliedRate = 0;
    return gst_rtsp_stream_is_complete(stream) == FALSE || gst_rtsp_stream_is_sender(stream) == FALSE ||
           gst_rtsp_stream_get_rates(stream, &rate, &appliedRate) == TRUE;
}

GstRTSPMediaClass *parentClass = nullptr; // set once, before there is any media

gboolean convertRange(GstRTSPMedia *media, GstRTSPTimeRange *range, GstRTSPRangeUnit unit)
{
    awaitRates(media);
    return parentClass->convert_range(media, range, unit);
}

void initialize(gpointer type, gpointer)
{
    parentClass = static_cast<GstRTSPMediaClass *>(g_type_class_peek_parent(type));
    static_cast<GstRTSPMediaClass *>(type)->convert_range = convertRange;
}

} // namespace

GType seekableMediaType()
{
    static const GType type =
        g_type_register_static_simple(GST_TYPE_RTSP_MEDIA, "ZrSeekableMedia", sizeof(GstRTSPMediaClass), initialize,
                                      sizeof(GstRTSPMedia), nullptr, GTypeFlags{});
    return type;
}

void awaitRates(GstRTSPMedia *media)
{
    constexpr guint64 most = 500000; // us
    constexpr guint64 step = 2000;
    guint64 waited = 0;
    for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i)
    {
        while (!tellsRates(gst_rtsp_media_get_stream(media, i)) && waited < most)
        {
            g_usleep(step);
            waited += step;
        }
    }
}

} // namespace zr::device
