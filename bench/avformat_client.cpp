// Sessions through libavformat's demuxer, which sends OPTIONS before DESCRIBE, and keep-alives only while it reads.

#include <stdexcept>

extern "C"
{
#include <libavformat/avformat.h>
}

#include "client_program.h"

namespace {

using client::Options;

void require(const char *what, int result)
{
    if (result < 0)
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(result));
}

class Session : public client::ClientSession
{
public:
    explicit Session(const Options &options)
        : m_options(options)
    {
    }
    ~Session() override { avformat_close_input(&m_context); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    void open() override
    {
        std::string url = m_options.url();
        if (!m_options.user.empty())
            url.insert(url.find("//") + 2, m_options.user + ':' + m_options.password + '@');
        AVDictionary *wishes = nullptr;
        av_dict_set(&wishes, "rtsp_transport", "tcp", 0);
        av_dict_set(&wishes, "allowed_media_types", m_options.setups == 1 ? "video" : "video+audio", 0);
        const int opened = avformat_open_input(&m_context, url.c_str(), nullptr, &wishes);
        av_dict_free(&wishes);
        require("avformat_open_input", opened);
    }
    void pause() override { require("av_read_pause", av_read_pause(m_context)); }
    void play() override { require("av_read_play", av_read_play(m_context)); }
    void end() override { avformat_close_input(&m_context); }

private:
    const Options &m_options;
    AVFormatContext *m_context = nullptr;
};

class Library : public client::LibraryOf<Session>
{
public:
    explicit Library(const Options &options)
        : LibraryOf(options)
    {
        av_log_set_level(AV_LOG_ERROR);
        avformat_network_init();
    }
    ~Library() override { avformat_network_deinit(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

} // namespace

int main(int argc, char **argv)
{
    client::Program program;
    program.name = "libavformat";
    program.about =
        "Sessions with an RTSP server on 127.0.0.1 through libavformat. It keeps nothing alive by itself.\n";
    program.start = [](const Options &options) { return std::make_unique<Library>(options); };
    program.keepAlives = client::KeepAlives::None;
    return client::run(argc, argv, program);
}
