#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "aoi_message.h"
#include "message_buffer.h"

namespace
{

using zr::aoi::MessagePtr;
using Add = std::function<ZR_ULONG(tagMDPMsg *)>;

MessagePtr newRequest(ZR_ULONG messageId, ZR_ULONG size = 2048)
{
    MessagePtr message(CAOIIETool::mallocAOIMsg(size));
    tagMDPMsgHeader header{};
    CAOIIETool::genAOIMsgHeader(messageId, 7, 0xFFFFFFFF, header);
    EXPECT_EQ(MDP_CreatReqMsgHeader(&header, message.get()), 0U);
    return message;
}

/// The message's bytes in memory exactly that large, so that a sanitizer sees a step beyond.
MessagePtr copyOf(const tagMDPMsg *message, size_t size)
{
    MessagePtr copy(static_cast<tagMDPMsg *>(std::malloc(size)));
    std::memcpy(static_cast<void *>(copy.get()), message, size);
    return copy;
}

ZR_ULONG numberAt(const tagMDPMsg *message, size_t offset)
{
    ZR_ULONG number = 0;
    std::memcpy(&number, reinterpret_cast<const char *>(message) + offset, sizeof(number));
    return number;
}

void setNumberAt(tagMDPMsg *message, size_t offset, ZR_ULONG number)
{
    std::memcpy(reinterpret_cast<char *>(message) + offset, &number, sizeof(number));
}

constexpr size_t capacityAt = 16;
constexpr size_t usedAt = 20;

struct NamedAdd
{
    const char *name;
    Add add;
};

const std::vector<NamedAdd> &adds()
{
    static const std::vector<NamedAdd> all = {
        {"URL", [](auto *m) { return CAOIIETool::addAOIIEURL("rtsp://h/x", m); }},
        {"session ID", [](auto *m) { return CAOIIETool::addAOIIESessionID("4711", m); }},
        {"source UA", [](auto *m) { return CAOIIETool::addAOIIESrcUaID("a", m, 1); }},
        {"destination UA", [](auto *m) { return CAOIIETool::addAOIIEDstUaID("b", m, 1); }},
        {"transport",
         [](auto *m) { return CAOIIETool::addAOIIETransport("", 65532, PROTOCOL_UDP, BROADCASTMETHOD_NONE, m, 0); }},
        {"Scale", [](auto *m) { return CAOIIETool::addAOIIEScale(-0.1F, m); }},
        {"Range", [](auto *m) { return CAOIIETool::addAOIIERangetime("5", "", m); }},
        {"Authorization", [](auto *m) { return CAOIIETool::addAOIIEAuth("Basic dTpw", m); }},
        {"User-Agent", [](auto *m) { return CAOIIETool::addAOIIEUserAgent(m); }},
        {"Accept", [](auto *m) { return CAOIIETool::addAOIIEAccept(m); }},
    };
    return all;
}

MessagePtr fullRequest()
{
    MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
    for (const NamedAdd &row : adds())
        EXPECT_EQ(row.add(message.get()), 0U) << row.name;
    return message;
}

TEST(AoiRequest, IsReadAsItWasBuilt)
{
    zr::aoi::Request request;
    ASSERT_EQ(zr::aoi::readRequest(fullRequest().get(), request), 0U);
    EXPECT_TRUE(request.messageId == AOI_MSG_RTSP_SETUP && request.sourceId == 7 && request.accept);
    EXPECT_THAT((std::vector{request.url, request.sessionId, request.srcUaId, request.dstUaId, request.range,
                             request.authorization}),
                testing::ElementsAre("rtsp://h/x", "4711", "a", "b", "npt=5-", "Basic dTpw"));
    EXPECT_EQ(request.scale, -0.1F);
    ASSERT_TRUE(request.transport);
    EXPECT_EQ(request.transport->port, 65532);
    EXPECT_EQ(request.transport->method, BROADCASTMETHOD_NONE);

    const MessagePtr wall = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(CAOIIETool::addAOIIETransport("10.0.0.9", 65534, PROTOCOL_TCP, wall.get(), 0), 0U);
    ASSERT_EQ(zr::aoi::readRequest(wall.get(), request), 0U);
    EXPECT_EQ(request.transport->address, "10.0.0.9");
    EXPECT_EQ(request.transport->protocol, PROTOCOL_TCP);
    EXPECT_FALSE(request.transport->method);
    EXPECT_FALSE(request.scale);
    EXPECT_EQ(request.url, "");
}

// for every element: a message of exactly its size takes it, one byte less refuses it and stays as it was
TEST(AoiRequest, TakesWhatFitsAndIsUnchangedByWhatDoesNot)
{
    for (const NamedAdd &row : adds())
    {
        const MessagePtr measure = newRequest(AOI_MSG_RTSP_PLAY);
        ASSERT_EQ(row.add(measure.get()), 0U) << row.name;
        const ZR_ULONG size = numberAt(measure.get(), usedAt);

        const MessagePtr exact = newRequest(AOI_MSG_RTSP_PLAY, size);
        EXPECT_EQ(row.add(exact.get()), 0U) << row.name;
        EXPECT_EQ(row.add(exact.get()), zr::mdp::Duplicate) << row.name;
        EXPECT_EQ(std::memcmp(exact.get(), measure.get(), capacityAt), 0) << row.name;

        const MessagePtr small = newRequest(AOI_MSG_RTSP_PLAY, size - 1);
        const MessagePtr before = copyOf(small.get(), zr::mdp::prefixSize);
        EXPECT_EQ(row.add(small.get()), zr::mdp::NoRoom) << row.name;
        EXPECT_EQ(std::memcmp(small.get(), before.get(), zr::mdp::prefixSize), 0) << row.name;
        EXPECT_EQ(row.add(nullptr), zr::mdp::NullArgument) << row.name;
    }
    EXPECT_EQ(CAOIIETool::mallocAOIMsg(zr::mdp::prefixSize - 1), nullptr);
    const MessagePtr message = newRequest(AOI_MSG_RTSP_PLAY);
    EXPECT_EQ(CAOIIETool::addAOIIEURL(std::string(5000, 'x'), message.get()), zr::mdp::NoRoom);
    EXPECT_EQ(CAOIIETool::addAOIIEURL("x", message.get()), 0U) << "a refused one does not count as there";
}

TEST(AoiRequest, TakesNoTextThatWouldBringAHeaderOfItsOwn)
{
    const MessagePtr message = newRequest(AOI_MSG_RTSP_PLAY);
    tagMDPMsg *const m = message.get();
    for (const std::string &t :
         {std::string("a\r\nX: y"), std::string("\n"), std::string("a\r"), std::string("a\0b", 3)})
    {
        const ZR_ULONG codes[] = {CAOIIETool::addAOIIEURL(t, m),
                                  CAOIIETool::addAOIIESessionID(t, m),
                                  CAOIIETool::addAOIIEAuth(t, m),
                                  CAOIIETool::addAOIIESrcUaID(t, m, 0),
                                  CAOIIETool::addAOIIEDstUaID(t, m, 0),
                                  CAOIIETool::addAOIIETransport(t, 4, PROTOCOL_TCP, m, 0),
                                  CAOIIETool::addAOIIETransport(t, 4, PROTOCOL_TCP, BROADCASTMETHOD_NONE, m, 0)};
        EXPECT_THAT(codes, testing::Each(zr::mdp::ForbiddenText));
    }
    EXPECT_EQ(numberAt(m, usedAt), zr::mdp::prefixSize);
}

TEST(AoiRequest, TakesNoTransportThatCannotBeWritten)
{
    const struct
    {
        bool wall;
        const char *address;
        ZR_USHORT port;
        tagProtocol protocol;
        tagBroadcastmethod method;
        bool taken;
    } rows[] = {
        {false, "", 0, PROTOCOL_UDP, BROADCASTMETHOD_NONE, false},
        {false, "", 1, PROTOCOL_UDP, BROADCASTMETHOD_UNICAST, true},
        {false, "", 65532, PROTOCOL_UDP, BROADCASTMETHOD_NONE, true},
        {false, "", 65533, PROTOCOL_UDP, BROADCASTMETHOD_NONE, false},
        {false, "", 0, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST, true}, // the port is the group's
        {false, "", 0, PROTOCOL_TCP, BROADCASTMETHOD_NONE, true},      // interleaved: no port
        {false, "", 65535, PROTOCOL_TCP, BROADCASTMETHOD_NONE, true},
        {true, "::1", 1, PROTOCOL_UDP, BROADCASTMETHOD_NONE, true},
        {true, "10.0.0.9", 65534, PROTOCOL_TCP, BROADCASTMETHOD_NONE, true},
        {true, "10.0.0.9", 65535, PROTOCOL_TCP, BROADCASTMETHOD_NONE, false},
        {true, "10.0.0.9", 0, PROTOCOL_TCP, BROADCASTMETHOD_NONE, false},
        {true, "", 5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE, false},
        {true, "10.0.0.9;mode=record", 5000, PROTOCOL_UDP, BROADCASTMETHOD_NONE, false},
    };
    for (const auto &row : rows)
    {
        const MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
        const ZR_ULONG added =
            row.wall ? CAOIIETool::addAOIIETransport(row.address, row.port, row.protocol, message.get(), 0)
                     : CAOIIETool::addAOIIETransport(row.address, row.port, row.protocol, row.method, message.get(), 0);
        EXPECT_EQ(added, row.taken ? zr::mdp::Ok : zr::mdp::BadValue) << row.address << ' ' << row.port;
    }
    const MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
    EXPECT_EQ(CAOIIETool::addAOIIEScale(std::numeric_limits<float>::quiet_NaN(), message.get()), zr::mdp::BadValue);
    EXPECT_EQ(CAOIIETool::addAOIIEScale(std::numeric_limits<float>::infinity(), message.get()), zr::mdp::BadValue);
}

TEST(AoiRequest, IsRefusedWhenItIsNone)
{
    zr::aoi::Request request;
    request.url = "before";
    const struct
    {
        size_t offset;
        ZR_ULONG value;
        ZR_ULONG code;
    } rows[] = {{0, AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, zr::mdp::UnknownMessage},
                {0, 0, zr::mdp::UnknownMessage},
                {4, 1, zr::mdp::NotARequest},
                {4, 2, zr::mdp::NotARequest},
                {usedAt, 0, zr::mdp::Malformed},
                {usedAt, 2049, zr::mdp::Malformed},
                {usedAt, 0xFFFFFFFF, zr::mdp::Malformed},
                {capacityAt, 24, zr::mdp::Malformed}};
    for (const auto &row : rows)
    {
        const MessagePtr message = fullRequest();
        setNumberAt(message.get(), row.offset, row.value);
        EXPECT_EQ(zr::aoi::readRequest(message.get(), request), row.code) << row.offset << ' ' << row.value;
    }
    EXPECT_EQ(zr::aoi::readRequest(nullptr, request), zr::mdp::NullArgument);

    const MessagePtr both = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(CAOIIETool::addAOIIETransport("h", 4, PROTOCOL_TCP, both.get(), 0), 0U);
    ASSERT_EQ(CAOIIETool::addAOIIETransport("h", 4, PROTOCOL_TCP, BROADCASTMETHOD_NONE, both.get(), 0), 0U);
    EXPECT_NE(zr::aoi::readRequest(both.get(), request), 0U);
    const MessagePtr foreign = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(
        CAOIIETool::addAOIIETransport("h", 4, static_cast<tagProtocol>(9), BROADCASTMETHOD_NONE, foreign.get(), 0), 0U);
    EXPECT_EQ(zr::aoi::readRequest(foreign.get(), request), zr::mdp::BadValue);
    EXPECT_EQ(request.url, "before");
}

using Get = ZR_ULONG (*)(const tagAOIMsg *);

/// A get that checks what all must keep: a failure leaves the result as it was.
template <auto get, typename Result>
ZR_ULONG getInto(const tagAOIMsg *message, Result result)
{
    const Result before = result;
    const ZR_ULONG code = get(message, result);
    if (code != 0)
    {
        EXPECT_EQ(result, before);
    }
    return code;
}
template <auto get>
ZR_ULONG text(const tagAOIMsg *message)
{
    return getInto<get>(message, std::string("before"));
}
template <auto get, typename Number>
ZR_ULONG number(const tagAOIMsg *message)
{
    return getInto<get>(message, static_cast<Number>(9));
}
template <bool ofMethod>
ZR_ULONG transport(const tagAOIMsg *message)
{
    std::string address = "before";
    ZR_USHORT port = 9;
    const ZR_ULONG code = ofMethod ? CAOIIETool::getAOIIETransport(message, BROADCASTMETHOD_MULTICAST, address, port)
                                   : CAOIIETool::getAOIIETransport(message, address, port);
    EXPECT_TRUE(code == 0 || (address == "before" && port == 9));
    return code;
}

const std::pair<ZR_ULONG, Get> gets[] = {
    {AOI_IE_SESSION_ID, text<CAOIIETool::getAOIIESessionID>},
    {AOI_IE_RANGE, text<CAOIIETool::getAOIIERange>},
    {AOI_IE_CONTENT_BASE, text<CAOIIETool::getAOIIEContentBase>},
    {AOI_IE_URL, text<CAOIIETool::getAOIIEURL>},
    {AOI_IE_SERVER, text<CAOIIETool::getAOIIEServer>},
    {AOI_IE_DATA, text<CAOIIETool::getAOIIESDP>},
    {AOI_IE_ERRCODE, number<CAOIIETool::getAOIIEErrcode, ZR_ULONG>},
    {AOI_IE_QUIT_REASON, number<CAOIIETool::getAOIIEQuitReason, tagAOIIEQuitReason>},
    {AOI_IE_SESSION_ACTION, number<CAOIIETool::getAOIIESAction, tagAOIIERtspActionType>},
    {AOI_IE_TRANSPORT, transport<false>},
    {AOI_IE_METHOD_TRANSPORT, transport<true>},
};

zr::aoi::Answer fullAnswer()
{
    zr::aoi::Answer answer;
    answer.messageId = AOI_MSG_RTSP_DESCRIBE;
    answer.kind = 1;
    answer.destinationId = 7;
    answer.errorCode = 454;
    answer.sessionId = "4711";
    answer.transport = zr::aoi::TransportAddress{"10.0.0.1", 554};
    answer.method = BROADCASTMETHOD_MULTICAST;
    answer.methodTransport = {"239.0.0.1", 6000};
    answer.contentBase = "rtsp://h/x/";
    answer.url = "rtsp://h/tv";
    answer.server = "S";
    answer.body = "v=0\r\nm=video 0 RTP/AVP 96\r\n";
    answer.challenge = "Digest realm=\"r\", nonce=\"n\"";
    answer.range = "npt=0-10";
    answer.quitReason = 2002;
    answer.action = 1;
    return answer;
}

TEST(AoiAnswer, IsReadAsItWasWritten)
{
    const MessagePtr message = zr::aoi::writeAnswer(fullAnswer());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->stHeader.ulMsgID, AOI_MSG_RTSP_DESCRIBE);
    EXPECT_EQ(message->stHeader.ulMsgKind, 1U);
    EXPECT_EQ(message->stHeader.ulDstID, 7U);
    EXPECT_EQ(numberAt(message.get(), usedAt), numberAt(message.get(), capacityAt)) << "as large as it must be";

