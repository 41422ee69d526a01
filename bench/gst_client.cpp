// Sessions through GStreamer's RTSP connection, whose calls block. Its own helpers make requests, CSeq, Session and
// Authorization.

#include <stdexcept>
#include <utility>

#include <gst/gst.h>
#include <gst/rtsp/rtsp.h>

#include "client_program.h"
#include "rtsp_text.h"

namespace {

using client::Options;

constexpr gint64 timeoutUs = 25'000'000;

void require(const char *what, GstRTSPResult result)
{
    if (result != GST_RTSP_OK)
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(result));
}

void require(GstRTSPStatusCode status)
{
    if (status != GST_RTSP_STS_OK)
        throw std::runtime_error("refused with " + std::to_string(status));
}

struct Message : GstRTSPMessage
{
    Message()
        : GstRTSPMessage{}
    {
    }
    ~Message() { gst_rtsp_message_unset(this); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
};

class Session : public client::ClientSession
{
public:
    explicit Session(const Options &options)
        : m_options(options)
        , m_url(options.url())
    {
        GstRTSPUrl *url = nullptr;
        require("gst_rtsp_url_parse", gst_rtsp_url_parse(m_url.c_str(), &url));
        const GstRTSPResult created = gst_rtsp_connection_create(url, &m_connection);
        gst_rtsp_url_free(url);
        require("gst_rtsp_connection_create", created);
    }
    ~Session() override { gst_rtsp_connection_free(m_connection); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void open() override
    {
        require("gst_rtsp_connection_connect", gst_rtsp_connection_connect_usec(m_connection, timeoutUs));
        Message described;
        const auto describe = [&] {
            return ask(GST_RTSP_DESCRIBE, m_url, GST_RTSP_HDR_ACCEPT, "application/sdp", described);
        };
        GstRTSPStatusCode status = describe();
        if (status == GST_RTSP_STS_UNAUTHORIZED && !m_options.user.empty())
        {
            takeChallenge(described);
            status = describe();
        }
        require(status);
        guint8 *body = nullptr;
        guint size = 0;
        require("gst_rtsp_message_get_body", gst_rtsp_message_get_body(&described, &body, &size));
        const std::string_view sdp(reinterpret_cast<const char *>(body), size);
        for (unsigned track = 0; track < m_options.setups; ++track)
        {
            const std::string transport =
                "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * track) + '-' + std::to_string(2 * track + 1);
            ask(GST_RTSP_SETUP, text::controlUrl(sdp, m_url, track), GST_RTSP_HDR_TRANSPORT, transport.c_str());
        }
        play();
    }
    void pause() override { ask(GST_RTSP_PAUSE, m_url); }
    void play() override { ask(GST_RTSP_PLAY, m_url, GST_RTSP_HDR_RANGE, "npt=0.000-"); }
    void end() override
    {
        ask(GST_RTSP_TEARDOWN, m_url);
        gst_rtsp_connection_close(m_connection);
    }
    void keepAlive() override
    {
        ask(GST_RTSP_OPTIONS, m_url);
        m_keptAlive = true;
    }
    bool keptAlive() override { return std::exchange(m_keptAlive, false); }

private:
    GstRTSPStatusCode ask(GstRTSPMethod method, const std::string &url, GstRTSPHeaderField header, const char *value,
                          Message &response)
    {
        Message request;
        require("a request", gst_rtsp_message_init_request(&request, method, url.c_str()));
        if (value != nullptr)
            gst_rtsp_message_add_header(&request, header, value);
        require("sending", gst_rtsp_connection_send_usec(m_connection, &request, timeoutUs));
        gst_rtsp_message_unset(&response);
        require("receiving", gst_rtsp_connection_receive_usec(m_connection, &response, timeoutUs));
        GstRTSPStatusCode status = GST_RTSP_STS_INVALID;
        require("an answer", gst_rtsp_message_parse_response(&response, &status, nullptr, nullptr));
        return status;
    }
    void ask(GstRTSPMethod method, const std::string &url, GstRTSPHeaderField header = GST_RTSP_HDR_INVALID,
             const char *value = nullptr)
    {
        Message response;
        require(ask(method, url, header, value, response));
    }

    void takeChallenge(const Message &response)
    {
        require("gst_rtsp_connection_set_auth",
                gst_rtsp_connection_set_auth(m_connection, GST_RTSP_AUTH_DIGEST, m_options.user.c_str(),
                                             m_options.password.c_str()));
        GstRTSPAuthCredential **all =
            gst_rtsp_message_parse_auth_credentials(const_cast<Message *>(&response), GST_RTSP_HDR_WWW_AUTHENTICATE);
        for (GstRTSPAuthCredential **one = all; one != nullptr && *one != nullptr; ++one)
        {
            for (GstRTSPAuthParam **param = (*one)->params; param != nullptr && *param != nullptr; ++param)
                gst_rtsp_connection_set_auth_param(m_connection, (*param)->name, (*param)->value);
        }
        gst_rtsp_auth_credentials_free(all);
    }

    const Options &m_options;
    const std::string m_url;
    GstRTSPConnection *m_connection = nullptr;
    bool m_keptAlive = false;
};

class Library : public client::LibraryOf<Session>
{
public:
    explicit Library(const Options &options)
        : LibraryOf(options)
    {
        gst_init(nullptr, nullptr);
    }
};

} // namespace

int main(int argc, char **argv)
{
    client::Program program;
    program.name = "gstrtsp";
    program.about = "Sessions with an RTSP server on 127.0.0.1 through GStreamer's GstRTSPConnection.\n";
    program.start = [](const Options &options) { return std::make_unique<Library>(options); };
    return client::run(argc, argv, program);
}
