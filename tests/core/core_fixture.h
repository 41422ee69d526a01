/// @file
/// What the core tests share: an initialised plug-in over the scripted platform, one object under test, and its
/// private state.
#pragma once

#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rtsp_mediactrl.h"
#include "scripted_platform.h"
#include "zr_rtsp/zr_rtsp.h"

/// Reads and writes what a CRtspMediaCtrl keeps to itself.
struct CRtspMediaCtrlProbe
{
    CRtspMediaCtrl &ctrl;
    CMediaAbility &ability = ctrl.m_oMediaAbility;
    std::string &url = ctrl.m_strURL, &vodToTvUrl = ctrl.m_strVodToTvURL;
    std::atomic<tagProtocol> &protocol = ctrl.m_enProtocol;
    std::atomic<float> &playSpeed = ctrl.m_fPlaySpeed;
    std::atomic<ZR_ULONG> &aoiPort = ctrl.m_ulAOIPortID, &playFlag = ctrl.m_ulPlayFlag,
                          &playbackNowFlag = ctrl.m_ulPlaybackNowFlag, &msRelayer = ctrl.m_bMSRelayer,
                          &checksMedia = ctrl.m_bCheckMediaKeepLive;
    std::atomic<ZR_USHORT> &rangeSkipCount = ctrl.m_usRangeSkipCount;
    ZR_ULONG &rspResult = ctrl.m_ulRspResult, &silentPeriods = ctrl.m_ulKeepLiveFailCount;

    /// Runs a call with the object's lock held, as an operation that calls another would.
    ZR_ULONG withLock(const std::function<ZR_ULONG()> &call)
    {
        const CObjectGuard guard(ctrl.m_oMutex, ctrl.m_ulLockDepth);
        const ZR_ULONG depth = ctrl.m_ulLockDepth, result = call();
        EXPECT_EQ(depth, ctrl.m_ulLockDepth);
        return result;
    }
    ZR_ULONG state()
    {
        return withLock([&] { return ctrl.m_ulState; });
    }
    void setState(ZR_ULONG state)
    {
        withLock([&] { return ctrl.m_ulState = state; });
    }
    /// Wakes whoever waits for an answer, for no reason.
    void wakeForNothing() { ctrl.m_oCond.broadcast(); }
    std::vector<ZR_ULONG> keepLive() const
    {
        return {ctrl.m_ulKeepLiveMaxFail, ctrl.m_ulKeepLivePeriod, ctrl.m_ulKeepLiveTick};
    }

    ZR_ULONG generalPlay(float speed) { return ctrl.generalPlay(speed, "10", "20"); }
    float playScale(ZR_ULONG code) { return ctrl.convetPlaySpeedParam(code); }
    float fullFrameScale(ZR_ULONG code) { return ctrl.convetFullFrameDownloadSpeedParam(code); }
    float sampleFrameScale(ZR_ULONG code) { return ctrl.convertSampleFrameDownloadSpeedParam(code); }
    ZR_ULONG calcAuth(COnvifInfo &info) { return ctrl.calcAuth(info); }
    ZR_ULONG dataFromSdp(const char *text, const char *section, const char *key, ZR_ULONG limit, char *out)
    {
        return ctrl.getDataFromSDP(text, section, key, limit, out);
    }
};

namespace zr::test {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

/// One object under test, deleted through the entry point.
class Session
{
public:
    static constexpr ZR_ULONG AS_CREATED = 0xFFFFFFFF;

