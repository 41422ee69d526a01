#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "aoi_element.h"
#include "aoi_message.h"
#include "message_buffer.h"

namespace {

using zr::aoi::MessagePtr;
using zr::aoi::TransportElement;
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

const std::pair<const char *, Add> adds[] = {
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

MessagePtr fullRequest()
{
    MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
    for (const auto &[name, add] : adds)
        EXPECT_EQ(add(message.get()), 0U) << name;
    return message;
}

ZR_ULONG add(const TransportElement &transport, tagMDPMsg *message)
{
    const auto &[address, port, protocol, method] = transport;
    return method ? CAOIIETool::addAOIIETransport(address, port, protocol, *method, message, 0)
                  : CAOIIETool::addAOIIETransport(address, port, protocol, message, 0);
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
    EXPECT_TRUE(request.transport->port == 65532 && request.transport->method == BROADCASTMETHOD_NONE);

    const MessagePtr wall = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(add({"10.0.0.9", 65534, PROTOCOL_TCP, {}}, wall.get()), 0U);
    ASSERT_EQ(zr::aoi::readRequest(wall.get(), request), 0U);
    EXPECT_TRUE(request.transport->address == "10.0.0.9" && request.transport->protocol == PROTOCOL_TCP);
    EXPECT_TRUE(!request.transport->method && !request.scale && request.url.empty());
}

// for every element: a message of exactly its size takes it, one byte less refuses it and stays as it was
TEST(AoiRequest, TakesWhatFitsAndIsUnchangedByWhatDoesNot)
{
    for (const auto &[name, add] : adds)
    {
        SCOPED_TRACE(name);
        const MessagePtr measure = newRequest(AOI_MSG_RTSP_PLAY);
        ASSERT_EQ(add(measure.get()), 0U);
        const ZR_ULONG size = numberAt(measure.get(), usedAt);

        const MessagePtr exact = newRequest(AOI_MSG_RTSP_PLAY, size);
        EXPECT_EQ(add(exact.get()), 0U);
        EXPECT_EQ(add(exact.get()), zr::mdp::Duplicate);

        const MessagePtr small = newRequest(AOI_MSG_RTSP_PLAY, size - 1);
        const MessagePtr before = copyOf(small.get(), zr::mdp::prefixSize);
        EXPECT_EQ(add(small.get()), zr::mdp::NoRoom);
        EXPECT_EQ(std::memcmp(small.get(), before.get(), zr::mdp::prefixSize), 0);
        EXPECT_EQ(add(nullptr), zr::mdp::NullArgument);
    }
    EXPECT_EQ(CAOIIETool::mallocAOIMsg(zr::mdp::prefixSize - 1), nullptr);
}

TEST(AoiRequest, TakesNoTextThatWouldBringAHeaderOfItsOwn)
{
    const MessagePtr message = newRequest(AOI_MSG_RTSP_PLAY);
    tagMDPMsg *const m = message.get();
    for (const std::string &t : {std::string("=a\r\nX: y"), std::string("=\n"), std::string("=a\0b", 4)})
    {
        const ZR_ULONG codes[] = {
            CAOIIETool::addAOIIEURL(t, m),        CAOIIETool::addAOIIESessionID(t, m),
            CAOIIETool::addAOIIEAuth(t, m),       CAOIIETool::addAOIIERangetime(t, "", m),
            CAOIIETool::addAOIIESrcUaID(t, m, 0), CAOIIETool::addAOIIEDstUaID(t, m, 0),
            add({t, 4, PROTOCOL_TCP, {}}, m),     add({t, 4, PROTOCOL_TCP, BROADCASTMETHOD_NONE}, m)};
        EXPECT_THAT(codes, testing::Each(zr::mdp::ForbiddenText));
    }
    EXPECT_EQ(numberAt(m, usedAt), zr::mdp::prefixSize);
}

TEST(AoiRequest, TakesNoTransportThatCannotBeWritten)
{
    const std::pair<TransportElement, bool> rows[] = {
        {{"", 0, PROTOCOL_UDP, BROADCASTMETHOD_NONE}, false},
        {{"", 1, PROTOCOL_UDP, BROADCASTMETHOD_UNICAST}, true},
        {{"", 65533, PROTOCOL_UDP, BROADCASTMETHOD_NONE}, false},
        {{"", 0, PROTOCOL_UDP, BROADCASTMETHOD_MULTICAST}, true}, // the port is the group's
        {{"", 65535, PROTOCOL_TCP, BROADCASTMETHOD_NONE}, true},  // interleaved: no port
        {{"::1", 1, PROTOCOL_UDP, {}}, true},
        {{"10.0.0.9", 65535, PROTOCOL_TCP, {}}, false},
        {{"10.0.0.9", 0, PROTOCOL_TCP, {}}, false},
        {{"", 5000, PROTOCOL_UDP, {}}, false},
        {{"10.0.0.9;mode=record", 5000, PROTOCOL_UDP, {}}, false},
    };
    for (const auto &[transport, taken] : rows)
    {
        const ZR_ULONG code = add(transport, newRequest(AOI_MSG_RTSP_SETUP).get());
        EXPECT_EQ(code, taken ? zr::mdp::Ok : zr::mdp::BadValue) << transport.address << ' ' << transport.port;
    }
    for (const float scale : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()})
        EXPECT_EQ(CAOIIETool::addAOIIEScale(scale, newRequest(AOI_MSG_RTSP_SETUP).get()), zr::mdp::BadValue);
}

TEST(AoiRequest, IsRefusedWhenItIsNone)
{
    zr::aoi::Request request;
    request.url = "before";
    const std::tuple<size_t, ZR_ULONG, ZR_ULONG> rows[] = {
        {0, AOI_MSG_RTSP_ADMINSSION_ANNOUNCE, zr::mdp::UnknownMessage},
        {4, 1, zr::mdp::NotARequest},
        {usedAt, 0, zr::mdp::Malformed},
        {usedAt, 0xFFFFFFFF, zr::mdp::Malformed},
        {capacityAt, 24, zr::mdp::Malformed}};
    for (const auto &[offset, value, code] : rows)
    {
        const MessagePtr message = fullRequest();
        setNumberAt(message.get(), offset, value);
        EXPECT_EQ(zr::aoi::readRequest(message.get(), request), code) << offset << ' ' << value;
    }
    EXPECT_EQ(zr::aoi::readRequest(nullptr, request), zr::mdp::NullArgument);

    const MessagePtr both = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(add({"h", 4, PROTOCOL_TCP, {}}, both.get()), 0U);
    ASSERT_EQ(add({"h", 4, PROTOCOL_TCP, BROADCASTMETHOD_NONE}, both.get()), 0U);
    EXPECT_NE(zr::aoi::readRequest(both.get(), request), 0U);
    const MessagePtr foreign = newRequest(AOI_MSG_RTSP_SETUP);
    ASSERT_EQ(add({"h", 4, static_cast<tagProtocol>(9), BROADCASTMETHOD_NONE}, foreign.get()), 0U);
    EXPECT_EQ(zr::aoi::readRequest(foreign.get(), request), zr::mdp::BadValue);
    EXPECT_EQ(request.url, "before");
}

TEST(AoiRequest, HasTheRangeThatItsEndsSayOrNone)
{
    const std::string refused = "refused";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"", "", ""},
        {"12.5", "30", "npt=12.5-30"},
        {"", "30", "npt=-30"},
        {"now", "", "npt=now-"},
        {"0:00:05", "123:59:59.25", "npt=0:00:05-123:59:59.25"},
        {std::string(40, '9'), "", "npt=" + std::string(40, '9') + "-"},
        {"20240101T000000Z", "20240101T010000.5Z", "clock=20240101T000000Z-20240101T010000.5Z"},
        {"", "clock=20240101T000000Z-", "clock=20240101T000000Z-"},
        {"", "20240101T000000Z", refused},
        {"20240101T000000Z", "now", refused},
        {"npt=1-", "5", refused},
        {"npt=1-", "npt=1-", refused},
        {"5", "six", refused},
    };
    const auto check = [&](const std::string &begin, const std::string &end, const std::string &value) {
        SCOPED_TRACE(begin + " to " + end);
        const MessagePtr message = newRequest(AOI_MSG_RTSP_PLAY);
        const ZR_ULONG code = value == refused ? zr::mdp::BadValue : zr::mdp::Ok;
        EXPECT_EQ(CAOIIETool::addAOIIERangetime(begin, end, message.get()), code);
        zr::aoi::Request request;
        ASSERT_EQ(zr::aoi::readRequest(message.get(), request), 0U);
        EXPECT_EQ(request.range, code == 0 ? value : "");
    };
    for (const auto &[begin, end, value] : rows)
        check(begin, end, value);
    for (const char *begin :
         {"-5", "1e3", " 5", ".5", "1,5", "10:30", "0:60:00", "0:00:61", "0:001:00", "NaN", "1\n", "20241301T000000Z",
          "20240100T000000Z", "20240101T240000Z", "20240101T000000", "2024-01-01T00:00:00Z"})
        check(begin, "", refused);
}

