// The parser: one table of streams, each of which must give the same events however it is cut.
#include <gtest/gtest.h>

#include "rtsp_message.h"

using namespace zr::rtsp;

namespace {

struct Stream
{
    std::string bytes;
    std::string events; ///< a line an event, "..." when something is missing
    Limits limits = {};
};

std::string describe(const Message &message)
{
    std::string out =
        message.response ? std::to_string(message.status) + ' ' + message.reason : message.method + ' ' + message.uri;
    for (const Header &header : message.headers)
        out += '|' + header.name + '=' + header.value;
    return message.body.empty() ? out : out + "|body " + message.body;
}

using Give = void (Parser::*)(const char *, size_t);

/// What a parser says of a stream that comes in these pieces, given by turns in two ways; none stays where it was.
std::string eventsOf(const std::vector<std::string_view> &pieces, const Limits &limits,
                     std::pair<Give, Give> gives = {&Parser::append, &Parser::append})
{
    Parser parser(limits);
    std::string out;
    for (const std::string_view piece : pieces)
    {
        const std::vector<char> bytes(piece.begin(), piece.end());
        (parser.*gives.first)(bytes.data(), bytes.size());
        std::swap(gives.first, gives.second);
        for (auto event = parser.next(); event != Parser::Event::NeedMore; event = parser.next())
        {
            const auto &[channel, data, size] = parser.frame();
            if (event == Parser::Event::Error)
                return out + "error " + parser.error();
            if (event == Parser::Event::Message)
                out += describe(parser.message()) + '\n';
            else
                out += '$' + std::to_string(channel) + ' ' + std::string(data, data + size) + '\n';
        }
    }
    return parser.midMessage() ? out + "..." : out;
}

/// However it is cut, a stream must give the same events.
void check(const Stream &stream)
{
    const std::string_view bytes = stream.bytes;
    std::vector<std::string_view> single;
    for (size_t at = 0; at < bytes.size(); ++at)
        single.push_back(bytes.substr(at, 1));
    constexpr Give copied = &Parser::append, lent = &Parser::lend;
    for (const auto &gives : {std::pair{copied, copied}, {lent, lent}, {copied, lent}, {lent, copied}})
    {
        EXPECT_EQ(eventsOf(single, stream.limits, gives), stream.events) << "byte by byte";
        for (size_t cut = 0; cut < bytes.size(); ++cut)
            ASSERT_EQ(eventsOf({bytes.substr(0, cut), bytes.substr(cut)}, stream.limits, gives), stream.events) << cut;
    }
}

const std::string ok = "RTSP/1.0 200 OK\r\n";

} // namespace

TEST(WireParser, GivesTheSameEventsHoweverTheStreamIsCut)
{
    using namespace std::string_literals;
    const Stream streams[] = {
        {ok + "CSeq: 1\r\n\r\n", "200 OK|CSeq=1\n"},
        {"RTSP/1.0  404 \r\nCSeq :  7\t\r\n\r\n", "404 |CSeq=7\n"},
        {"RTSP/1.1 454 Session Not Found\r\n\r\n", "454 Session Not Found\n"},
        {ok + "Content-length: 4\r\n\r\n\r\n$a" + ok + "\r\n", "200 OK|Content-length=4|body \r\n$a\n200 OK\n"},
        {"RTSP/1.0 200 OK\nCSeq: 1\r\n\n", "200 OK|CSeq=1\n"},
        {"RTSP/1.0 200 OK\r\r\nCSeq: 1\r\r\n\r\r\n", "200 OK|CSeq=1\n"},
        {"\r\n\n\r\n" + ok + "\r\n\r\n", "200 OK\n"},
        {ok + "Public: A,\r\n B,\r\n\t \r\n\tC\r\nX:\r\n y\r\n\r\n", "200 OK|Public=A, B, C|X=y\n"},
        {ok + "Content-Length: 1\r\ncontent-length: 01\r\n\r\nh", "200 OK|Content-Length=1|content-length=01|body h\n"},
        {"ANNOUNCE rtsp://h/s?a=b RTSP/1.0\r\nCSeq: 3\r\n\r\n", "ANNOUNCE rtsp://h/s?a=b|CSeq=3\n"},
        {"$\1\0\3abc$\0\0\0"s + ok + "\r\n$\xff\0\1\n$\0\0\1x"s, "$1 abc\n$0 \n200 OK\n$255 \n\n$0 x\n"},
        {"$\0\1\0half"s, "..."},
        {ok + "CSeq: 1\r\n", "..."},
        {ok + "Content-Length: 9\r\n\r\nhalf", "..."},
        {"\x01\xfegarbage\r\n", "error a control character in the line \"\\x01\\xfegarbage\""},
        {ok + "\r\nnonsense\r\n", "200 OK\nerror not an RTSP start line: \"nonsense\""},
        {"PLAY * RTSP/2.0\r\n\r\n", "error unsupported RTSP version: \"PLAY * RTSP/2.0\""},
        {"RTSP/1.0 2000 OK\r\n\r\n", "error not an RTSP status: \"RTSP/1.0 2000 OK\""},
        {"RTSP/1.0 099 OK\r\n\r\n", "error not an RTSP status: \"RTSP/1.0 099 OK\""},
        {"PL(AY) * RTSP/1.0\r\n\r\n", "error not an RTSP method: \"PL(AY) * RTSP/1.0\""},
        {ok + "CSeq 1\r\n\r\n", "error not a header line: \"CSeq 1\""},
        {ok + " : 1\r\n\r\n", "error a continued header without its first line: \" : 1\""},
        {ok + "A: b\rInjected: c\r\n\r\n", "error a control character in the line \"A: b\\x0dInjected: c\""},
        {ok + "Content-Length: -5\r\n\r\n", "error a negative Content-Length: \"-5\""},
        {ok + "Content-Length: 5x\r\n\r\n", "error not a Content-Length: \"5x\""},
        {ok + "Content-Length:\r\n\r\n", "error not a Content-Length: \"\""},
        {ok + "Content-Length: 5\r\nContent-Length: 6\r\n\r\n", "error contradicting Content-Lengths: \"5\" and \"6\""},
        {ok + "Content-Length: 99999999999999999999\r\n\r\n",
         "error the Content-Length \"99999999999999999999\" exceeds the limit of 1048576 bytes"},
    };
    for (const Stream &stream : streams)
        check(stream);
}

