// The parser: one table of streams, each of which must give the same events however it is cut.
#include <gmock/gmock.h>

#include "rtsp_message.h"

using namespace zr::rtsp;

namespace
{

struct Stream
{
    std::string name;
    std::string bytes;
    std::string events; ///< as Reader writes them
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

/// Feeds a parser and writes down what it says, a line an event.
class Reader
{
public:
    explicit Reader(const Limits &limits)
        : m_parser(limits)
    {
    }

    void feed(std::string_view bytes)
    {
        m_parser.append(bytes.data(), bytes.size());
        for (;;)
        {
            switch (m_parser.next())
            {
            case Parser::Event::NeedMore:
                return;
            case Parser::Event::Message:
                m_events += describe(m_parser.message()) + '\n';
                break;
            case Parser::Event::Frame:
                m_events += '$' + std::to_string(m_parser.frame().channel) + ' ' +
                            std::string(reinterpret_cast<const char *>(m_parser.frame().data), m_parser.frame().size) +
                            '\n';
                break;
            case Parser::Event::Error:
                m_failed = true;
                return;
            }
        }
    }

    std::string events() const
    {
        if (m_failed)
            return m_events + "error " + m_parser.error();
        return m_parser.midMessage() ? m_events + "..." : m_events;
    }

private:
    Parser m_parser;
    std::string m_events;
    bool m_failed = false;
};

void check(const Stream &stream)
{
    SCOPED_TRACE(stream.name);
    Reader whole(stream.limits);
    whole.feed(stream.bytes);
    EXPECT_EQ(whole.events(), stream.events);
    Reader single(stream.limits);
    for (const char byte : stream.bytes)
        single.feed({&byte, 1});
    EXPECT_EQ(single.events(), stream.events) << "byte by byte";
    for (size_t cut = 1; cut < stream.bytes.size(); ++cut)
    {
        Reader halves(stream.limits);
        halves.feed(std::string_view(stream.bytes).substr(0, cut));
        halves.feed(std::string_view(stream.bytes).substr(cut));
        ASSERT_EQ(halves.events(), stream.events) << "cut at " << cut;
    }
}

const std::string ok = "RTSP/1.0 200 OK\r\n";

} // namespace

TEST(WireParser, GivesTheSameEventsHoweverTheStreamIsCut)
{
    using namespace std::string_literals;
    const Stream streams[] = {
        {"response", ok + "CSeq: 1\r\n\r\n", "200 OK|CSeq=1\n"},
        {"no reason, odd blanks", "RTSP/1.0  404 \r\nCSeq :  7\t\r\n\r\n", "404 |CSeq=7\n"},
        {"reason of several words", "RTSP/1.1 454 Session Not Found\r\n\r\n", "454 Session Not Found\n"},
        {"body and what follows", ok + "Content-length: 3\r\n\r\nabc" + ok + "\r\n",
         "200 OK|Content-length=3|body abc\n200 OK\n"},
        {"body that looks like a message", ok + "Content-Length: 4\r\n\r\n\r\n$a",
         "200 OK|Content-Length=4|body \r\n$a\n"},
        {"LF alone, mixed", "RTSP/1.0 200 OK\nCSeq: 1\r\n\n", "200 OK|CSeq=1\n"},
        {"CR twice", "RTSP/1.0 200 OK\r\r\nCSeq: 1\r\r\n\r\r\n", "200 OK|CSeq=1\n"},
        {"leading blank lines", "\r\n\n\r\n" + ok + "\r\n\r\n", "200 OK\n"},
        {"folded", ok + "Public: A,\r\n B,\r\n\t \r\n\tC\r\nX:\r\n y\r\n\r\n", "200 OK|Public=A, B, C|X=y\n"},
        {"same length twice", ok + "Content-Length: 2\r\ncontent-length: 02\r\n\r\nhi",
         "200 OK|Content-Length=2|content-length=02|body hi\n"},
        {"request", "ANNOUNCE rtsp://h/s?a=b RTSP/1.0\r\nCSeq: 3\r\nContent-Length: 1\r\n\r\nx",
         "ANNOUNCE rtsp://h/s?a=b|CSeq=3|Content-Length=1|body x\n"},
        {"frames between", "$\1\0\3abc$\0\0\0"s + ok + "\r\n$\xff\0\1\n$\0\0\1x"s,
         "$1 abc\n$0 \n200 OK\n$255 \n\n$0 x\n"},
        {"frame cut off", "$\0\1\0half"s, "..."},
        {"head cut off", ok + "CSeq: 1\r\n", "..."},
        {"body cut off", ok + "Content-Length: 9\r\n\r\nhalf", "..."},
        {"nothing but blank lines", "\r\n\r\n", ""},
        {"garbage", "\x01\xfegarbage\r\n", "error a control character in the line \"\\x01\\xfegarbage\""},
        {"another protocol", "HTTP/1.1 400 Bad Request\r\n\r\n",
         "error not an RTSP start line: \"HTTP/1.1 400 Bad Request\""},
        {"after a message", ok + "\r\nnonsense\r\n", "200 OK\nerror not an RTSP start line: \"nonsense\""},
        {"RTSP 2", "RTSP/2.0 200 OK\r\n\r\n", "error unsupported RTSP version: \"RTSP/2.0 200 OK\""},
        {"request of RTSP 2", "PLAY * RTSP/2.0\r\n\r\n", "error unsupported RTSP version: \"PLAY * RTSP/2.0\""},
        {"status", "RTSP/1.0 2000 OK\r\n\r\n", "error not an RTSP status: \"RTSP/1.0 2000 OK\""},
        {"low status", "RTSP/1.0 099 OK\r\n\r\n", "error not an RTSP status: \"RTSP/1.0 099 OK\""},
        {"method", "PL(AY) * RTSP/1.0\r\n\r\n", "error not an RTSP method: \"PL(AY) * RTSP/1.0\""},
        {"no colon", ok + "CSeq 1\r\n\r\n", "error not a header line: \"CSeq 1\""},
        {"no name", ok + " : 1\r\n\r\n", "error a continued header without its first line: \" : 1\""},
        {"NUL", ok + "A: b\0c\r\n\r\n"s, "error a control character in the line \"A: b\\x00c\""},
        {"bare CR", ok + "A: b\rInjected: c\r\n\r\n", "error a control character in the line \"A: b\\x0dInjected: c\""},
        {"negative length", ok + "Content-Length: -5\r\n\r\n", "error a negative Content-Length: \"-5\""},
        {"length of letters", ok + "Content-Length: 5x\r\n\r\n", "error not a Content-Length: \"5x\""},
        {"empty length", ok + "Content-Length:\r\n\r\n", "error not a Content-Length: \"\""},
        {"contradiction", ok + "Content-Length: 5\r\nContent-Length: 6\r\n\r\n",
         "error contradicting Content-Lengths: \"5\" and \"6\""},
        {"length beyond 64 bits", ok + "Content-Length: 99999999999999999999\r\n\r\n",
         "error the Content-Length \"99999999999999999999\" exceeds the limit of 1048576 bytes"},
    };
    for (const Stream &stream : streams)
        check(stream);
}

TEST(WireParser, HoldsItsLimitsToTheByte)
{
    const std::string line = "RTSP/1.0 200 " + std::string(20, 'k'); // 33 bytes, 34 with its CR
    const Stream streams[] = {
        {"line at the limit", line + "\r\n\r\n", "200 " + std::string(20, 'k') + '\n', {34, 9, 99, 9}},
        {"line above",
         line + "\r\n\r\n",
         "error a line exceeds the limit of 33 bytes: \"" + line + '"',
         {33, 9, 99, 9}},
        {"endless line",
         std::string(99, 'k'),
         "error a line exceeds the limit of 9 bytes: \"kkkkkkkkk\"",
         {9, 9, 99, 9}},
        {"headers at the limit", ok + "A: 1\r\nB: 2\r\n\r\n", "200 OK|A=1|B=2\n", {99, 2, 99, 9}},
        {"headers above", ok + "A: 1\r\nB: 2\r\n\r\n", "error more than 1 headers in a message", {99, 1, 99, 9}},
        {"head at the limit", ok + "A: 1\r\n 2\r\n\r\n", "200 OK|A=1 2\n", {99, 9, 29, 9}},
        {"head above",
         ok + "A: 1\r\n 2\r\n\r\n",
         "error a message's head exceeds the limit of 28 bytes",
         {99, 9, 28, 9}},
        {"body at the limit", ok + "Content-Length: 2\r\n\r\nhi", "200 OK|Content-Length=2|body hi\n", {99, 9, 99, 2}},
        {"body above",
         ok + "Content-Length: 2\r\n\r\nhi",
         "error the Content-Length \"2\" exceeds the limit of 1 bytes",
         {99, 9, 99, 1}},
        {"limits are a message's",
         ok + "A: 1\r\n\r\n" + ok + "A: 1\r\n\r\n",
         "200 OK|A=1\n200 OK|A=1\n",
         {99, 1, 26, 9}},
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
    // messages and frames pile up in the parser, each append ends inside the next one
    std::string bytes;
    for (int i = 0; i < 2000; ++i)
        bytes += "RTSP/1.0 200 OK\r\nCSeq: " + std::to_string(i) + "\r\nContent-Length: 40\r\n\r\n" +
                 std::string(40, 'b') + std::string("$\0\0\4abcd", 8);
    Parser parser;
    int messages = 0;
    int frames = 0;
    for (size_t at = 0; at < bytes.size(); at += 97)
    {
        parser.append(bytes.data() + at, std::min<size_t>(97, bytes.size() - at));
        const Parser::Event event = parser.next();
        messages += event == Parser::Event::Message;
        frames += event == Parser::Event::Frame;
    }
    for (Parser::Event event = parser.next(); event != Parser::Event::NeedMore; event = parser.next())
    {
        ASSERT_NE(event, Parser::Event::Error) << parser.error();
        messages += event == Parser::Event::Message;
        frames += event == Parser::Event::Frame;
        if (event == Parser::Event::Message)
        {
            ASSERT_EQ(*parser.message().find("cseq"), std::to_string(messages - 1));
        }
    }
    EXPECT_EQ(messages, 2000);
    EXPECT_EQ(frames, 2000);
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
