#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "media_mark.h"
#include "zr_common.h"

namespace
{

using TextField = std::pair<std::string (CMediaAbility::*)() const, void (CMediaAbility::*)(const std::string &)>;
using ShortField = std::pair<ZR_USHORT (CMediaAbility::*)() const, void (CMediaAbility::*)(ZR_USHORT)>;
using LongField = std::pair<ZR_ULONG (CMediaAbility::*)() const, void (CMediaAbility::*)(ZR_ULONG)>;

#define FIELD(name)                                                                                                    \
    {                                                                                                                  \
        &CMediaAbility::get##name, &CMediaAbility::set##name                                                           \
    }
const TextField textFields[] = {FIELD(ServerIP),       FIELD(LocalIP),       FIELD(LocalUaID),
                                FIELD(RemoteUaID),     FIELD(SessionID),     FIELD(DecoderTag),
                                FIELD(DescribeRspSdp), FIELD(NATSessionStr), FIELD(TcpVodToTvServerIP)};
const ShortField shortFields[] = {FIELD(ServerPort), FIELD(ServerAudioPort), FIELD(LocalPort),
                                  FIELD(TcpVodToTvServerPort), FIELD(TcpVodToTvServerAudioPort)};
const LongField longFields[] = {FIELD(PacketType), FIELD(TransportType)};
#undef FIELD

CMediaAbility filled()
{
    CMediaAbility ability;
    ZR_USHORT value = 1;
    for (const TextField &field : textFields)
        (ability.*field.second)(std::to_string(value++));
    for (const ShortField &field : shortFields)
        (ability.*field.second)(value++);
    for (const LongField &field : longFields)
        (ability.*field.second)(value++);
    ability.setNATMode(NAT_MODE_IN);
    COnvifInfo info;
    info.m_strPlayAuth = "auth";
    ability.setOnvifInfo(info);
    return ability;
}

/// Every field holds a value of its own: none is another's.
void expectFilled(const CMediaAbility &ability)
{
    ZR_USHORT value = 1;
    for (const TextField &field : textFields)
        EXPECT_EQ((ability.*field.first)(), std::to_string(value++));
    for (const ShortField &field : shortFields)
        EXPECT_EQ((ability.*field.first)(), value++);
    for (const LongField &field : longFields)
        EXPECT_EQ((ability.*field.first)(), value++);
    EXPECT_EQ(ability.getNATMode(), NAT_MODE_IN);
    EXPECT_EQ(ability.getOnvifInfo().m_strPlayAuth, "auth");
}

TEST(MediaAbility, KeepsEachValueThroughCopiesInitAndRelease)
{
    CMediaAbility ability = filled();
    const CMediaAbility &self = ability;
    ability = self;
    EXPECT_EQ(ability.init(), 0U);
    EXPECT_EQ(ability.init(), 0U);
    ability.release();
    ability.release();
    expectFilled(ability);
    CMediaAbility other;
    other = ability;
    ability.setServerIP("changed");
    expectFilled(other);

    EXPECT_EQ(other.isOnvif(), 0U);
    for (const auto &[tag, onvif] : {std::pair{"onvif", 1U}, {"ONVIF", 0U}, {"onvif ", 0U}, {"", 0U}})
    {
        other.setDecoderTag(tag);
        EXPECT_EQ(other.isOnvif(), onvif) << tag;
    }
}

TEST(MediaAbility, IsCopiedBothWaysByTwoThreads)
{
    CMediaAbility left = filled();
    CMediaAbility right = filled();
    const auto work = [](CMediaAbility &to, const CMediaAbility &from)
    {
        for (int i = 0; i < 2000; ++i)
        {
            to = from;
            to.setSessionID(CMediaAbility(from).getSessionID());
        }
    };
    std::thread other([&] { work(left, right); });
    work(right, left);
    other.join();
    expectFilled(left);
    expectFilled(right);
}

TEST(MediaKeepLive, TellsOncePerArrivalAndPerPort)
{
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
    const auto mark = zr::common::mediaMark(1);
    const auto same = zr::common::mediaMark(1);
    const auto neighbour = zr::common::mediaMark(2);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
    same->store(true);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(2), 0U);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 1U);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
    mark->store(true);
    CJugeMediaKeepLive::RefreshMediaKeepLive(1);
    EXPECT_EQ(CJugeMediaKeepLive::CheckIfRecvPkt(1), 0U);
}

} // namespace
