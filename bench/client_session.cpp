#include "client_session.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace client {

namespace {

constexpr char loopback[] = "127.0.0.1";

double microseconds(const timeval &from, const timeval &to)
{
    return static_cast<double>(to.tv_sec - from.tv_sec) * 1e6 + static_cast<double>(to.tv_usec - from.tv_usec);
}

/// The plug-in knows credentials by the tail of a URL.
example::Source sourceOf(const Options &options, const std::string &path, bool tail)
{
    const std::string credentials = "?auth&username=" + options.user + "&password=" + options.password + "&";
    return {loopback, options.port, options.user.empty() || !tail ? path : path + credentials};
}

} // namespace

void Failures::print() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto &[what, times] : m_times)
        std::fprintf(stderr, "session_client: %lu times: %s\n", times, what.c_str());
}

Meter::Spent Meter::spent() const
{
    rusage now{};
    getrusage(RUSAGE_SELF, &now);
    return {std::chrono::duration<double>(Clock::now() - m_since).count(), microseconds(m_begin.ru_utime, now.ru_utime),
            microseconds(m_begin.ru_stime, now.ru_stime)};
}

long ofProcess(const std::string &key)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.compare(0, key.size(), key) == 0)
            return std::strtol(line.c_str() + key.size(), nullptr, 10);
    }
    return 0;
}

Session::Session(const Options &options, const std::string &path, bool receives, unsigned keepAliveMs)
    : m_options(options)
    , m_keepAliveMs(keepAliveMs)
    , m_session(sourceOf(options, path, keepAliveMs == 0), loopback, this,
                receives || options.udp ? example::Session::Media::Received : example::Session::Media::None)
{
}

void Session::open()
{
    const tagProtocol protocol = m_options.udp ? PROTOCOL_UDP : PROTOCOL_TCP;
    if (m_keepAliveMs != 0)
        setUpByDescription();
    else
        m_session.setUp(protocol);
    if (m_keepAliveMs == 0 && m_options.setups == 2)
    {
        CMediaAbility ability;
        const std::string audio = m_session.control().getMediaAbility(ability).getOnvifInfo().m_strAudioControl;
        example::Library::require("setup of the second track", m_session.control().setup(audio, protocol));
    }
    play();
    m_lastHeard = Clock::now();
}

/// The controls of a session that is not "onvif" are the host's to read.
void Session::setUpByDescription()
{
    CIMediaCtrl &control = m_session.control();
    control.setDecoderDesc("plain");
    if (!m_options.user.empty())
        example::Library::require("setting credentials",
                                  ZR_SessionSetCredentials(m_session.portId(), m_options.user.c_str(),
                                                           m_options.password.c_str(), ZR_CREDENTIALS_BASIC_IN_CLEAR));
    m_session.extended<CIMediaCtrlEx2>().setKeepLiveInterval(m_keepAliveMs);
    example::Library::require("describe", control.describe(m_session.url()));
    CMediaAbility ability;
    const std::string sdp = control.getMediaAbility(ability).getDescribeRspSdp();
    size_t at = 0;
    for (unsigned i = 0; i < m_options.setups; ++i)
    {
        constexpr char key[] = "a=control:";
        at = sdp.find("m=", at);
        at = at == std::string::npos ? at : sdp.find(key, at);
        if (at == std::string::npos)
            throw std::runtime_error("the description names too few tracks");
        at += sizeof key - 1;
        const std::string track = sdp.substr(at, sdp.find_first_of("\r\n", at) - at);
        const std::string url = track.find("://") != std::string::npos ? track : m_session.url() + '/' + track;
        example::Library::require("setup", control.setup(url, m_options.udp ? PROTOCOL_UDP : PROTOCOL_TCP));
    }
}

void Session::end()
{
    if (lost())
        throw std::runtime_error("lost, notice " + std::to_string(m_notice));
    m_session.control().tearDown();
}

bool Session::keptAlive()
{
    std::string position = m_session.extended<CIMediaCtrlEx>().getRange();
    if (position == m_position)
        return false;
    m_position = std::move(position);
    m_lastHeard = Clock::now();
    return true;
}

} // namespace client