    using TextGet = ZR_ULONG (*)(const tagAOIMsg *, std::string &);
    const std::pair<TextGet, std::string> texts[] = {{CAOIIETool::getAOIIESessionID, "4711"},
                                                     {CAOIIETool::getAOIIERange, "npt=0-10"},
                                                     {CAOIIETool::getAOIIEContentBase, "rtsp://h/x/"},
                                                     {CAOIIETool::getAOIIEURL, "rtsp://h/tv"},
                                                     {CAOIIETool::getAOIIEServer, "S"},
                                                     {CAOIIETool::getAOIIESDP, *fullAnswer().body}};
    for (const auto &[get, expected] : texts)
    {
        std::string text;
        EXPECT_EQ(get(message.get(), text), 0U) << expected;
        EXPECT_EQ(text, expected);
    }
    std::string address;
    ZR_USHORT port = 0;
    EXPECT_EQ(CAOIIETool::getAOIIETransport(message.get(), address, port), 0U);
    EXPECT_EQ(address + ":" + std::to_string(port), "10.0.0.1:554");
    EXPECT_EQ(CAOIIETool::getAOIIETransport(message.get(), BROADCASTMETHOD_UNICAST, address, port), zr::mdp::NotFound);
    EXPECT_EQ(CAOIIETool::getAOIIETransport(message.get(), BROADCASTMETHOD_MULTICAST, address, port), 0U);
    EXPECT_EQ(address + ":" + std::to_string(port), "239.0.0.1:6000");
    ZR_ULONG code = 0;
    tagAOIIEQuitReason reason{};
    tagAOIIERtspActionType action{};
    EXPECT_EQ(CAOIIETool::getAOIIEErrcode(message.get(), code), 0U);
    EXPECT_EQ(CAOIIETool::getAOIIEQuitReason(message.get(), reason), 0U);
    EXPECT_EQ(CAOIIETool::getAOIIESAction(message.get(), action), 0U);
    EXPECT_TRUE(code == 454 && reason == 2002U && action == 1U);

