#include "shared_media.h"

namespace zr::device {
namespace {

gboolean tellTaken(gpointer listener)
{
    gst_rtsp_stream_transport_message_sent(GST_RTSP_STREAM_TRANSPORT(listener));
    return G_SOURCE_REMOVE;
}

// Told later, as of a client's socket: this is called with the stream's locks held.
gboolean take(GstBuffer *, guint8, gpointer listener)
{
    g_idle_add_full(G_PRIORITY_DEFAULT, tellTaken, g_object_ref(listener), g_object_unref);
    return TRUE;
}

GstRTSPStreamTransport *makeListener(GstRTSPStream *stream, guint8 channel)
{
    GstRTSPTransport *transport = nullptr;
    gst_rtsp_transport_new(&transport);
    transport->lower_transport = GST_RTSP_LOWER_TRANS_TCP;
    transport->destination = g_strdup("nowhere"); // it is compared with others'
    transport->interleaved = {channel, channel + 1};
    GstRTSPStreamTransport *listener = gst_rtsp_stream_transport_new(stream, transport);
    gst_rtsp_stream_transport_set_callbacks(listener, take, take, listener, nullptr);
    return listener;
}

// The library sends over TCP in one thread a stream, RTCP first, and one message each time that something came or that
// a client took something: an RTP packet that comes with an RTCP one waits for a client that takes the latter. Where
// there is none any more, it waits for ever, and with it the stream, over UDP as well. So somebody listens always.
void listen(GstRTSPMedia *media)
{
    GPtrArray *listeners = g_ptr_array_new_with_free_func(g_object_unref);
    for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i)
    {
        g_ptr_array_add(listeners, makeListener(gst_rtsp_media_get_stream(media, i), static_cast<guint8>(2 * i)));
    }
    gst_rtsp_media_complete_pipeline(media, listeners);
    gst_rtsp_media_set_state(media, GST_STATE_PLAYING, listeners);
    g_object_set_data_full(G_OBJECT(media), "zr-listeners", listeners,
                           [](gpointer array) { g_ptr_array_unref(static_cast<GPtrArray *>(array)); });
}

// Once more than its clients did: a shared media that the last client leaves while another one comes stays broken.
void keepGoing(GstRTSPMedia *media, gpointer)
{
    g_signal_handlers_disconnect_by_func(media, reinterpret_cast<gpointer>(keepGoing), nullptr);
    gst_rtsp_media_prepare(media, nullptr);
    listen(media);
}

void onMedia(GstRTSPMediaFactory *, GstRTSPMedia *media, gpointer)
{
    g_signal_connect(media, "prepared", G_CALLBACK(keepGoing), nullptr);
}

// The beginning of what is live is now (RFC 2326, 3.6), and it has no end that could be asked for.
bool isFromNowOn(const gchar *text)
{
    GstRTSPTimeRange *range = nullptr;
    if (gst_rtsp_range_parse(text, &range) != GST_RTSP_OK)
    {
        return false;
    }
    const GstRTSPTime &begin = range->min;
    const bool now = begin.type == GST_RTSP_TIME_NOW || (begin.type == GST_RTSP_TIME_SECONDS && begin.seconds == 0);
    const bool fromNowOn = range->unit == GST_RTSP_RANGE_NPT && now && range->max.type == GST_RTSP_TIME_END;
    gst_rtsp_range_free(range);
    return fromNowOn;
}

// The library would seek for all who look on, and what is live would wait until that time comes.
GstRTSPStatusCode beforePlay(GstRTSPClient *, GstRTSPContext *context, gpointer)
{
    if (context->media == nullptr || gst_rtsp_media_is_shared(context->media) == FALSE)
    {
        return GST_RTSP_STS_OK;
    }
    gchar *range = nullptr;
    if (gst_rtsp_message_get_header(context->request, GST_RTSP_HDR_RANGE, &range, 0) == GST_RTSP_OK &&
        !isFromNowOn(range))
    {
        return GST_RTSP_STS_INVALID_RANGE;
    }
    gst_rtsp_message_remove_header(context->request, GST_RTSP_HDR_RANGE, -1);
    if (gst_rtsp_message_remove_header(context->request, GST_RTSP_HDR_SCALE, -1) == GST_RTSP_OK)
    {
        gst_rtsp_message_add_header(context->request, GST_RTSP_HDR_SCALE, "1.000"); // which the answer then tells
    }
    gst_rtsp_message_remove_header(context->request, GST_RTSP_HDR_SPEED, -1);
    return GST_RTSP_STS_OK;
}

} // namespace

void keepFromSeeking(GstRTSPClient *client)
{
    g_signal_connect(client, "pre-play-request", G_CALLBACK(beforePlay), nullptr);
}

void shareMedia(GstRTSPMediaFactory *factory)
{
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMedia), nullptr);
}

} // namespace zr::device
