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
void *operator new(size_t size, const std::nothrow_t &) noexcept // of libraries, and freed below too
{
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void *memory) noexcept // inlined, free would be taken for the wrong one
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
constexpr ZR_ULONG IDLE = 0, SET_UP = 16, PLAYING = 17, PAUSED = 18;

/// An operation that succeeds, but for what the test lets fail in it.
struct Operation
{
    const char *name, *tag;
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
            info.m_strSetupAuth = info.m_strPlayAuth = info.m_strOptionsAuth = info.m_strTeardownAuth = LONG;
            info.m_strVideoRtpmap = info.m_strVideoControl = LONG;
        });
        m_observer.reaction = [object = session->main] {
            platform.enter("observer");
            object->tearDown();
        };
        session->main->attachObserver(&m_observer);
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
    /// Takes every operation's steps one after the other.
    /// @param visit  calls the operation with its nth step picked, and says whether that was met
    void forEachStep(const std::function<bool(const Operation &, Session &, int nth)> &visit)
    {
        int steps = 0;
        for (const Operation &operation : operations())
        {
            bool met = true;
            for (int nth = 1; met; ++nth)
            {
                SCOPED_TRACE(operation.name + (" " + std::to_string(nth)));
                const auto session = prepared(operation);
                met = visit(operation, *session, nth);
                steps += met ? 1 : 0;
                destroy();
                session->remove(); // after the plug-in's end: nothing may be left of either
                platform.settle();
                EXPECT_EQ("0,0,0,0", listed(platform.liveMessages, platform.openSockets, platform.openRoutes,
                                            platform.processors()));
            }
        }
        EXPECT_LT(250, steps);
    }
    void failEachStep(int &stepsLeft, std::string &picked);
    static std::vector<Operation> operations();

    Recorder m_observer;
};

/// @param stepsLeft  counts the steps
/// @param picked     names the step that failed; empty: the platform may refuse it without a word
void SweepTest::failEachStep(int &stepsLeft, std::string &picked)
{
    forEachStep([&](const Operation &operation, Session &session, int nth) {
        stepsLeft = nth;
        ZR_ULONG result = 1;
        EXPECT_NO_THROW(result = operation.call(session)) << operation.name;
        const bool met = std::exchange(stepsLeft, 0) == 0;
        SCOPED_TRACE(picked);
        EXPECT_EQ("0,0", listed(platform.liveMessages, platform.openSockets));
        EXPECT_TRUE(!met || picked.empty() || !platform.logs('3').empty());
        auto visit = inThread([&] { // finds every lock free
            CIMediaCtrl *neighbour = createMediaCtrlInter(1, "a", "b", "c", 1, "d", 1, 90);
            if (session.main != nullptr)
                session.main->attachObserver(&m_observer);
            const ZR_ULONG state = session.main != nullptr ? session.probe.state() : SET_UP;
            EXPECT_TRUE(state == operation.state || operation.answers.empty() || state >= SET_UP) << "waits: " << state;
            return deleteMediaCtrlInter(&neighbour);
        });
        EXPECT_EQ(0U, soon(visit));
        if (met && result != 0)
        {
            rearm(operation);
            result = operation.call(session); // the object is as good as before
        }
        EXPECT_EQ(0U, result);
        return met;
    });
}

TEST_F(SweepTest, everyPlatformCallMayFail)
{
    // nothing depends on these, or the injected result is no failure
    const std::string tolerated =
        "addUAAddr deleteUAAddr register unregister release getServer getContentBase startTimer "
        "counterBehindMs timeBehindMs frequency received log observer";
    std::string picked;
    atPickedCall = [&](const std::string &call) {
        picked = tolerated.find(call) == std::string::npos ? call : "";
        return INJECTED;
    };
    failEachStep(callsLeft, picked);
}

TEST_F(SweepTest, everyAllocationMayFail)
{
    std::string picked = "allocation";
    failEachStep(allocationsLeft, picked);
}

TEST_F(SweepTest, anObjectMayBeDeletedAtEveryStep)
{
    forEachStep([](const Operation &operation, Session &session, int nth) {
        if (operation.name == std::string("delete"))
            return false;
        std::promise<void> inside, deleting;
        auto call = inThread([&] {
            callsLeft = nth;
            atPickedCall = [&](const std::string &) {
                inside.set_value();
                deleting.get_future().wait();
                return 0U;
            };
            operation.call(session);
            if (callsLeft > 0)
                inside.set_value();
            return callsLeft == 0 ? 1U : 0U;
        });
        inside.get_future().wait();
        deleting.set_value();
        EXPECT_EQ(0U, session.remove());
        return soon(call) == 1;
    });
}