    const void *value = nullptr;
    ZR_ULONG length = 0;
    ASSERT_EQ(MDP_GetMsgIE(message.get(), AOI_IE_DATA, &value, &length), 0U);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(value) % 4, 0U);
    EXPECT_EQ(length, 84 + fullAnswer().body->size() + 1);
    EXPECT_STREQ(static_cast<const char *>(value) + 84, fullAnswer().body->c_str());
    ASSERT_EQ(MDP_GetMsgIE(message.get(), AOI_IE_AUTHORIZATION_ID, &value, &length), 0U);
    EXPECT_EQ(length, 8 + fullAnswer().challenge->size() + 1);
    EXPECT_STREQ(static_cast<const char *>(value) + 8, fullAnswer().challenge->c_str());
}

TEST(AoiAnswer, GivesACodeAndNothingElseForWhatIsAbsentOrOfAnotherType)
{
    const MessagePtr empty = zr::aoi::writeAnswer({});
    for (const auto &[id, get] : gets)
    {
        EXPECT_EQ(get(empty.get()), zr::mdp::NotFound) << id;
        EXPECT_EQ(get(nullptr), zr::mdp::NullArgument) << id;
        // none of these is a number, a text behind its prefix with its own zero, or a transport with a 16-bit port
        for (const std::string &value : {std::string(), std::string("abc"), std::string(3, '\0').append("de")})
        {
            const MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
            ASSERT_EQ(zr::mdp::append(message.get(), id, {value}), zr::mdp::Ok);
            EXPECT_EQ(get(message.get()), zr::mdp::Malformed) << id << ' ' << value.size();
        }
    }
    const MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(zr::mdp::append(message.get(), AOI_IE_DATA, {std::string(84, '\0')}), zr::mdp::Ok);
    EXPECT_NE(text<CAOIIETool::getAOIIESDP>(message.get()), 0U);
    ASSERT_EQ(zr::mdp::append(message.get(), AOI_IE_TRANSPORT, {std::string(13, '\1'), {"", 1}}), zr::mdp::Ok);
    EXPECT_NE(transport<false>(message.get()), 0U);

    const void *value = &message;
    ZR_ULONG length = 9;
    EXPECT_EQ(MDP_GetMsgIE(empty.get(), AOI_IE_DATA, &value, &length), zr::mdp::NotFound);
    EXPECT_TRUE(value == &message && length == 9);
    EXPECT_EQ(MDP_GetMsgIE(empty.get(), AOI_IE_DATA, nullptr, &length), zr::mdp::NullArgument);
}

