// Bytes of the far side on their way in: RTSP and interleaved frames, the heads of HTTP tunnels, RTP and RTCP,
// metadata, the hand-off packet.
#include <filesystem>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "fuzz.h"
#include "http_head.h"
#include "masking.h"
#include "metadata_file.h"
#include "port.h"
#include "rtsp_message.h"
#include "zr_platform.h"

using zr::rtsp::Parser;
using namespace zr::media;

/// What a stream brings, as text, when its bytes come in pieces, lent or not.
static std::string eventsOf(zr::fuzz::Input stream, uint8_t how, bool lent, size_t first, size_t others)
{
    Parser parser((how & 1) != 0 ? zr::rtsp::Limits{24, 3, 80, 40} : zr::rtsp::Limits());
    if ((how & 2) != 0)
        parser.takeHttp();
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

/// A byte for the limits and whether HTTP may answer, two for the place of a cut, and a stream: where it is cut changes
/// nothing.
void zr::fuzz::parser(Input input)
{
    const uint8_t how = input.byte();
    const size_t cut = size_t{input.byte()} * 256 + input.byte() + 1;
    const std::string events = eventsOf(input, how, false, SIZE_MAX, SIZE_MAX);
    assert(events == eventsOf(input, how, true, cut, SIZE_MAX));
    assert(events == eventsOf(input, how, true, SIZE_MAX, SIZE_MAX));
    assert(events == eventsOf(input, how, cut % 2 == 1, cut % 7 + 1, cut % 5 + 1));
}

/// What the head of an HTTP answer says, when its bytes come in pieces; and what is left behind it.
static std::string headOf(zr::fuzz::Input stream, size_t first, size_t others)
{
    using zr::dispatch::HttpHead;
    HttpHead head;
    HttpHead::State state = HttpHead::State::NeedMore;
    std::string rest;
    for (size_t piece = first; !stream.left.empty(); piece = others)
    {
        const std::vector<uint8_t> part = stream.bytes(piece);
        std::string_view bytes(reinterpret_cast<const char *>(part.data()), part.size());
        if (state == HttpHead::State::NeedMore)
            state = head.take(bytes);
        rest.append(state == HttpHead::State::Whole ? bytes : std::string_view());
    }
    assert(head.text().size() <= 16384 && (state == HttpHead::State::Broken) != head.problem().empty());
    std::string told = std::to_string(static_cast<int>(state)) + std::to_string(head.message().status);
    if (state == HttpHead::State::Whole)
        told += head.message().reason + head.text() + '|' + rest;
    for (const zr::rtsp::Header &header : head.message().headers)
        told += '|' + header.name + ':' + header.value;
    return state == HttpHead::State::Broken ? head.problem() : told;
}

/// Two bytes for the place of a cut, and an HTTP answer: where it is cut changes nothing.
void zr::fuzz::tunnel(Input input)
{
    const size_t cut = size_t{input.byte()} * 256 + input.byte() + 1;
    const std::string told = headOf(input, SIZE_MAX, SIZE_MAX);
    assert(told == headOf(input, cut, SIZE_MAX) && told == headOf(input, cut % 7 + 1, cut % 5 + 1));
}

/// A text: nothing hidden is left in it.
void zr::fuzz::masking(Input input)
{
    for (const char *secret : {"w0rd", "w0rd/pass", "~q"})
        ZR_LogHide(secret);
    std::string text(input.left);
    zr::common::maskCredentials(text);
    assert(text.find("w0rd") == std::string::npos && text.find("~q") == std::string::npos);
}

/// Packets: a byte for marker, source and the recording's begin, their number's two bytes, size, and text.
void zr::fuzz::metadata(Input input)
{
    static const std::string recording =
        (std::filesystem::temp_directory_path() / ("zr_fuzz_" + std::to_string(getpid()))).string();
    {
        MetadataFile file(recording, true, 90000, [](bool, const std::string &) {});
        for (uint32_t timestamp = 0; !input.left.empty(); timestamp += 900000)
        {
            const uint8_t flags = input.byte();
            std::vector<uint8_t> packet = {0x80, static_cast<uint8_t>(96 | (flags & 0x80)), input.byte(), input.byte()};
            for (const uint32_t word : {timestamp, uint32_t{flags & 3U}})
                for (const int shift : {24, 16, 8, 0})
                    packet.push_back(static_cast<uint8_t>(word >> shift));
            const std::vector<uint8_t> text = input.bytes(input.byte());
            packet.insert(packet.end(), text.begin(), text.end());
            if ((flags & 4) != 0)
                file.setBegin(TimePoint(), flags);
            if ((flags & 8) != 0)
                file.setClock({flags & 3U, timestamp, int64_t{flags} << 54});
            file.take(packet, TimePoint(std::chrono::milliseconds(timestamp)));
        }
        file.finish();
    }
    std::ifstream written(recording + ".metadata.jsonl");
    for (std::string line; std::getline(written, line);)
        assert(nlohmann::json::parse(line).at("xml").get<std::string>().size() <= 3U << 20U);
    std::filesystem::remove(recording + ".metadata.jsonl");
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
