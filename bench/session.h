/// @file
/// What the programs that drive sessions share: a media port and the object that drives its session, made and deleted
/// together.
#pragma once

#include <atomic>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "zr_platform.h"
#include "zr_rtsp/zr_rtsp.h"

namespace bench {

/// Where they play from; the command line's three arguments.
struct Source
{
    std::string host;
    ZR_USHORT port;
    std::string path;

    static Source fromArguments(char **argv) { return {argv[1], static_cast<ZR_USHORT>(std::stoul(argv[2])), argv[3]}; }
    std::string url() const { return "rtsp://" + host + ":" + std::to_string(port) + path; }
};

/// The plug-in, from init to destroy.
class Library
{
public:
    Library() { require("starting the library", init(0, 0, nullptr, nullptr)); }
    ~Library() { destroy(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    static void require(const std::string &step, ZR_ULONG result)
    {
        if (result != 0)
            throw std::runtime_error(step + " failed with " + std::to_string(result));
    }
};

/// Runs a program's work while the library is there.
/// @return the exit code
template <typename Work>
int run(Work &&work)
{
    try
    {
        const Library library;
        work();
        return 0;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "%s\n", failed.what());
        return 1;
    }
}

class Session
{
public:
    /// Whether what plays is received, or only controlled; interleaved media of one that only controls is passed over.
    enum class Media
    {
        Received,
        None
    };

    /// @param observer  told of the session's end; NULL: nobody
    Session(Source source, const std::string &localAddress, CIMediaCtrlObserver *observer = nullptr,
            Media media = Media::Received)
        : m_source(std::move(source))
        , m_observer(observer)
        , m_media(media)
    {
        ZR_USHORT localPort = 0;
        if (m_media == Media::Received) // before the object is made
            Library::require("opening a media port", ZR_MediaPortOpen(m_id, m_id, localAddress.c_str(), &localPort));
        m_control = createMediaCtrlInter(m_id, "bench-" + std::to_string(m_id), m_source.host, localAddress, localPort,
                                         m_source.host, m_source.port, m_id);
        m_control->setDecoderDesc("onvif");
        if (m_observer != nullptr)
            m_control->attachObserver(m_observer);
    }

    ~Session()
    {
        if (m_observer != nullptr)
            m_control->detachObserver(m_observer);
        deleteMediaCtrlInter(&m_control); // which tears the session down where that was not done
        if (m_media == Media::Received)
            ZR_MediaPortClose(m_id); // after the object is gone
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /// Describes the source and sets its video up.
    /// @param downloadSpeed  a download code 0 to 3 that SETUP is to carry, negative: none
    void setUp(tagProtocol protocol, int downloadSpeed = -1)
    {
        Library::require("describe", m_control->describe(m_source.url()));
        CMediaAbility ability;
        m_control->getMediaAbility(ability);
        if (m_media == Media::Received)
            ZR_MediaPortSetDescription(m_id, ability.getDescribeRspSdp().c_str());
        const std::string video = ability.getOnvifInfo().m_strVideoControl;
        Library::require("setup", downloadSpeed < 0 ? m_control->setup(video, protocol)
                                                    : extended<CIMediaCtrlEx2>().setup(
                                                          video, protocol, static_cast<ZR_ULONG>(downloadSpeed), 1));
    }

    CIMediaCtrl &control() { return *m_control; }
    /// The object as CIMediaCtrlEx or CIMediaCtrlEx2: it is all three.
    template <typename Interface>
    Interface &extended()
    {
        return dynamic_cast<Interface &>(*m_control);
    }

    ZR_ULONG portId() const { return m_id; }
    std::string url() const { return m_source.url(); }
    ZrMediaStatistics statistics() const
    {
        ZrMediaStatistics received = {};
        ZR_MediaPortStatistics(m_id, &received);
        return received;
    }

private:
    static ZR_ULONG nextId()
    {
        static std::atomic<ZR_ULONG> last{0};
        return ++last;
    }

    const Source m_source;
    const ZR_ULONG m_id = nextId();
    CIMediaCtrl *m_control = nullptr;
    CIMediaCtrlObserver *const m_observer;
    const Media m_media;
};

} // namespace bench