/// Gets an element as text. A failure must leave the result as it was.
using Get = ZR_ULONG (*)(const tagAOIMsg *, std::string &);

template <auto get, typename Number>
ZR_ULONG number(const tagAOIMsg *message, std::string &out)
{
    auto value = static_cast<Number>(9);
    const ZR_ULONG code = get(message, value);
    if (code == 0 || value != static_cast<Number>(9))
        out = std::to_string(value);
    return code;
}
template <typename... Method>
ZR_ULONG transport(const tagAOIMsg *message, std::string &out, Method... method)
{
    ZR_USHORT port = 9;
    std::string address = out;
    const ZR_ULONG code = CAOIIETool::getAOIIETransport(message, method..., address, port);
    if (code == 0 || port != 9 || address != out)
        out = address + ':' + std::to_string(port);
    return code;
}
ZR_ULONG groupTransport(const tagAOIMsg *message, std::string &out)
{
    return transport(message, out, BROADCASTMETHOD_MULTICAST);
}

/// Element, how it is got, and as what from fullAnswer.
const std::tuple<ZR_ULONG, Get, std::string> gets[] = {
    {AOI_IE_SESSION_ID, CAOIIETool::getAOIIESessionID, "4711"},
    {AOI_IE_RANGE, CAOIIETool::getAOIIERange, "npt=0-10"},
    {AOI_IE_CONTENT_BASE, CAOIIETool::getAOIIEContentBase, "rtsp://h/x/"},
    {AOI_IE_URL, CAOIIETool::getAOIIEURL, "rtsp://h/tv"},
    {AOI_IE_SERVER, CAOIIETool::getAOIIEServer, "S"},
    {AOI_IE_DATA, CAOIIETool::getAOIIESDP, "v=0\r\nm=video 0 RTP/AVP 96\r\n"},
    {AOI_IE_ERRCODE, number<CAOIIETool::getAOIIEErrcode, ZR_ULONG>, "454"},
    {AOI_IE_QUIT_REASON, number<CAOIIETool::getAOIIEQuitReason, tagAOIIEQuitReason>, "2002"},
    {AOI_IE_SESSION_ACTION, number<CAOIIETool::getAOIIESAction, tagAOIIERtspActionType>, "1"},
    {AOI_IE_TRANSPORT, transport<>, "10.0.0.1:554"},
    {AOI_IE_METHOD_TRANSPORT, groupTransport, "239.0.0.1:6000"},
};