TEST(WireParser, HoldsItsLimitsToTheByte)
{
    const std::string twoHeaders = ok + "A: 1\r\nB: 2\r\n\r\n";
    const std::string folded = ok + "A: 1\r\n 2\r\n\r\n";
    const std::string body = ok + "Content-Length: 2\r\n\r\nhi";
    const std::string lineTooLong = "error a line exceeds the limit of ";
    const Stream streams[] = {
        // limits: line, headers, head, body
        {ok + "\r\n", "200 OK\n", {16, 9, 99, 9}},
        {ok + "\r\n", lineTooLong + "15 bytes: \"RTSP/1.0 200 OK\"", {15, 9, 99, 9}},
        {std::string(99, 'k'), lineTooLong + "9 bytes: \"kkkkkkkkk\"", {9, 9, 99, 9}},
        {twoHeaders, "200 OK|A=1|B=2\n", {99, 2, 99, 9}},
        {twoHeaders, "error more than 1 headers in a message", {99, 1, 99, 9}},
        {folded, "200 OK|A=1 2\n", {99, 9, 29, 9}},
        {folded, "error a message's head exceeds the limit of 28 bytes", {99, 9, 28, 9}},
        {folded + folded, "200 OK|A=1 2\n200 OK|A=1 2\n", {99, 1, 29, 9}},
        {body, "200 OK|Content-Length=2|body hi\n", {99, 9, 99, 2}},
        {body, "error the Content-Length \"2\" exceeds the limit of 1 bytes", {99, 9, 99, 1}},
    };
    for (const Stream &stream : streams)
        check(stream);
}

TEST(WireParser, StaysWithItsErrorAndKeepsItsQuoteShort)
{
    Parser parser;
    const std::string garbage = std::string(4000, '\x80') + '\n';
    parser.append(garbage.data(), garbage.size());
    ASSERT_EQ(parser.next(), Parser::Event::Error);
    EXPECT_LT(parser.error().size(), 150u);
    const std::string error = parser.error();
    parser.append("RTSP/1.0 200 OK\r\n\r\n", 19);
    EXPECT_EQ(parser.next(), Parser::Event::Error);
    EXPECT_EQ(parser.error(), error);
    EXPECT_FALSE(parser.midMessage());
}

TEST(WireParser, TakesManyPiecesThatWereNotAskedForInBetween)
{
    // messages pile up in the parser, each append ends inside the next one
    std::string bytes;
    for (int i = 0; i < 2000; ++i)
        bytes += ok + "CSeq: " + std::to_string(i) + "\r\nContent-Length: 40\r\n\r\n" + std::string(40, 'b');
    Parser parser;
    int messages = 0;
    const auto take = [&] {
        if (parser.next() != Parser::Event::Message)
            return false;
        EXPECT_EQ(*parser.message().find("cseq"), std::to_string(messages++));
        return true;
    };
    for (size_t at = 0; at < bytes.size(); at += 97, take())
        parser.append(bytes.data() + at, std::min<size_t>(97, bytes.size() - at));
    while (take())
        continue;
    EXPECT_EQ(messages, 2000);
    EXPECT_TRUE(parser.message().body.empty()) << "an idle parser keeps no message";
}

TEST(WireParser, AnswersTheServersOwnRequests)
{
    Message request;
    request.method = "OPTIONS";
    request.headers = {{"cseq", "9"}, {"SESSION", "abc;timeout=5"}, {"Other", "x"}};
    EXPECT_EQ(writeResponse(request, 200, {{"Public", "OPTIONS\r\nEvil: 1"}}),
              "RTSP/1.0 200 OK\r\nCSeq: 9\r\nSession: abc;timeout=5\r\nPublic: OPTIONS  Evil: 1\r\n\r\n");
    EXPECT_EQ(writeResponse(Message(), 501), "RTSP/1.0 501 Not Implemented\r\n\r\n");
}
