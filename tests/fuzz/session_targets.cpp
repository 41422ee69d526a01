// What answers of the far side, and URLs of the host, do to a session: the platform's mapping and messages, and the
// plug-in's object, whose requests go to a dispatcher that writes them, reads them again and refuses them.
#include <map>

#include "fuzz.h"
#include "mapping_parts.h"
#include "message_buffer.h"
#include "rtsp_impl.h"
#include "rtsp_mediactrl.h"

using namespace zr;
using Event = rtsp::Parser::Event;

struct CRtspMediaCtrlProbe
{
    static void setState(CRtspMediaCtrl &ctrl, ZR_ULONG state) { ctrl.m_ulState = state; }
    static void wantMulticast(CRtspMediaCtrl &ctrl)
    {
        COnvifInfo oInfo = ctrl.m_oMediaAbility.getOnvifInfo();
        oInfo.m_enBroadcastMethod = BROADCASTMETHOD_MULTICAST;
        ctrl.m_oMediaAbility.setOnvifInfo(oInfo);
    }
};

static bool isClean(const std::string &url)
{
    const auto parsed = dispatch::parseUrl(url);
    return parsed && parsed->withoutCredentials == url;
}

struct Session final : CIAOIMsgDisp
{
    explicit Session(const std::string &tag)
    {
        g_pAOIMsgDispInter = this;
        ctrl = std::make_unique<CRtspMediaCtrl>(5, "src", "dst", "127.0.0.1", 6000, "10.0.0.9", 8554, 77);
        ctrl->setDecoderDesc(tag);
    }
    ~Session() { ctrl.reset(); }

    /// Hands the object a message as if it waited for it.
    ZR_ULONG deliver(const aoi::MessagePtr &message)
    {
        const ZR_ULONG id = message->stHeader.ulMsgID;
        CRtspMediaCtrlProbe::setState(*ctrl, id == AOI_MSG_RTSP_SETUP ? 1 : id == AOI_MSG_RTSP_PLAY ? 4 : 10);
        return ctrl->AOIMsgPro(message.get());
    }

    /// Takes a message of the far side: an answer to what was sent, or a request of its own.
    void take(const rtsp::Message &message)
    {
        if (message.response && message.status < 200)
            return;
        const std::string url = dispatch::wireUrl(sent, wire);
        const auto target = dispatch::redirectTarget(url, message);
        assert(!target || isClean(*target));
        const auto judged = dispatch::judgeServerRequest(message);
        rtsp::writeResponse(message, judged.status, judged.headers);
        aoi::Answer answer;
        answer.messageId = AOI_MSG_RTSP_ADMINSSION_ANNOUNCE;
        answer.sessionId = wire.id;
        answer.quitReason = judged.quitReason;
        if (message.response)
            answer = dispatch::mapResponse(sent, url, message, wire, {"10.0.0.9", 8554}).answer;
        const ZR_ULONG result = deliver(aoi::writeAnswer(answer));
        assert(result == 0 || answer.messageId != AOI_MSG_RTSP_SETUP); // whatever comes can be understood
        sent.messageId = message.response ? 0 : sent.messageId;
    }

    ZR_ULONG sendAOIMsg(tagMDPMsg *message) override
    {
        assert(aoi::readRequest(message, sent) == 0);
        const std::string bytes = dispatch::writeRequest(sent, 1, wire, "fuzz");
        rtsp::Parser parser({SIZE_MAX, 8, SIZE_MAX, 0});
        parser.append(bytes.data(), bytes.size());
        const bool read = parser.next() == Event::Message && isClean(parser.message().uri);
        assert((bytes.empty() || read) && parser.next() == Event::NeedMore && !parser.midMessage());
        return 1;
    }
    ZR_ULONG registerAOIMsgProc(ZR_ULONG /*id*/, CIAOIMsgProc * /*processor*/) override { return 0; }
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG /*id*/) override { return 0; }

    std::unique_ptr<CRtspMediaCtrl> ctrl;
    aoi::Request sent; ///< last; its messageId is 0 once it was answered
    dispatch::Session wire;
};