MessagePtr fullAnswer()
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
    return zr::aoi::writeAnswer(answer);
}

TEST(AoiAnswer, IsReadAsItWasWritten)
{
    const MessagePtr message = fullAnswer();
    const tagMDPMsgHeader &header = message->stHeader;
    EXPECT_TRUE(header.ulMsgID == AOI_MSG_RTSP_DESCRIBE && header.ulMsgKind == 1 && header.ulDstID == 7);
    EXPECT_EQ(numberAt(message.get(), usedAt), numberAt(message.get(), capacityAt)) << "as large as it must be";
    std::string text;
    for (const auto &[id, get, written] : gets)
    {
        EXPECT_EQ(get(message.get(), text), 0U) << id;
        EXPECT_EQ(text, written);
    }
    EXPECT_EQ(transport(message.get(), text, BROADCASTMETHOD_UNICAST), zr::mdp::NotFound);

    for (const auto &[id, prefix, begin] :
         {std::tuple{AOI_IE_DATA, 84U, "v=0"}, {AOI_IE_AUTHORIZATION_ID, 8U, "Digest"}})
    {
        const void *value = nullptr;
        ZR_ULONG length = 0;
        ASSERT_EQ(MDP_GetMsgIE(message.get(), id, &value, &length), 0U);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(value) % 4, 0U);
        const std::string whole(static_cast<const char *>(value), length);
        EXPECT_EQ(whole.find(begin), prefix);
        EXPECT_EQ(whole.find('\0', prefix), length - 1);
    }
}

