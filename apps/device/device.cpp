#include "device.h"

#include <csignal>
#include <stdexcept>

#include <gio/gio.h>
#include <glib-unix.h>
#include <gst/rtsp-server/rtsp-server.h>

#include "recording.h"
#include "replay_media.h"
#include "seekable_media.h"
#include "shared_media.h"

namespace zr::device {
namespace {

constexpr const char *role = "viewer";

struct Unref
{
    void operator()(gpointer object) const { g_object_unref(object); }
    void operator()(GMainLoop *loop) const { g_main_loop_unref(loop); }
    void operator()(GError *error) const { g_error_free(error); }
    void operator()(GDateTime *time) const { g_date_time_unref(time); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

// A source of the main context; destroyed with its owner.
class Source
{
public:
    Source() = default;
    ~Source()
    {
        if (m_source != nullptr)
        {
            g_source_destroy(m_source);
            g_source_unref(m_source);
        }
    }
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    void attach(GSource *source, GSourceFunc callback, gpointer user)
    {
        m_source = source;
        g_source_set_callback(source, callback, user, nullptr);
        attach(source);
    }
    void attach(GSource *source)
    {
        m_source = source;
        g_source_attach(source, nullptr);
    }

private:
    GSource *m_source = nullptr;
};

void addMount(GstRTSPMountPoints *mounts, const char *path, const std::string &pipeline, GstRTSPMediaFactory *factory)
{
    gst_rtsp_media_factory_set_launch(factory, pipeline.c_str());
    gst_rtsp_media_factory_add_role(factory, role, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN, TRUE,
                                    GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, nullptr);
    gst_rtsp_mount_points_add_factory(mounts, path, factory); // which takes it over
}

void addLiveMount(GstRTSPMountPoints *mounts, const char *path, const std::string &pipeline)
{
    GstRTSPMediaFactory *factory = gst_rtsp_media_factory_new();
    shareMedia(factory);
    addMount(mounts, path, pipeline, factory);
}

void addSeekableMount(GstRTSPMountPoints *mounts, const char *path, const std::string &pipeline)
{
    GstRTSPMediaFactory *factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_media_gtype(factory, seekableMediaType());
    addMount(mounts, path, pipeline, factory);
}

void addReplayMount(GstRTSPMountPoints *mounts, const std::string &file, const std::string &when)
{
    const Owned<GDateTime> begin(g_date_time_new_from_iso8601(when.c_str(), nullptr));
    const gint64 seconds = begin ? g_date_time_to_unix(begin.get()) : -1;
    if (seconds < 0 || seconds > G_MAXUINT32 - gint64{from1900To1970}) // NTP's seconds end in 2036
    {
        throw std::runtime_error("cannot replay from " + when + ": no time such as 20261120T100000Z, until 2036");
    }
    const auto unixTime = static_cast<uint32_t>(seconds);
    addMount(mounts, "/replay", replayPipeline(file, uint64_t{unixTime} + from1900To1970), makeReplayFactory(unixTime));
}

GstRTSPToken *makeToken()
{
    return gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, role, nullptr);
}

void requireUser(GstRTSPAuth *auth, const DeviceOptions &options)
{
    GstRTSPToken *token = makeToken();
    gst_rtsp_auth_set_realm(auth, "zr_rtsp_device");
    if (options.authentication == Authentication::Basic)
    {
        gchar *credentials = gst_rtsp_auth_make_basic(options.user.c_str(), options.password.c_str());
        gst_rtsp_auth_set_supported_methods(auth, GST_RTSP_AUTH_BASIC);
        gst_rtsp_auth_add_basic(auth, credentials, token);
        g_free(credentials);
    }
    else
    {
        gst_rtsp_auth_set_supported_methods(auth, GST_RTSP_AUTH_DIGEST);
        gst_rtsp_auth_add_digest(auth, options.user.c_str(), options.password.c_str(), token);
    }
    gst_rtsp_token_unref(token);
}

void admitEverybody(GstRTSPAuth *auth)
{
    GstRTSPToken *token = makeToken();
    gst_rtsp_auth_set_default_token(auth, token);
    gst_rtsp_token_unref(token);
}

void serveSecured(GstRTSPAuth *auth, const DeviceOptions &options)
{
    GError *raw = nullptr;
    const Owned<GTlsCertificate> certificate(
        g_tls_certificate_new_from_files(options.certificate.c_str(), options.key.c_str(), &raw));
    const Owned<GError> failed(raw);
    if (!certificate)
    {
        throw std::runtime_error("cannot serve TLS with " + options.certificate + " and " + options.key + ": " +
                                 (failed ? failed->message : "unknown error"));
    }
    gst_rtsp_auth_set_tls_certificate(auth, certificate.get());
}

void secure(GstRTSPServer *server, const DeviceOptions &options)
{
    if (options.user.empty() && options.certificate.empty())
    {
        return;
    }
    const Owned<GstRTSPAuth> auth(gst_rtsp_auth_new());
    if (options.user.empty())
    {
        admitEverybody(auth.get());
    }
    else
    {
        requireUser(auth.get(), options);
    }
    if (!options.certificate.empty())
    {
        serveSecured(auth.get(), options);
    }
    gst_rtsp_server_set_auth(server, auth.get());
}

// The library gives every new session 60 s; the answer to its SETUP, made after this, tells the client what holds.
void onNewSession(GstRTSPClient *, GstRTSPSession *session, gpointer user)
{
    gst_rtsp_session_set_timeout(session, static_cast<guint>(GPOINTER_TO_INT(user)));
}

void onClient(GstRTSPServer *, GstRTSPClient *client, gpointer user)
{
    g_signal_connect(client, "new-session", G_CALLBACK(onNewSession), user);
    keepFromSeeking(client);
    keepPlace(client);
}

gboolean endSilentSessions(gpointer pool)
{
    gst_rtsp_session_pool_cleanup(static_cast<GstRTSPSessionPool *>(pool));
    return G_SOURCE_CONTINUE;
}

gboolean onSignal(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
}

GstRTSPFilterResult removeClient(GstRTSPServer *, GstRTSPClient *, gpointer)
{
    return GST_RTSP_FILTER_REMOVE;
}

GstRTSPFilterResult removeSession(GstRTSPSessionPool *, GstRTSPSession *, gpointer)
{
    return GST_RTSP_FILTER_REMOVE;
}

} // namespace

struct Device::Parts
{
    explicit Parts(const DeviceOptions &chosen)
        : options(chosen)
        , recording(chosen.picture, chosen.recordingSeconds)
        , loop(g_main_loop_new(nullptr, FALSE))
        , server(chosen.replayFrom.empty() ? gst_rtsp_server_new() : makeReplayServer())
    {
    }

