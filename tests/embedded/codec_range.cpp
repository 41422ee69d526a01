#include <string>

#include <gtest/gtest.h>

#include "aoi_message.h"
#include "message_buffer.h"

namespace
{

const struct
{
    std::string begin;
    std::string end;
    std::string value; ///< "refused", or empty: no IE
} rows[] = {
    {"", "", ""},
    // normal play time
    {"0", "", "npt=0-"},
    {"12.5", "30", "npt=12.5-30"},
    {"12.", "", "npt=12.-"},
    {"", "30", "npt=-30"},
    {"now", "", "npt=now-"},
    {"30", "10", "npt=30-10"}, // backwards
    {"0:00:05", "123:59:59.25", "npt=0:00:05-123:59:59.25"},
    {"10", "0:01:00", "npt=10-0:01:00"},
    {std::string(40, '9'), "", "npt=" + std::string(40, '9') + "-"},
    // points of time
    {"20240229T235960Z", "", "clock=20240229T235960Z-"},
    {"20240101T000000Z", "20240101T010000.5Z", "clock=20240101T000000Z-20240101T010000.5Z"},
    {"", "20240101T000000Z", "refused"},
    {"10", "20240101T000000Z", "refused"},
    {"20240101T000000Z", "now", "refused"},
    {"20241301T000000Z", "", "refused"},
    {"20240100T000000Z", "", "refused"},
    {"20240101T240000Z", "", "refused"},
    {"20240101T000000", "", "refused"},
    {"2024-01-01T00:00:00Z", "", "refused"},
    // whole values
    {"smpte=10:12:33:20-", "", "smpte=10:12:33:20-"},
    {"npt=1-2", "", "npt=1-2"},
    {"", "clock=20240101T000000Z-", "clock=20240101T000000Z-"},
    {"npt=1-", "5", "refused"},
    {"npt=1-", "npt=1-", "refused"},
    // neither
    {"-5", "", "refused"},
    {"1e3", "", "refused"},
    {" 5", "", "refused"},
    {".5", "", "refused"},
    {"1,5", "", "refused"},
    {"5", "six", "refused"},
    {"10:30", "", "refused"},
    {"0:60:00", "", "refused"},
    {"0:00:61", "", "refused"},
    {"0:001:00", "", "refused"},
    {"NaN", "", "refused"},
};

TEST(Range, IsWrittenAsItsEndsSayOrRefused)
{
    for (const auto &row : rows)
    {
        SCOPED_TRACE(row.begin + " to " + row.end);
        const zr::aoi::MessagePtr message(CAOIIETool::mallocAOIMsg(2048));
        tagMDPMsgHeader header{};
        CAOIIETool::genAOIMsgHeader(AOI_MSG_RTSP_PLAY, 7, 0xFFFFFFFF, header);
        ASSERT_EQ(MDP_CreatReqMsgHeader(&header, message.get()), 0U);
        const bool refused = row.value == "refused";
        EXPECT_EQ(CAOIIETool::addAOIIERangetime(row.begin, row.end, message.get()), refused ? zr::mdp::BadValue : 0U);
        zr::aoi::Request request;
        ASSERT_EQ(zr::aoi::readRequest(message.get(), request), 0U);
        EXPECT_EQ(request.range, refused ? "" : row.value);
        const void *value = nullptr;
        ZR_ULONG length = 0;
        EXPECT_EQ(MDP_GetMsgIE(message.get(), AOI_IE_RANGE_TIME, &value, &length) == 0, !request.range.empty());
    }
}

TEST(Range, CannotBringAHeaderOfItsOwn)
{
    const zr::aoi::MessagePtr message(CAOIIETool::mallocAOIMsg(2048));
    EXPECT_EQ(CAOIIETool::addAOIIERangetime("npt=1-\r\nX: y", "", message.get()), zr::mdp::ForbiddenText);
    EXPECT_EQ(CAOIIETool::addAOIIERangetime("1\n", "", message.get()), zr::mdp::BadValue);
}

} // namespace