TEST(AoiAnswer, GivesACodeAndNothingElseForWhatIsAbsentOrOfAnotherType)
{
    const MessagePtr empty = zr::aoi::writeAnswer({});
    std::string out = "before";
    const auto codeOf = [&out](Get element, ZR_ULONG id, std::string_view value) {
        const MessagePtr message = newRequest(AOI_MSG_RTSP_SETUP);
        EXPECT_EQ(zr::mdp::append(message.get(), id, {value}), zr::mdp::Ok);
        return element(message.get(), out);
    };
    for (const auto &[id, get, written] : gets)
    {
        EXPECT_EQ(get(empty.get(), out), zr::mdp::NotFound) << id;
        EXPECT_EQ(get(nullptr, out), zr::mdp::NullArgument) << id;
        // none of these is a number, a text behind its prefix with its own zero, or a transport
        for (const std::string &value : {std::string(), std::string("abc"), std::string(3, '\0').append("de")})
            EXPECT_EQ(codeOf(get, id, value), zr::mdp::Malformed) << id << ' ' << value.size();
    }
    EXPECT_EQ(codeOf(CAOIIETool::getAOIIESDP, AOI_IE_DATA, std::string(84, '\0')), zr::mdp::Malformed);
    EXPECT_EQ(codeOf(transport<>, AOI_IE_TRANSPORT, std::string(13, '\1') + '\0'), zr::mdp::Malformed) << "the port";
    EXPECT_EQ(out, "before");

    const void *value = &out;
    ZR_ULONG length = 9;
    EXPECT_EQ(MDP_GetMsgIE(empty.get(), AOI_IE_DATA, &value, &length), zr::mdp::NotFound);
    EXPECT_TRUE(value == &out && length == 9);
}

/// What comes back does not matter here, what is touched does.
void readEverything(const tagMDPMsg *message)
{
    std::string text;
    for (const auto &[id, get, written] : gets)
        get(message, text);
    zr::aoi::Request request;
    zr::aoi::readRequest(message, request);
}

// the sanitizer is the judge: cut at every byte, and with every number of it damaged
TEST(AoiHostile, IsNeverReadBeyondItsEnd)
{
    for (const auto &make : {fullRequest, fullAnswer})
    {
        const MessagePtr whole = make();
        const ZR_ULONG used = numberAt(whole.get(), usedAt);
        for (ZR_ULONG size = zr::mdp::prefixSize; size < used; ++size)
        {
            const MessagePtr cut = copyOf(whole.get(), size);
            setNumberAt(cut.get(), capacityAt, size);
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
