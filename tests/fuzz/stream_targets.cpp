// Bytes of the far side on their way in: RTSP and interleaved frames, RTP and RTCP, the hand-off packet.
#include "fuzz.h"
#include "port.h"
#include "rtsp_message.h"

using zr::rtsp::Parser;
using namespace zr::media;

/// What a stream brings, as text, when its bytes come in pieces, lent or not.
static std::string eventsOf(zr::fuzz::Input stream, bool narrow, bool lent, size_t first, size_t others)
{
    Parser parser(narrow ? zr::rtsp::Limits{24, 3, 80, 40} : zr::rtsp::Limits());
    std::string events;
    for (size_t piece = first; !stream.left.empty(); piece = others)
    {
        const std::vector<uint8_t> part = stream.bytes(piece);
        const auto give = lent ? &Parser::lend : &Parser::append;
        (parser.*give)(reinterpret_cast<const char *>(part.data()), part.size());
        for (auto event = parser.next(); event != Parser::Event::NeedMore; event = parser.next())
        {
            const auto &[response, status, reason, method, uri, headers, body] = parser.message();
            const auto frame = event == Parser::Event::Frame ? parser.frame() : zr::rtsp::Frame();
            events += std::to_string(status) + reason + '|' + method + '|' + uri + '|' + body + '|' + parser.error();
            for (const zr::rtsp::Header &header : headers)
                events += '|' + header.name + ':' + header.value;
            events.append(frame.data, frame.data + frame.size);
            if (event == Parser::Event::Error)
                return events;
        }
    }
    return events;
}

/// A byte for the limits, two for the place of a cut, and a stream: where it is cut changes nothing.
void zr::fuzz::parser(Input input)
{
    const bool narrow = input.byte() % 2 == 1;
    const size_t cut = size_t{input.byte()} * 256 + input.byte() + 1;
    const std::string events = eventsOf(input, narrow, false, SIZE_MAX, SIZE_MAX);
    assert(events == eventsOf(input, narrow, true, cut, SIZE_MAX));
    assert(events == eventsOf(input, narrow, true, SIZE_MAX, SIZE_MAX));
    assert(events == eventsOf(input, narrow, cut % 2 == 1, cut % 7 + 1, cut % 5 + 1));
}

/// A packet's size in words (0: whole, else the header is made for its text), the packet, and a description.
void zr::fuzz::handOff(Input input)
{
    const uint8_t words = input.byte();
    std::vector<uint8_t> packet = input.bytes(words == 0 ? SIZE_MAX : size_t{words} * 4);
    packet.resize(words == 0 ? packet.size() : size_t{words} * 4);
    if (words != 0)
        packet.insert(packet.begin(), {0x90, 1, 16, 39, 16, 39, 0, 0, 16, 39, 0, 0, 0, 0, 0, words});
    HandOff read;
    std::string problem;
    const bool taken = readHandOff(packet.data(), packet.size(), read, problem);
    Description description = Description::fromSdp(input.left);
    description.confirm(read);
    assert(taken == problem.empty() && description.sections().size() <= 18);
}

/// A description's size, the description, and packets: channel (4 and more: time passes), size, bytes.
void zr::fuzz::media(Input input)
{
    static std::shared_ptr<MediaPort> other, port; // another one, so that the media thread goes on
    assert((other || MediaPort::open(2, "127.0.0.1", other) == 0) && MediaPort::open(1, "127.0.0.1", port) == 0);
    std::vector<uint8_t> sdp = input.bytes(input.byte());
    sdp.push_back(0);
    port->setDescription(reinterpret_cast<const char *>(sdp.data()));
    for (const uint8_t track : {uint8_t{0}, uint8_t{1}})
    {
        TrackTransport transport;
        transport.interleaved = true;
        transport.rtpChannel = track;
        transport.rtcpChannel = track | 2U;
        port->setUpTrack(track, transport, [](uint8_t, const void *data, size_t size) {
            assert(readRtcp(static_cast<const uint8_t *>(data), size));
            return true;
        });
    }
    Reception reception;
    for (TimePoint now = Clock::now(); !input.left.empty();)
    {
        const uint8_t channel = input.byte();
        const std::vector<uint8_t> packet = input.bytes(input.byte());
        now += std::chrono::milliseconds(1U << channel % 32U);
        if (channel >= 4)
            port->tick(now);
        port->interleavedFrame(channel % 4U, packet.data(), packet.size());
        if (const auto rtp = readRtp(packet.data(), packet.size()))
            reception.take(*rtp, channel % 2 == 0 ? 90000 : 8000, now);
        reception.report(now);
    }
    ZrMediaStatistics statistics{};
    port->statistics(statistics);
    ZrReplayFacts replay{};
    const bool told = port->replay(replay) == 0;
    assert(told == (replay.ullFrames != 0) && replay.ullFrames <= statistics.ullPackets);
    assert(replay.ullCleanPoints <= replay.ullFrames && replay.ullDiscontinuities <= replay.ullFrames);
    port->close();
}
