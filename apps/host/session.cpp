#include "session.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include <strings.h>
#include <unistd.h>

#include "addresses.h"
#include "failure.h"

namespace zr::host {
namespace {

constexpr ZR_ULONG unauthorized = 401;
constexpr std::chrono::seconds answerWithin{25}; // the plug-in's

ZR_ULONG nextId()
{
    static std::atomic<ZR_ULONG> last{0};
    return ++last;
}

} // namespace

Session::Session(Plugin &plugin, const Source &source, Mailbox &mailbox)
    : m_plugin(plugin)
    , m_source(source)
    , m_mailbox(mailbox)
    , m_id(nextId())
{
    const std::string local = localAddressTowards(source.url.host, source.url.port, mailbox.interrupt());
    ZR_USHORT port = 0;
    const ZR_ULONG opened = ZR_MediaPortOpen(m_id, m_id, local.c_str(), &port);
    if (opened != 0)
    {
        throw requestFailed("opening a media port on " + local, opened);
    }
    try
    {
        make(local, port);
    }
    catch (...)
    {
        close();
        throw;
    }
}

void Session::make(const std::string &local, ZR_USHORT port)
{
    const Url &url = m_source.url;
    const std::string agent = "zr_rtsp_host-" + std::to_string(getpid()) + "-" + std::to_string(m_id);
    m_control =
        m_plugin.create(m_id, agent, url.host + ":" + std::to_string(url.port), local, port, url.host, url.port, m_id);
    m_controlEx = dynamic_cast<CIMediaCtrlEx *>(m_control);
    m_controlEx2 = dynamic_cast<CIMediaCtrlEx2 *>(m_control);
    if (m_controlEx == nullptr || m_controlEx2 == nullptr)
    {
        throw Failure(ExitCode::Internal, "creating the session", 0, "the plug-in gave no object");
    }
    m_control->setDecoderDesc(m_source.tag);
    if (m_source.tunnelled() && ZR_SessionSetTunnel(m_id, m_source.tunnel, url.port) != 0)
    {
        throw Failure(ExitCode::Internal, "creating the session", 0, "it cannot be tunnelled");
    }
    handOverCredentials();
    m_control->attachObserver(this);
}

void Session::handOverCredentials()
{
    const Credentials &given = m_source.credentials;
    if (given.user.empty())
    {
        return;
    }
    const ZR_ULONG result =
        ZR_SessionSetCredentials(m_id, given.user.c_str(), given.password.c_str(), ZR_CREDENTIALS_BASIC_IN_CLEAR);
    if (result == ZR_SESSION_INVALID && onvif())
    {
        return; // the plug-in has them with the URL, and answers to the description's challenge
    }
    if (result == ZR_SESSION_INVALID)
    {
        throw wrongUsage("the user name or the password cannot be handed over: a colon in the user name, or more than "
                         "255 bytes");
    }
    if (result != 0)
    {
        throw requestFailed("handing over the credentials", result);
    }
    m_handedOver = true;
}

void Session::close()
{
    if (m_control != nullptr)
    {
        m_plugin.remove(&m_control); // which ends the session if it still runs
    }
    ZR_MediaPortClose(m_id);
}

Session::~Session()
{
    m_control->detachObserver(this);
    close();
}

ZR_ULONG Session::getObserverID()
{
    return m_id;
}

void Session::notify(ZR_ULONG *code, uintptr_t)
{
    m_mailbox.post(*code);
}

CMediaAbility Session::ability() const
{
    CMediaAbility copy;
    m_control->getMediaAbility(copy);
    return copy;
}

bool Session::onvif() const
{
    return ability().isOnvif() == 1;
}

ZR_ULONG Session::request(const std::string &what, const std::function<ZR_ULONG()> &call)
{
    const Interrupt::Wait wait(m_mailbox.interrupt(), "the answer to " + what, answerWithin,
                               [this] { ZR_SessionGiveUp(m_id); });
    const ZR_ULONG result = call();
    m_waited = wait.sinceBegin();
    return result;
}

Failure Session::failed(const std::string &step, ZR_ULONG result) const
{
    const Interrupt &interrupt = m_mailbox.interrupt();
    if (interrupt.asked())
    {
        return interrupt.failure(step, "interrupted before the server answered");
    }
    char text[400] = "";
    const ZR_ULONG status = ZR_RequestRefusal(m_id, text, sizeof text);
    if (status == unauthorized && m_handedOver)
    {
        return credentialsRefused(step, text);
    }
    if (status != 0) // whatever became of the connection, it was answered
    {
        return requestFailed(step, status, text);
    }
    const ZR_ULONG problem = ZR_ConnectionProblem(m_id, text, sizeof text);
    if (problem == ZR_CONNECTION_NONE && m_waited > answerWithin - std::chrono::seconds(1))
    {
        return notAnswered(step, result, answerWithin, !m_description.tracks.empty(), m_source.tunnelled());
    }
    return problem == ZR_CONNECTION_NONE ? requestFailed(step, result)
                                         : connectionFailed(step, result, problem, text, m_played);
}

Failure Session::credentialsRefused(const std::string &step, const std::string &text) const
{
    const bool none = m_source.credentials.password.empty();
    return {ExitCode::Credentials, step, unauthorized,
            none ? "the server refused the user name, which no password was given with" : text,
            none ? "give one: --password-file FILE, or ZR_RTSP_PASSWORD in the environment"
                 : "check --user and --password"};
}

bool Session::unexplained() const
{
    return ZR_RequestRefusal(m_id, nullptr, 0) == 0 && ZR_ConnectionProblem(m_id, nullptr, 0) == ZR_CONNECTION_NONE;
}

bool Session::authenticated() const
{
    return !ability().getOnvifInfo().m_strDescribeAuth.empty();
}

void Session::check(const std::string &step, ZR_ULONG result) const
{
    if (result != 0)
    {
        throw failed(step, result);
    }
}

void Session::throwDescribeFailed(ZR_ULONG result) const
{
    const bool challenged =
        result == ZR_RTSP_INVALID_PARAMETER && authenticated() && ability().getDescribeRspSdp().empty();
    if (challenged && m_source.credentials.user.empty())
    {
        throw requestFailed("describe", unauthorized);
    }
    if (challenged)
    {
        throw credentialsRefused("describe", "the server refused the user name or the password");
    }
    if (result == ZR_RTSP_INVALID_PARAMETER)
    {
        throw Failure(ExitCode::Refused, "describe", result, "the description names no video",
                      "try another URL of the device, or --tag plain for a source without video");
    }
    throw failed("describe", result);
}

const Description &Session::describe()
{
    // what the platform has the plug-in need not know: it would answer to whomever the session is redirected to
    const std::string url = urlForDescribe(m_source.url.text, m_handedOver ? Credentials() : m_source.credentials);
    const ZR_ULONG result = request("describe", [&] { return m_control->describe(url); });
    if (result != 0)
    {
        throwDescribeFailed(result);
    }
    const std::string sdp = ability().getDescribeRspSdp();
    m_description = parseDescription(sdp);
    if (ZR_MediaPortSetDescription(m_id, sdp.c_str()) != 0)
    {
        throw Failure(ExitCode::Refused, "describe", 0, "the description names no track that is understood here",
                      "zr_rtsp_host describe shows what there is");
    }
    return m_description;
}

std::string Session::sdp() const
{
    std::string bytes(ZR_SessionDescription(m_id, nullptr, 0), '\0');
    ZR_SessionDescription(m_id, bytes.data(), static_cast<ZR_ULONG>(bytes.size()));
    return bytes;
}

ZrSessionFacts Session::facts() const
{
    ZrSessionFacts now{};
    ZR_SessionFacts(m_id, &now);
    return now;
}

std::optional<ZrSessionFacts> Session::ask(std::chrono::milliseconds longest, const std::string &required) const
{
    constexpr std::chrono::milliseconds pollEvery{10};
    const Interrupt &interrupt = m_mailbox.interrupt();
    const ZR_ULONG before = facts().ulChecksAnswered;
    const auto end = std::chrono::steady_clock::now() + longest;
    std::optional<ZrSessionFacts> answered;
    if (!required.empty())
    {
        ZR_SessionSetHeader(m_id, nullptr, "Require", required.c_str());
    }
    ZR_SessionCheck(m_id);
    while (!answered && std::chrono::steady_clock::now() < end)
    {
        const ZrSessionFacts now = facts();
        if (now.ulChecksAnswered != before)
        {
            answered = now;
        }
        else if (!interrupt.sleep(pollEvery))
        {
            break;
        }
    }
    if (!required.empty())
    {
        ZR_SessionSetHeader(m_id, nullptr, "Require", nullptr);
    }
    return answered;
}

std::vector<TrackUrl> Session::tracks(bool metadata) const
{
    const COnvifInfo info = ability().getOnvifInfo();
    std::vector<TrackUrl> found;
    for (const auto &[media, control] :
         {std::pair("video", info.m_strVideoControl), std::pair("audio", info.m_strAudioControl)})
    {
        const Track *track = m_description.first(media);
        if (track != nullptr)
        {
            found.push_back({media, onvif() ? control : controlUrl(m_source.url.text, track->control)});
        }
    }
    // the plug-in knows what its two tracks' URLs are relative to
    const Track *const video = m_description.first("video");
    const size_t own = video != nullptr ? video->control.size() : 0;
    const std::string base =
        info.m_strVideoControl.substr(0, info.m_strVideoControl.size() - std::min(own, info.m_strVideoControl.size()));
    for (const Track &track : m_description.tracks)
    {
        // compressed it has another name; names have no case (RFC 4855, 3)
        if (metadata && track.media == "application" && strcasecmp(track.codec.c_str(), "vnd.onvif.metadata") == 0)
        {
            found.push_back({"metadata", controlUrl(onvif() ? base : m_source.url.text, track.control)});
            break;
        }
    }
    return found;
}

void Session::askForMulticast()
{
    CMediaAbility changed = ability();
    COnvifInfo info = changed.getOnvifInfo();
    info.m_enBroadcastMethod = BROADCASTMETHOD_MULTICAST;
    changed.setOnvifInfo(info);
    m_control->setMediaAbility(changed);
}

void Session::setUp(const TrackUrl &track, tagProtocol protocol, const Playback &playback)
{
    const std::string url = urlForSetup(track.url);
    const auto &download = playback.download;
    const std::string what = "setup of " + track.media;
    check(what, request(what, [&] {
              return download ? m_controlEx2->setup(url, protocol, download->code, download->fullFrame ? 1 : 0)
                              : m_control->setup(url, protocol);
          }));
}

void Session::play(const Playback &playback)
{
    // without a start no Range goes out at all
    const std::string from = playback.from.empty() && !playback.to.empty() ? "0" : playback.from;
    if (const auto &download = playback.download)
    {
        check("download", request("play", [&] {
                  return m_controlEx->download(from, playback.to, download->code, download->fullFrame ? 1 : 0);
              }));
        m_played = true;
        return;
    }
    // only dragPlay sends an ONVIF source its Scale whether or not it authenticates
    const ZR_ULONG result = request("play", [&] {
        return playback.speedCode ? m_controlEx->dragPlay(from, playback.to, *playback.speedCode)
                                  : m_control->play(from, playback.to);
    });
    // the media port's answer to what the plug-in hands to it in front of the request
    if (result == ZR_MEDIA_INVALID && unexplained())
    {
        throw Failure(ExitCode::Refused, "play", result,
                      "the stream's description cannot be used: a codec's name or parameters in it are no plain text",
                      "describe with --sdp shows it; --tag plain goes without these");
    }
    check("play", result);
    m_played = true;
}

void Session::pause()
{
    check("pause", request("pause", [this] { return m_controlEx->pause(); }));
}

void Session::seek(const Playback &playback)
{
    constexpr ZR_ULONG normalSpeed = 11;
    check("seeking", request("play", [&] {
              return m_controlEx->dragPlay(playback.from, playback.to, playback.speedCode.value_or(normalSpeed));
          }));
}

void Session::setUpToTv(tagProtocol protocol, const tagTransportAddr &wall)
{
    const ZR_ULONG result = request("setup to the wall", [&] { return m_control->setupToTV(protocol, wall); });
    // the code for "none offered" and for "no answer" is one, and neither leaves another trace: only the latter takes
    // its time
    constexpr std::chrono::seconds offersNone{20};
    if (result == ZR_RTSP_SETUP_FAILED && unexplained() && m_waited < offersNone)
    {
        throw Failure(ExitCode::Refused, "setting up the relation", result,
                      "the server offers no relation to a TV wall: its description names no Content-Location",
                      "it takes a server that relays, such as a platform's media server");
    }
    check("setting up the relation", result);
}

void Session::tearDownToTv()
{
    m_control->teardownToTV();
}

void Session::end()
{
    m_control->tearDown();
}

void Session::replay(const ZrOnvifReplay &how)
{
    const ZR_ULONG result = ZR_SessionSetReplay(m_id, &how);
    if (result != 0)
    {
        throw requestFailed("asking for the replay", result);
    }
}

std::optional<ZrReplayFacts> Session::replayed() const
{
    ZrReplayFacts told{};
    return ZR_MediaPortReplay(m_id, &told) == 0 ? std::optional<ZrReplayFacts>(told) : std::nullopt;
}

} // namespace zr::host