    explicit Session(const std::string &tag = "", ZR_ULONG state = AS_CREATED, const std::string &source = "src")
        : main(createMediaCtrlInter(5, source, "dst", "127.0.0.1", 6000, "10.0.0.9", 8554, AOI_PORT))
        , ex(dynamic_cast<CIMediaCtrlEx *>(main))
        , ex2(dynamic_cast<CIMediaCtrlEx2 *>(main))
        , processor(dynamic_cast<CIAOIMsgProc *>(main))
        , probe{dynamic_cast<CRtspMediaCtrl &>(*main)}
    {
        if (!tag.empty())
            main->setDecoderDesc(tag);
        if (state != AS_CREATED)
            inState(state);
    }
    ~Session() { remove(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /// Deletes the object now.
    ZR_ULONG remove() { return main == nullptr ? 0 : deleteMediaCtrlInter(&main); }

    /// Puts the object into a state, with a session ID, URLs and an Authorization value for each method.
    Session &inState(ZR_ULONG state)
    {
        probe.setState(state);
        probe.url = "rtsp://h/s";
        probe.ability.setSessionID("S1");
        changeInfo([](COnvifInfo &info) {
            info.m_strSetupAuth = "setup-auth";
            info.m_strPlayAuth = "play-auth";
            info.m_strOptionsAuth = "options-auth";
            info.m_strTeardownAuth = "teardown-auth";
        });
        platform.clearRecord();
        return *this;
    }

    void changeInfo(const std::function<void(COnvifInfo &)> &change)
    {
        COnvifInfo info = probe.ability.getOnvifInfo();
        change(info);
        probe.ability.setOnvifInfo(info);
    }

    /// Starts the relation to a TV wall, for which the server had named a URL.
    ZR_ULONG setupToTv()
    {
        probe.vodToTvUrl = "rtsp://h/tv";
        return main->setupToTV(1, {9000, "10.7.7.7"});
    }
    ZR_ULONG take(Answer message) { return processor->AOIMsgPro(&message); }

    CIMediaCtrl *main;
    CIMediaCtrlEx *ex;
    CIMediaCtrlEx2 *ex2;
    CIAOIMsgProc *processor;
    CRtspMediaCtrlProbe probe;
};

/// An observer that keeps what it hears.
struct Recorder : CIMediaCtrlObserver
{
    explicit Recorder(std::function<void()> theReaction = [] {})
        : reaction(std::move(theReaction))
    {
    }
    ZR_ULONG getObserverID() override { return 1; }
    void notify(ZR_ULONG *code, uintptr_t argument) override
    {
        EXPECT_EQ(0U, argument);
        codes.push_back(*code);
        reaction();
    }
    std::vector<ZR_ULONG> codes;
    std::function<void()> reaction;
};

class CoreTest : public ::testing::Test
{
protected:
    CoreTest()
    {
        platform.start();
        EXPECT_EQ(0U, init(0, 0, nullptr, nullptr));
        platform.clearRecord();
    }
    ~CoreTest() override
    {
        destroy();
        platform.settle();
        EXPECT_EQ(0U, platform.liveMessages);
        EXPECT_EQ(0, platform.openSockets);
    }

    /// A success answer that every handler of that message takes.
    static Answer success(ZR_ULONG id)
    {
        return Answer(id, SUCCESS).with(AOI_IE_SESSION_ID, "S1").with(AOI_IE_TRANSPORT, "10.0.0.5:7000");
    }
    static Answer failure(ZR_ULONG id, ZR_ULONG status)
    {
        return Answer(id, FAILURE).with(AOI_IE_ERRCODE, std::to_string(status));
    }
    /// A log line of the class, at a level and with a code such as "4:13205".
    static std::string line(const std::string &code, const std::string &function, const std::string &text)
    {
        return code + ":[CRtspMediaCtrl::" + function + "] " + text;
    }
    /// Texts as one, each followed by a "|".
    static std::string joined(const Texts &texts)
    {
        std::string whole;
        for (const std::string &text : texts)
            whole += text + "|";
        return whole;
    }

    static std::future<ZR_ULONG> inThread(std::function<ZR_ULONG()> call)
    {
        return std::async(std::launch::async, std::move(call));
    }
    /// What the call returned, which it must do well before its 25 seconds are over.
    static ZR_ULONG soon(std::future<ZR_ULONG> &result)
    {
        EXPECT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(15)));
        return result.get();
    }
    /// Returns when the object's request number count waits for its answer.
    void untilWaiting(Session &session, size_t count)
    {
        ASSERT_TRUE(platform.waitFor([&] { return platform.requests().size() >= count; }));
        session.probe.state(); // takes the lock, which the requester holds until it waits
    }
};

} // namespace zr::test
