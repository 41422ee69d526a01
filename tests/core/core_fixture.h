/// @file
/// What the core tests share: an initialised plug-in over the scripted platform, one object under test, and its
/// private state.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rtsp_mediactrl.h"
#include "scripted_platform.h"
#include "zr_rtsp/zr_rtsp.h"

/// Reads and writes what a CRtspMediaCtrl keeps to itself.
struct CRtspMediaCtrlProbe
{
    CRtspMediaCtrl &ctrl;

    ZR_ULONG state() const
    {
        const ACE_Guard<ACE_Recursive_Thread_Mutex> guard(ctrl.m_oMutex);
        return ctrl.m_ulState;
    }
    void setState(ZR_ULONG state)
    {
        const ACE_Guard<ACE_Recursive_Thread_Mutex> guard(ctrl.m_oMutex);
        ctrl.m_ulState = state;
    }
    ZR_ULONG rspResult() const { return ctrl.m_ulRspResult; }
    void setRspResult(ZR_ULONG result) { ctrl.m_ulRspResult = result; }
    ZR_ULONG playFlag() const { return ctrl.m_ulPlayFlag; }
    void setPlayFlag(ZR_ULONG flag) { ctrl.m_ulPlayFlag = flag; }
    float playSpeed() const { return ctrl.m_fPlaySpeed; }
    void setPlaySpeed(float speed) { ctrl.m_fPlaySpeed = speed; }
    void setProtocol(tagProtocol protocol) { ctrl.m_enProtocol = protocol; }
    ZR_ULONG aoiPort() const { return ctrl.m_ulAOIPortID; }
    ZR_ULONG rangeSkipCount() const { return ctrl.m_usRangeSkipCount; }
    ZR_ULONG playbackNowFlag() const { return ctrl.m_ulPlaybackNowFlag; }
    ZR_ULONG msRelayer() const { return ctrl.m_bMSRelayer; }
    std::vector<ZR_ULONG> keepLive() const
    {
        return {ctrl.m_ulKeepLiveMaxFail, ctrl.m_ulKeepLivePeriod, ctrl.m_ulKeepLiveTick};
    }
    std::string &url() { return ctrl.m_strURL; }
    std::string &vodToTvUrl() { return ctrl.m_strVodToTvURL; }
    CMediaAbility &ability() { return ctrl.m_oMediaAbility; }
    /// Wakes whoever waits for an answer, for no reason.
    void wakeForNothing()
    {
        const ACE_Guard<ACE_Recursive_Thread_Mutex> guard(ctrl.m_oMutex);
        ctrl.m_oCond.broadcast();
    }

    ZR_ULONG generalPlay(float speed, const std::string &from, const std::string &to)
    {
        return ctrl.generalPlay(speed, from, to);
    }
    float playScale(ZR_ULONG code) { return ctrl.convetPlaySpeedParam(code); }
    float fullFrameScale(ZR_ULONG code) { return ctrl.convetFullFrameDownloadSpeedParam(code); }
    float sampleFrameScale(ZR_ULONG code) { return ctrl.convertSampleFrameDownloadSpeedParam(code); }
    ZR_ULONG calcAuth(COnvifInfo &info) { return ctrl.calcAuth(info); }
    std::string calcMethodAuth(const char *ha1, const COnvifInfo &info, const std::string &method)
    {
        return ctrl.calcMethodAuth(ha1, info, method);
    }
    ZR_ULONG dataFromSdp(const char *text, const char *section, const char *key, ZR_ULONG limit, char *out)
    {
        return ctrl.getDataFromSDP(text, section, key, limit, out);
    }
    std::vector<ZR_ULONG> nullAnswers()
    {
        return {ctrl.AOIProcRtspSetupRsp(nullptr), ctrl.AOIProcRtspPlayRsp(nullptr), ctrl.AOIProcRtspPauseRsp(nullptr),
                ctrl.AOIProcRtspDescribeRsp(nullptr)};
    }
};

namespace zr::test
{

using Texts = std::vector<std::string>;

/// One object under test, deleted through the entry point.
class Session
{
public:
    explicit Session(const std::string &tag = "")
        : main(createMediaCtrlInter(5, "src", "dst", "127.0.0.1", 6000, "10.0.0.9", 8554, AOI_PORT))
        , ex(dynamic_cast<CIMediaCtrlEx *>(main))
        , ex2(dynamic_cast<CIMediaCtrlEx2 *>(main))
        , processor(dynamic_cast<CIAOIMsgProc *>(main))
        , probe{dynamic_cast<CRtspMediaCtrl &>(*main)}
    {
        if (!tag.empty())
            main->setDecoderDesc(tag);
    }
    ~Session() { remove(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /// Deletes the object now.
    ZR_ULONG remove() { return main == nullptr ? 0 : deleteMediaCtrlInter(&main); }

    /// Puts the object into a state, with a session ID, a URL and an Authorization value for each method.
    Session &inState(ZR_ULONG state)
    {
        probe.setState(state);
        probe.url() = "rtsp://h/s";
        probe.ability().setSessionID("S1");
        changeInfo(
            [](COnvifInfo &info)
            {
                info.m_strSetupAuth = "setup-auth";
                info.m_strPlayAuth = "play-auth";
                info.m_strTeardownAuth = "teardown-auth";
            });
        Platform::instance().clearRecord();
        return *this;
    }

    void changeInfo(const std::function<void(COnvifInfo &)> &change)
    {
        COnvifInfo info = probe.ability().getOnvifInfo();
        change(info);
        probe.ability().setOnvifInfo(info);
    }

    ZR_ULONG take(Answer message) { return processor->AOIMsgPro(&message); }

    CIMediaCtrl *main;
    CIMediaCtrlEx *ex;
    CIMediaCtrlEx2 *ex2;
    CIAOIMsgProc *processor;
    CRtspMediaCtrlProbe probe;
};

class CoreTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        platform.start();
        ASSERT_EQ(0U, init(0, 0, nullptr, nullptr));
        platform.clearRecord();
    }
    void TearDown() override
    {
        destroy();
        platform.stop();
        EXPECT_EQ(0U, platform.liveMessages());
        EXPECT_EQ(0, platform.openSockets);
    }

    /// A success answer that every handler of that message takes.
    static Answer success(ZR_ULONG id)
    {
        return Answer(id, SUCCESS).with(AOI_IE_SESSION_ID, "S1").with(AOI_IE_TRANSPORT, "10.0.0.5:7000");
    }
    /// Texts as one, each followed by a "|".
    static std::string joined(const Texts &texts)
    {
        std::string whole;
        for (const std::string &text : texts)
            whole += text + "|";
        return whole;
    }
    static Answer failure(ZR_ULONG id, ZR_ULONG status)
    {
        return Answer(id, FAILURE).with(AOI_IE_ERRCODE, std::to_string(status));
    }

    Platform &platform = Platform::instance();
};

} // namespace zr::test