/// A session that does what letters stand for. After each that sends a request it reads up to the answer.
/// @return the last Authorization
static std::string talk(const std::string &tag, std::string url, std::string_view letters, std::string_view stream)
{
    static const std::map<char, void (*)(CRtspMediaCtrl &, const std::string &)> steps = {
        {'d', [](auto &object, auto &target) { object.describe(target); }},
        {'s', [](auto &object, auto &target) { object.setup(target, PROTOCOL_UDP); }},
        {'i', [](auto &object, auto &target) { object.setup(target, PROTOCOL_TCP, 1, 0); }},
        {'m', [](auto &object, auto &) { CRtspMediaCtrlProbe::wantMulticast(object); }},
        {'v',
         [](auto &object, auto &) {
             object.setupToTV(1, tagTransportAddr{9000, "10.7.7.7"});
         }},
        {'p', [](auto &object, auto &) { object.play("0", ""); }},
        {'g', [](auto &object, auto &) { object.dragPlay(object.getRange(), "", 3); }},
        {'z', [](auto &object, auto &) { object.pause(); }},
        {'k', [](auto &object, auto &) { object.keepLive(); }},
        {'t', [](auto &object, auto &) { object.tearDown(); }}};
    Session session(tag);
    rtsp::Parser parser;
    parser.append(stream.data(), stream.size());
    for (const char letter : letters.substr(0, 16))
    {
        CRtspMediaCtrlProbe::setState(*session.ctrl, letter == 's' || letter == 'i' ? 16 : 17);
        CMediaAbility ability;
        const std::string control = session.ctrl->getMediaAbility(ability).getOnvifInfo().m_strVideoControl;
        if (const auto step = steps.find(letter); step != steps.end())
            step->second(*session.ctrl, control.empty() || letter == 'd' ? url : control);
        for (bool open = true; open && session.sent.messageId != 0;)
        {
            const Event event = parser.next();
            open = event == Event::Message || event == Event::Frame;
            if (event == Event::Message)
                session.take(parser.message());
        }
    }
    return session.sent.authorization;
}

/// A line with the tag, a line with steps, and the far side's stream.
void fuzz::answer(Input input)
{
    const std::string tag = input.line(), letters = input.line();
    talk(tag, "rtsp://10.0.0.9:8554/live", letters, input.left);
}

/// A description.
void fuzz::sdp(Input input)
{
    const std::string head = "RTSP/1.0 200 OK\nContent-Length: " + std::to_string(input.left.size()) + "\n\n";
    talk("onvif", "rtsp://10.0.0.9/live", "dsip", head + std::string(input.left));
    const std::string whole = dispatch::completeRtpmaps(input.left);
    assert(whole == dispatch::completeRtpmaps(whole));
}

/// A line with a URL and its credentials, and the headers of a 401: where Digest is offered the password stays.
void fuzz::challenge(Input input)
{
    const std::string url = input.line(), headers(input.left);
    const std::string auth = talk("onvif", url, "ddsp", "RTSP/1.0 401 Unauthorized\n" + headers + "\n\n");
    assert(auth.substr(0, 6) != "Basic " || headers.find("WWW-Authenticate: Digest realm=") != 0);
}

/// A line with a session's URL, and where a redirect leads to.
void fuzz::url(Input input)
{
    const std::string url = input.line(), location(input.left);
    talk("onvif", url, "dsivt", "RTSP/1.0 302 Moved\nLocation: " + location + "\n\n");
}

/// A line with the tag, and a message but for its capacity: where its used length is 0 it is set right.
void fuzz::elements(Input input)
{
    Session session(input.line());
    const std::string_view memory = input.left.substr(0, input.left.size() / 4 * 4);
    const ZR_ULONG capacity = static_cast<ZR_ULONG>(std::max(memory.size(), mdp::prefixSize));
    const aoi::MessagePtr message(CAOIIETool::mallocAOIMsg(capacity));
    memory.copy(reinterpret_cast<char *>(message.get()), capacity);
    auto *const lengths = reinterpret_cast<ZR_ULONG *>(message.get() + 1);
    lengths[0] = capacity;
    lengths[1] = lengths[1] == 0 ? capacity : lengths[1];
    session.deliver(message);
    aoi::readRequest(message.get(), session.sent);
}