std::vector<Operation> SweepTest::operations()
{
    const auto good = [](ZR_ULONG id, ZR_ULONG kind = SUCCESS) {
        return Answer(id, kind).with(AOI_IE_SESSION_ID, SID).with(AOI_IE_URL, URL).with(AOI_IE_RANGE, LONG);
    };
    const auto taking = [](const Answer &answer) {
        const auto message = std::make_shared<Answer>(answer);
        return [message](Session &s) { return s.processor->AOIMsgPro(message.get()); };
    };
    const auto challenged = [](const char *challenge) {
        return failure(AOI_MSG_RTSP_DESCRIBE, 401).with(AOI_IE_AUTHORIZATION_ID, challenge);
    };
    const auto sent = [] { return Uncounted(), platform.requests().empty() ? 1U : 0U; };
    const auto overTcp = [](Session &s) { s.probe.protocol = PROTOCOL_TCP; };
    const auto silent = [](Session &s) { s.probe.silentPeriods = s.probe.checksMedia.exchange(1) + 150; };
    const auto multicast = [](Session &s) {
        s.changeInfo([](COnvifInfo &info) { info.m_enBroadcastMethod = BROADCASTMETHOD_MULTICAST; });
        s.probe.url += "NatOut";
    };
    const auto another = [](Session &) {
        CIMediaCtrl *made = createMediaCtrlInter(6, LONG, LONG, LONG, 1, LONG, 0, 78);
        return made == nullptr ? 1U : deleteMediaCtrlInter(&made);
    };
    const auto restart = [](Session &) { return destroy(), init(0, 0, nullptr, nullptr); };
    const std::string url = URL + "?auth&username=a user" + LONG + "&password=a password" + LONG + "&";
    const tagTransportAddr wall = {9000, LONG};
    const Answer digest = challenged("Digest realm=\"a realm of some length\", nonce=\"a nonce of some length\"");
    const Answer playing = good(AOI_MSG_RTSP_PLAY), paused = good(AOI_MSG_RTSP_PAUSE);
    Answer setUp = good(AOI_MSG_RTSP_SETUP).with(AOI_IE_TRANSPORT, "a-server-of-some-length:7000");
    setUp.with(AOI_IE_METHOD_TRANSPORT, "a-group-of-some-length:8000");
    Answer described = good(AOI_MSG_RTSP_DESCRIBE).with(AOI_IE_SERVER, LONG).with(AOI_IE_CONTENT_BASE, URL + "/");
    described.with(AOI_IE_DATA,
                   "m=video\na=rtpmap:96 H264 profile of some length\nsprop-parameter-sets=Z0IA,aM4A\n"
                   "a=control:a-video-track\nm=audio\na=rtpmap:0 a-codec-of-length\na=control:an-audio-track");
    Answer announced = good(AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, REQUEST).with(AOI_IE_QUIT_REASON, "2009");
    Answer lost = good(AOI_MSG_INTERNAL_NOTIFY_RTSP, REQUEST).with(AOI_IE_SESSION_ACTION, "1");
    return {
        {"setup", "", SET_UP, {setUp}, [](Session &s) { return s.main->setup(URL, PROTOCOL_UDP); }},
        {"setup ex2", "", IDLE, {setUp}, [](Session &s) { return s.ex2->setup(URL, PROTOCOL_TCP, 9, 0); }},
        {"describe", "", IDLE, {described}, [](Session &s) { return s.main->describe(URL); }},
        {"describe twice", "onvif", IDLE, {digest, described}, [=](Session &s) { return s.main->describe(url); }},
        {"play", "", PAUSED, {playing}, [](Session &s) { return s.main->play(LONG, LONG); }},
        {"play, sendto", "onvif", SET_UP, {playing}, [](Session &s) { return s.main->play("", ""); }},
        {"play, player", "onvif", SET_UP, {playing}, [](Session &s) { return s.main->play("", ""); }, overTcp},
        {"playAtSpeed", "", PLAYING, {playing}, [](Session &s) { return s.ex->playAtSpeed(99); }},
        {"changeSpeed", "guobiao", PLAYING, {playing}, [](Session &s) { return s.ex->changeSpeed(0); }},
        {"download", "", SET_UP, {playing}, [](Session &s) { return s.ex->download(LONG, LONG, 9, 1); }},
        {"dragPlay", "guobiao", PLAYING, {playing}, [](Session &s) { return s.ex->dragPlay(LONG, LONG, 99); }},
        {"pause", "", PLAYING, {paused}, [](Session &s) { return s.ex->pause(); }},
        {"setupToTV", "", PAUSED, {setUp}, [wall](Session &s) { return s.main->setupToTV(1, wall); }},
        {"teardownToTV", "", PLAYING, {}, [=](Session &s) { return s.main->teardownToTV(), sent(); }},
        {"tearDown", "", PLAYING, {}, [=](Session &s) { return s.main->tearDown(), sent(); }},
        {"keepLive", "", PLAYING, {}, [=](Session &) { return platform.tick(800), sent(); }},
        {"keepLive, silent", "", PLAYING, {}, [](Session &) { return platform.tick(800), 0U; }, silent},
        {"onvifKeepLive", "onvif", PLAYING, {}, [=](Session &) { return platform.tick(30000), sent(); }},
        {"create", "", PLAYING, {}, another},
        {"delete", "", PLAYING, {}, [](Session &s) { return s.remove(); }},
        {"destroy, init", "", PLAYING, {}, restart},
        {"SETUP over TCP", "", 1, {}, taking(setUp), overTcp},
        {"SETUP multicast", "onvif", 1, {}, taking(setUp), multicast},
        {"PLAY", "", 4, {}, taking(playing)},
        {"PLAY refused", "", 4, {}, taking(failure(AOI_MSG_RTSP_PLAY, 454))},
        {"PAUSE", "", 10, {}, taking(paused)},
        {"OPTIONS", "", PLAYING, {}, taking(good(AOI_MSG_RTSP_OPTIONS))},
        {"DESCRIBE", "onvif", SET_UP, {}, taking(described)},
        {"DESCRIBE Digest", "onvif", SET_UP, {}, taking(digest)},
        {"DESCRIBE Basic", "onvif", SET_UP, {}, taking(challenged("Basic"))},
        {"ANNOUNCE", "guobiao", PLAYING, {}, taking(announced)},
        {"notice", "onvif", PLAYING, {}, taking(lost)},
    };
}

} // namespace
} // namespace zr::test
