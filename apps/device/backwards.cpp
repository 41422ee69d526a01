#include "backwards.h"

namespace zr::device {
namespace {

// Backwards a sink sends what it has when its end is due, and at once where it has none, as packets do. A group of
// pictures is sent forwards, so it ends as a whole: each would wait for those behind it otherwise.
void setDuration(GstBuffer *packet)
{
    const GstClockTime begin = GST_BUFFER_PTS(packet);
    GST_BUFFER_DURATION(packet) =
        GST_CLOCK_TIME_IS_VALID(begin) ? GST_SECOND - begin % GST_SECOND : GST_CLOCK_TIME_NONE;
}

gboolean setListed(GstBuffer **packet, guint, gpointer)
{
    *packet = gst_buffer_make_writable(*packet);
    setDuration(*packet);
    return TRUE;
}

GstPadProbeReturn onPackets(GstPad *, GstPadProbeInfo *info, gpointer)
{
    if ((info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST) != 0)
    {
        auto *list = gst_buffer_list_make_writable(GST_PAD_PROBE_INFO_BUFFER_LIST(info));
        gst_buffer_list_foreach(list, setListed, nullptr);
        info->data = list;
    }
    else
    {
        auto *packet = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
        setDuration(packet);
        info->data = packet;
    }
    return GST_PAD_PROBE_OK;
}

} // namespace

void paceBackwards(GstRTSPMedia *media)
{
    constexpr auto packets =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST); // one by one, or not
    for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i)
    {
        GstPad *pad = gst_rtsp_stream_get_srcpad(gst_rtsp_media_get_stream(media, i));
        gst_pad_add_probe(pad, packets, onPackets, nullptr, nullptr);
        gst_object_unref(pad);
    }
}

} // namespace zr::device
