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

} // namespace

void shareMedia(GstRTSPMediaFactory *factory)
{
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMedia), nullptr);
}

} // namespace zr::device