/// What comes back does not matter here, what is touched does.
void readEverything(const tagMDPMsg *message)
{
    for (const auto &[id, get] : gets)
        get(message);
    const void *value = nullptr;
    ZR_ULONG length = 0;
    if (MDP_GetMsgIE(message, AOI_IE_AUTHORIZATION_ID, &value, &length) == 0)
    {
        EXPECT_LE(std::string(static_cast<const char *>(value), length).size(), numberAt(message, usedAt));
    }
    zr::aoi::Request request;
    zr::aoi::readRequest(message, request);
}

// the sanitizer is the judge: cut at every byte, and with every number of it damaged
TEST(AoiHostile, IsNeverReadBeyondItsEnd)
{
    const MessagePtr messages[] = {fullRequest(), zr::aoi::writeAnswer(fullAnswer())};
    for (const MessagePtr &whole : messages)
    {
        const ZR_ULONG used = numberAt(whole.get(), usedAt);
        for (ZR_ULONG size = zr::mdp::prefixSize; size < used; ++size)
        {
            const MessagePtr cut = copyOf(whole.get(), size);
            setNumberAt(cut.get(), capacityAt, size);
            zr::aoi::Request request;
            EXPECT_EQ(zr::aoi::readRequest(cut.get(), request), zr::mdp::Malformed);
            readEverything(cut.get());
            setNumberAt(cut.get(), usedAt, size);
            readEverything(cut.get());
            EXPECT_NE(CAOIIETool::addAOIIESrcUaID(std::string(3000, 'x'), cut.get(), 0), 0U);
        }
        for (size_t offset = usedAt; offset < used; offset += 4)
            for (const ZR_ULONG number : {0U, 1U, 0x7FFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFFDU, 0xFFFFFFFFU})
            {
                const MessagePtr damaged = copyOf(whole.get(), used);
                setNumberAt(damaged.get(), capacityAt, used);
                setNumberAt(damaged.get(), offset, number);
                readEverything(damaged.get());
            }
    }
}

} // namespace
