// Every operation with each of its platform calls and each of its allocations failing in turn, and with its object
// deleted at each of its platform calls.
#include <cstdlib>
#include <new>

#include "core_fixture.h"

// Under the sanitizers too: their own is weak, and malloc and free behind these stay theirs. Arrays and over-aligned
// objects, which nothing here allocates, keep the library's.
void *operator new(size_t size)
{
    const bool picked = zr::test::allocationsLeft > 0 && --zr::test::allocationsLeft == 0;
    void *memory = picked ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    try
    {
        return operator new(size);
    }
    catch (const std::bad_alloc &)
    {
        return nullptr;
    }
}
// inlined, it would be taken for the wrong one
[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept
{
    std::free(memory);
}

namespace zr::test {
namespace {

/// Texts that do not fit into a string without an allocation.
const std::string LONG = " of more than fifteen characters", SID = "a session" + LONG, URL = "rtsp://h/a-url" + LONG;
const std::string SDP =
    "m=video\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 sprop-parameter-sets=Z0IA,aM4AAAAAAAAAAAAAAA;x\r\n"
    "a=control:a-video-track-of-some-length\r\nm=audio\r\na=rtpmap:0 a-codec-of-some-length/8000\r\n"
    "a=control:rtsp://h/an-audio-track\r\n";
constexpr ZR_ULONG IDLE = 0, SET_UP = 16, PLAYING = 17, PAUSED = 18;

/// An operation that succeeds, but for what the test lets fail in it.
struct Operation
{
    std::string name;
    const char *tag;
    ZR_ULONG state; ///< in which it is called
    std::vector<Answer> answers;
    /// Gives 0 for success. Having called, it does not touch the object again, which may be gone.
    std::function<ZR_ULONG(Session &)> call;
    std::function<void(Session &)> prepare = [](Session &) {};
};

class SweepTest : public CoreTest
{
protected:
    /// A new object ready for the operation, in a plug-in that was just initialised.
    std::unique_ptr<Session> prepared(const Operation &operation)
    {
        platform.start();
        init(0, 0, nullptr, nullptr);
        auto session = std::make_unique<Session>(operation.tag, operation.state, "a local agent" + LONG);
        session->probe.url = session->probe.vodToTvUrl = URL;
        session->probe.ability.setSessionID(SID);
        session->probe.ability.setServerPort(0);
        session->probe.playFlag = 1;
        session->changeInfo([](COnvifInfo &info) {
            for (auto *auth : {&info.m_strSetupAuth, &info.m_strPlayAuth, &info.m_strOptionsAuth,
                               &info.m_strTeardownAuth, &info.m_strVideoRtpmap, &info.m_strVideoControl})
                *auth += LONG;
        });
        session->main->attachObserver(&m_observer);
        m_observer.reaction = [object = session->main] {
            platform.enter("observer");
            object->tearDown();
        };
        operation.prepare(*session);
        rearm(operation);
        return session;
    }
    static void rearm(const Operation &operation)
    {
        platform.settle();
        platform.clearRecord();
        for (const Answer &answer : operation.answers)
            platform.answer(answer);
    }
    /// Ends an object after the plug-in; nothing may be left of either.
    static void end(Session &session)
    {
        destroy();
        session.remove();
        platform.settle();
        EXPECT_EQ("0,0,0", listed(platform.liveMessages, platform.openSockets, platform.registrations()));
    }
    /// Whether another thread finds every lock free.
    static void expectUnlocked(Session &session)
    {
        auto visit = inThread([&] {
            Recorder other;
            if (session.main != nullptr)
            {
                session.ex->getRange();
                session.main->attachObserver(&other);
                session.main->detachObserver(&other);
            }
            CIMediaCtrl *neighbour = createMediaCtrlInter(1, "a", "b", "c", 1, "d", 1, 90);
            return deleteMediaCtrlInter(&neighbour);
        });
        EXPECT_EQ(0U, soon(visit));
    }
    /// Fails the steps of every operation one after the other.
    /// @param left    counts the steps
    /// @param picked  names the step that failed
    void sweep(int &left, std::string &picked);
    static std::vector<Operation> operations();

    Recorder m_observer;
};

/// What a platform may refuse without a word: nothing depends on it, or it is no failure.
bool isTolerated(const std::string &call)
{
    static const std::set<std::string> calls = {
        "addUAAddr",    "deleteUAAddr",   "register",   "unregister",      "refresh",   "release",
        "getServer",    "getContentBase", "startTimer", "counter",         "frequency", "counterBehindMs",
        "timeBehindMs", "received",       "log",        "MSGDISP_Destroy", "observer"};
    return calls.count(call) != 0;
}

void SweepTest::sweep(int &left, std::string &picked)
{
    int steps = 0;
    for (const Operation &operation : operations())
    {
        bool met = true;
        for (int n = 1; met; ++n)
        {
            const auto session = prepared(operation);
            left = n;
            ZR_ULONG result = 1;
            EXPECT_NO_THROW(result = operation.call(*session)) << operation.name << ", " << n;
            met = std::exchange(left, 0) == 0;
            steps += met ? 1 : 0;
            SCOPED_TRACE(operation.name + ", " + (met ? std::to_string(n) + " " + picked : "unhindered"));
            EXPECT_EQ(0U, platform.liveMessages);
            EXPECT_EQ(0, platform.openSockets);
            expectUnlocked(*session);
            EXPECT_TRUE(!met || isTolerated(picked) || !platform.logs('3').empty());
            const ZR_ULONG state = session->main == nullptr ? operation.state : session->probe.state();
            EXPECT_TRUE(state == operation.state || operation.answers.empty() || state >= SET_UP) << state; // no wait
            if (met && result != 0)
            {
                rearm(operation);
                result = operation.call(*session); // the object is as good as before
            }
            EXPECT_EQ(0U, result);
            end(*session);
        }
    }
    std::printf("%d steps failed in turn\n", steps);
}

TEST_F(SweepTest, everyPlatformCallMayFail)
{
    std::string picked;
    atPickedCall = [&](const std::string &call) {
        picked = call;
        return INJECTED;
    };
    sweep(callsLeft, picked);
}

TEST_F(SweepTest, everyAllocationMayFail)
{
    std::string picked = "allocation";
    sweep(allocationsLeft, picked);
}

TEST_F(SweepTest, anObjectMayBeDeletedAtEveryStep)
{
    for (const Operation &operation : operations())
    {
        bool met = operation.name != "delete";
        for (int n = 1; met; ++n)
        {
            SCOPED_TRACE(operation.name + ", " + std::to_string(n));
            const auto session = prepared(operation);
            std::promise<void> inside, deleting;
            auto call = inThread([&] {
                callsLeft = n;
                atPickedCall = [&](const std::string &) {
                    inside.set_value();
                    deleting.get_future().wait();
                    return 0U;
                };
                operation.call(*session);
                if (callsLeft == 0)
                    return 1U;
                inside.set_value();
                return 0U;
            });
            inside.get_future().wait();
            auto deletion = inThread([&] {
                deleting.set_value();
                return session->remove();
            });
            met = soon(call) == 1;
            EXPECT_EQ(0U, soon(deletion));
            end(*session);
        }
    }
}

std::vector<Operation> SweepTest::operations()
{
    const auto good = [](ZR_ULONG id) {
        return success(id).with(AOI_IE_SESSION_ID, SID).with(AOI_IE_RANGE, "npt=1-" + LONG).with(AOI_IE_URL, URL);
    };
    const Answer setUp = good(AOI_MSG_RTSP_SETUP)
                             .with(AOI_IE_TRANSPORT, "an-address-of-some-length:7000")
                             .with(AOI_IE_METHOD_TRANSPORT, "a-group-address-of-some-length:8000");
    const Answer described = good(AOI_MSG_RTSP_DESCRIBE)
                                 .with(AOI_IE_DATA, SDP)
                                 .with(AOI_IE_SERVER, "a server" + LONG)
                                 .with(AOI_IE_CONTENT_BASE, "rtsp://h/a-content-base/");
    const auto challenged = [](const char *challenge) {
        return failure(AOI_MSG_RTSP_DESCRIBE, 401).with(AOI_IE_AUTHORIZATION_ID, challenge);
    };
    const Answer digest = challenged("Digest realm=\"a realm of some length\", nonce=\"a nonce of some length\"");
    const Answer playing = good(AOI_MSG_RTSP_PLAY), paused = good(AOI_MSG_RTSP_PAUSE);
    const std::string url = URL + "?auth&username=a user" + LONG + "&password=a password" + LONG + "&";
    const auto sent = [] {
        const Uncounted uncounted;
        return platform.requests().empty() ? 1U : 0U;
    };
    const auto ended = [] {
        const Uncounted uncounted;
        return ::testing::Matches(::testing::Contains("unregister(77)"))(platform.events()) ? 0U : 1U;
    };
    const auto overTcp = [](Session &s) { s.probe.protocol = PROTOCOL_TCP; };
    const auto silent = [good](Session &s) { // the next tick reports it
        s.ex2->setKeepLiveInterval(0);
        s.take(good(AOI_MSG_RTSP_OPTIONS));
        for (int i = 0; i < 150; ++i)
            platform.tick(800);
    };
    const auto multicast = [](Session &s) {
        s.changeInfo([](COnvifInfo &info) { info.m_enBroadcastMethod = BROADCASTMETHOD_MULTICAST; });
        s.probe.url += "NatOut";
    };
    const tagTransportAddr wall = {9000, LONG};
    const auto toTv = [wall](Session &s) { return s.main->setupToTV(1, wall); };
    const auto another = [](Session &) {
        CIMediaCtrl *made = createMediaCtrlInter(6, LONG, LONG, LONG, 1, LONG, 0, 78);
        return made == nullptr ? 1U : deleteMediaCtrlInter(&made);
    };
    const auto restart = [](Session &) {
        destroy();
        return init(0, 0, nullptr, nullptr);
    };
    std::vector<Operation> all = {
        {"setup", "", SET_UP, {setUp}, [](Session &s) { return s.main->setup(URL, PROTOCOL_UDP); }},
        {"setup for download",
         "onvif",
         IDLE,
         {setUp},
         [](Session &s) { return s.ex2->setup(URL, PROTOCOL_TCP, 9, 0); }},
        {"describe", "", IDLE, {described}, [](Session &s) { return s.main->describe(URL); }},
        {"describe, challenged", "onvif", IDLE, {digest, described}, [=](Session &s) { return s.main->describe(url); }},
        {"play", "", PAUSED, {playing}, [](Session &s) { return s.main->play(LONG, LONG); }},
        {"play with a hand-off", "onvif", SET_UP, {playing}, [](Session &s) { return s.main->play("", ""); }},
        {"play over TCP", "onvif", SET_UP, {playing}, [](Session &s) { return s.main->play("", ""); }, overTcp},
        {"playAtSpeed", "", PLAYING, {playing}, [](Session &s) { return s.ex->playAtSpeed(99); }},
        {"changeSpeed", "guobiao", PLAYING, {playing}, [](Session &s) { return s.ex->changeSpeed(0); }},
        {"download", "", SET_UP, {playing}, [](Session &s) { return s.ex->download(LONG, LONG, 9, 1); }},
        {"dragPlay", "guobiao", PLAYING, {playing}, [](Session &s) { return s.ex->dragPlay(LONG, LONG, 99); }},
        {"pause", "", PLAYING, {paused}, [](Session &s) { return s.ex->pause(); }},
        {"setupToTV", "", PAUSED, {setUp}, toTv},
        {"teardownToTV", "", PLAYING, {}, [=](Session &s) { return s.main->teardownToTV(), sent(); }},
        {"tearDown", "", PLAYING, {}, [=](Session &s) { return s.main->tearDown(), ended(); }},
        {"keepLive", "", PLAYING, {}, [=](Session &) { return platform.tick(800), sent(); }},
        {"keepLive, silent", "", PLAYING, {}, [=](Session &) { return platform.tick(800), 0U; }, silent},
        {"onvifKeepLive", "onvif", PLAYING, {}, [=](Session &) { return platform.tick(30000), sent(); }},
        {"create", "", PLAYING, {}, another},
        {"delete", "", PLAYING, {}, [](Session &s) { return s.remove(); }},
        {"destroy and init", "", PLAYING, {}, restart},
    };
    const auto takes = [&all](
                           const char *tag, ZR_ULONG state, const Answer &answer,
                           const std::function<void(Session &)> &prepare = [](Session &) {}) {
        const std::string name = listed("answer", std::hex, answer.stHeader.ulMsgID, answer.stHeader.ulMsgKind, tag);
        const auto message = std::make_shared<Answer>(answer);
        all.push_back(
            {name, tag, state, {}, [=](Session &s) { return s.processor->AOIMsgPro(message.get()); }, prepare});
    };
    takes("", 1, setUp, overTcp);
    takes("onvif", 1, setUp, multicast);
    takes("", 4, playing);
    takes("", 10, paused);
    takes("", PLAYING, good(AOI_MSG_RTSP_OPTIONS));
    takes("", PLAYING, good(AOI_MSG_RTSP_TEARDOWN));
    takes("onvif", PLAYING, good(AOI_MSG_RTSP_SET_PARAMERTER));
    takes("onvif", SET_UP, described);
    takes("onvif", SET_UP, digest);
    takes("onvif", SET_UP, challenged("Basic"));
    for (const auto &[id, state] :
         {std::pair(AOI_MSG_RTSP_SETUP, 1U), {AOI_MSG_RTSP_PLAY, 4U}, {AOI_MSG_RTSP_PAUSE, 10U}})
        takes("", state, failure(id, 454));
    for (const ZR_ULONG id : {AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, AOI_MSG_INTERNAL_NOTIFY_RTSP})
        takes("guobiao", PLAYING,
              Answer(id, REQUEST)
                  .with(AOI_IE_SESSION_ID, SID)
                  .with(AOI_IE_QUIT_REASON, "2009")
                  .with(AOI_IE_SESSION_ACTION, "1"));
    return all;
}

} // namespace
} // namespace zr::test
