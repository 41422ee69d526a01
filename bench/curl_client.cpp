// Sessions through libcurl's easy interface, one handle each, whose calls block.

#include <stdexcept>
#include <utility>

#include <curl/curl.h>

#include "client_program.h"
#include "rtsp_text.h"

namespace {

using client::Options;

class Session : public client::ClientSession
{
public:
    explicit Session(const Options &options)
        : m_options(options)
        , m_url(options.url())
        , m_curl(curl_easy_init())
    {
        if (m_curl == nullptr)
            throw std::runtime_error("curl_easy_init failed");
        set(CURLOPT_URL, m_url.c_str());
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_TIMEOUT, 25L);
        set(CURLOPT_WRITEFUNCTION, keepBody);
        set(CURLOPT_WRITEDATA, this);
        if (m_options.user.empty())
            return;
        set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_DIGEST));
        set(CURLOPT_USERNAME, m_options.user.c_str());
        set(CURLOPT_PASSWORD, m_options.password.c_str());
    }
    ~Session() override { curl_easy_cleanup(m_curl); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void open() override
    {
        ask(CURL_RTSPREQ_DESCRIBE, m_url);
        const std::string sdp = std::exchange(m_body, {});
        for (unsigned track = 0; track < m_options.setups; ++track)
        {
            const std::string transport =
                "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * track) + '-' + std::to_string(2 * track + 1);
            set(CURLOPT_RTSP_TRANSPORT, transport.c_str());
            ask(CURL_RTSPREQ_SETUP, text::controlUrl(sdp, m_url, track));
        }
        play();
    }
    void pause() override { ask(CURL_RTSPREQ_PAUSE, m_url); }
    void play() override
    {
        set(CURLOPT_RANGE, "npt=0.000-");
        ask(CURL_RTSPREQ_PLAY, m_url);
        set(CURLOPT_RANGE, static_cast<const char *>(nullptr));
    }
    void end() override { ask(CURL_RTSPREQ_TEARDOWN, m_url); }
    void keepAlive() override
    {
        ask(CURL_RTSPREQ_OPTIONS, m_url);
        m_keptAlive = true;
    }
    bool keptAlive() override { return std::exchange(m_keptAlive, false); }

private:
    static void require(CURLcode code)
    {
        if (code != CURLE_OK)
            throw std::runtime_error(curl_easy_strerror(code));
    }
    template <typename Value>
    void set(CURLoption option, Value value)
    {
        require(curl_easy_setopt(m_curl, option, value));
    }
    void ask(long request, const std::string &url)
    {
        set(CURLOPT_RTSP_REQUEST, request);
        set(CURLOPT_RTSP_STREAM_URI, url.c_str());
        require(curl_easy_perform(m_curl));
        long status = 0;
        require(curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status));
        if (status != 200)
            throw std::runtime_error("refused with " + std::to_string(status));
    }
    static size_t keepBody(const char *data, size_t one, size_t count, void *session)
    {
        static_cast<Session *>(session)->m_body.append(data, one * count);
        return one * count;
    }

    const Options &m_options;
    const std::string m_url;
    CURL *const m_curl;
    std::string m_body;
    bool m_keptAlive = false;
};

class Library : public client::LibraryOf<Session>
{
public:
    explicit Library(const Options &options)
        : LibraryOf(options)
    {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
            throw std::runtime_error("curl_global_init failed");
    }
    ~Library() override { curl_global_cleanup(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

} // namespace

int main(int argc, char **argv)
{
    client::Program program;
    program.name = "libcurl";
    program.about = "Sessions with an RTSP server on 127.0.0.1 through libcurl.\n";
    program.start = [](const Options &options) { return std::make_unique<Library>(options); };
    return client::run(argc, argv, program);
}
