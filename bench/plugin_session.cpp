#include "plugin_session.h"

#include "rtsp_text.h"

namespace client {

namespace {

constexpr char loopback[] = "127.0.0.1";

/// The plug-in knows credentials by the tail of a URL.
bench::Source sourceOf(const Options &options, const std::string &path, bool tail)
{
    const std::string credentials = "?auth&username=" + options.user + "&password=" + options.password + "&";
    return {loopback, options.port, options.user.empty() || !tail ? path : path + credentials};
}

} // namespace

PluginSession::PluginSession(const Options &options, const std::string &path, bool receives, unsigned keepAliveMs)
    : m_options(options)
    , m_keepAliveMs(keepAliveMs)
    , m_session(sourceOf(options, path, keepAliveMs == 0), loopback, this,
                receives || options.udp ? bench::Session::Media::Received : bench::Session::Media::None)
    , m_extended(&m_session.extended<CIMediaCtrlEx>())
{
}

void PluginSession::open()
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
        bench::Library::require("setup of the second track", m_session.control().setup(audio, protocol));
    }
    play();
}

/// The controls of a session that is not "onvif" are the host's to read.
void PluginSession::setUpByDescription()
{
    CIMediaCtrl &control = m_session.control();
    control.setDecoderDesc("plain");
    if (!m_options.user.empty())
        bench::Library::require("setting credentials",
                                ZR_SessionSetCredentials(m_session.portId(), m_options.user.c_str(),
                                                         m_options.password.c_str(), ZR_CREDENTIALS_BASIC_IN_CLEAR));
    m_session.extended<CIMediaCtrlEx2>().setKeepLiveInterval(m_keepAliveMs);
    bench::Library::require("describe", control.describe(m_session.url()));
    CMediaAbility ability;
    const std::string sdp = control.getMediaAbility(ability).getDescribeRspSdp();
    for (unsigned track = 0; track < m_options.setups; ++track)
        bench::Library::require("setup", control.setup(text::controlUrl(sdp, m_session.url(), track),
                                                       m_options.udp ? PROTOCOL_UDP : PROTOCOL_TCP));
}

void PluginSession::end()
{
    if (m_notice != 0)
        throw std::runtime_error("lost, notice " + std::to_string(m_notice));
    m_session.control().tearDown();
}

bool PluginSession::keptAlive()
{
    std::string position = m_extended->getRange();
    if (position == m_position)
        return false;
    m_position = std::move(position);
    return true;
}

} // namespace client