    DeviceOptions options;
    Recording recording;
    Owned<GMainLoop> loop;
    Owned<GstRTSPServer> server;
    Source listener;
    Source sessionWatch;
};

Device::Device(const DeviceOptions &options)
    : m_parts(std::make_unique<Parts>(options))
{
    GstRTSPServer *server = m_parts->server.get();
    gst_rtsp_server_set_address(server, options.address.c_str());
    gst_rtsp_server_set_service(server, std::to_string(options.port).c_str());
    secure(server, options);

    const Owned<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server));
    const std::string &recording = m_parts->recording.path();
    addLiveMount(mounts.get(), "/live", livePipeline(options.picture, true));
    addLiveMount(mounts.get(), "/video", livePipeline(options.picture, false));
    addSeekableMount(mounts.get(), "/vod", playbackPipeline(recording));
    if (!options.replayFrom.empty())
    {
        addReplayMount(mounts.get(), recording, options.replayFrom);
    }

    g_signal_connect(server, "client-connected", G_CALLBACK(onClient), GINT_TO_POINTER(options.sessionTimeout));
    const Owned<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(server));
    // the pool's own watch sleeps through sessions that clients' threads make
    m_parts->sessionWatch.attach(g_timeout_source_new_seconds(1), endSilentSessions, sessions.get());

    GError *raw = nullptr;
    GSource *listener = gst_rtsp_server_create_source(server, nullptr, &raw);
    const Owned<GError> failed(raw);
    if (listener == nullptr)
    {
        throw std::runtime_error("cannot listen on " + options.address + ":" + std::to_string(options.port) + ": " +
                                 (failed ? failed->message : "unknown error"));
    }
    m_parts->listener.attach(listener);
}

Device::~Device() = default;

std::vector<std::string> Device::urls() const
{
    const std::string scheme = m_parts->options.certificate.empty() ? "rtsp://" : "rtsps://";
    const std::string base =
        scheme + m_parts->options.address + ":" + std::to_string(gst_rtsp_server_get_bound_port(m_parts->server.get()));
    std::vector<std::string> urls = {base + "/live", base + "/video", base + "/vod"};
    if (!m_parts->options.replayFrom.empty())
    {
        urls.push_back(base + "/replay");
    }
    return urls;
}

void Device::run()
{
    GMainLoop *loop = m_parts->loop.get();
    Source interrupt;
    Source terminate;
    interrupt.attach(g_unix_signal_source_new(SIGINT), onSignal, loop);
    terminate.attach(g_unix_signal_source_new(SIGTERM), onSignal, loop);
    g_main_loop_run(loop);

    gst_rtsp_server_client_filter(m_parts->server.get(), removeClient, nullptr);
    const Owned<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(m_parts->server.get()));
    gst_rtsp_session_pool_filter(sessions.get(), removeSession, nullptr);
}

} // namespace zr::device
