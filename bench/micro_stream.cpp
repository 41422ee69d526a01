// Bytes of the far side on their way in: RTSP messages, interleaved frames, packets of a media port.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "media_mark.h"
#include "port.h"
#include "rtsp_message.h"

using zr::rtsp::Parser;
using namespace zr::media;

namespace {

constexpr size_t READ_BYTES = 16384; ///< at once, as a connection does
constexpr size_t RTP_BYTES = 1400;
constexpr int64_t BURST = 32; ///< datagrams that are sent at once; they fit into a socket's buffer

/// A packet of H.264 in the order of its number.
std::vector<uint8_t> rtpPacket(uint16_t number)
{
    std::vector<uint8_t> packet(RTP_BYTES, 0x55);
    const auto high = static_cast<uint8_t>(number >> 8U);
    const auto low = static_cast<uint8_t>(number & 0xFFU);
    const std::array<uint8_t, 13> head = {0x80, 96, high, low, 0, 0, high, low, 1, 2, 3, 4, 0x41};
    std::copy(head.begin(), head.end(), packet.begin());
    return packet;
}

void parse(benchmark::State &state, const std::string &stream, int64_t things)
{
    Parser parser;
    int64_t seen = 0;
    while (state.KeepRunning())
    {
        for (size_t at = 0; at < stream.size(); at += READ_BYTES)
        {
            parser.append(stream.data() + at, std::min(READ_BYTES, stream.size() - at));
            for (auto event = parser.next(); event != Parser::Event::NeedMore; event = parser.next())
            {
                if (event == Parser::Event::Error)
                {
                    state.SkipWithError("the stream is not understood");
                    return;
                }
                ++seen;
            }
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
    state.SetItemsProcessed(seen);
    if (seen != things * state.iterations())
        state.SkipWithError("the stream holds another number of messages and frames");
}

void parserAnswers(benchmark::State &state)
{
    const std::string answer =
        "RTSP/1.0 200 OK\r\nCSeq: 3\r\nDate: Mon, Nov 23 2026 08:00:00 GMT\r\nServer: camera/1.0\r\n"
        "Session: 6B8B4567;timeout=60\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1;"
        "ssrc=1A2B3C4D;mode=\"PLAY\"\r\nCache-Control: no-cache\r\n\r\n";
    constexpr int64_t answers = 256;
    std::string stream;
    for (int64_t i = 0; i < answers; ++i)
        stream += answer;
    parse(state, stream, answers);
}
BENCHMARK(parserAnswers);

void parserMedia(benchmark::State &state)
{
    constexpr int64_t frames = 64;
    std::string stream;
    for (int64_t i = 0; i < frames; ++i)
    {
        const std::vector<uint8_t> packet = rtpPacket(static_cast<uint16_t>(i));
        stream += {'$', '\0', static_cast<char>(RTP_BYTES >> 8U), static_cast<char>(RTP_BYTES & 0xFFU)};
        stream.append(packet.begin(), packet.end());
    }
    parse(state, stream, frames);
}
BENCHMARK(parserMedia);

uint64_t packetsOf(MediaPort &port)
{
    ZrMediaStatistics statistics{};
    port.statistics(statistics);
    return statistics.ullPackets;
}

std::shared_ptr<MediaPort> openPort()
{
    std::shared_ptr<MediaPort> port;
    if (MediaPort::open(1, "127.0.0.1", port) == 0)
        port->setDescription("m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n");
    return port;
}

void interleavedPacket(benchmark::State &state)
{
    const std::shared_ptr<MediaPort> port = openPort();
    TrackTransport transport;
    transport.interleaved = true;
    port->setUpTrack(0, transport, [](uint8_t, const void *, size_t) { return true; });
    std::vector<uint8_t> packet = rtpPacket(0);
    uint16_t number = 0;
    while (state.KeepRunning())
    {
        ++number;
        packet[2] = static_cast<uint8_t>(number >> 8U);
        packet[3] = static_cast<uint8_t>(number & 0xFFU);
        port->interleavedFrame(0, packet.data(), packet.size());
    }
    if (packetsOf(*port) != static_cast<uint64_t>(state.iterations()))
        state.SkipWithError("not every packet was taken");
    port->close();
}
BENCHMARK(interleavedPacket);

/// Sends bursts of packets from a socket of its own.
class Sender
{
public:
    Sender()
        : m_at(*Endpoint::parse("127.0.0.1", 0))
    {
        std::array<UdpPair, 2> pairs;
        bindPairs(m_at, pairs);
        m_socket = std::move(pairs[0].rtp);
    }
    uint16_t port() const { return m_at.port(); }
    void burst(uint16_t to)
    {
        const Endpoint target = *Endpoint::parse("127.0.0.1", to);
        for (int64_t i = 0; i < BURST; ++i)
            sendTo(m_socket.get(), target, rtpPacket(m_number++));
    }

private:
    Endpoint m_at;
    Descriptor m_socket;
    uint16_t m_number = 0;
};

double cpuSeconds(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// What the process has computed but for the calling thread: here that is the media thread.
double othersCpuSeconds()
{
    return cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
}

/// Waits for the packets without much computing.
bool arrived(MediaPort &port, uint64_t packets)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (packetsOf(port) < packets && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    return packetsOf(port) >= packets;
}

/// The media thread's processor time, from its wake-up on, for a burst of packets.
void udpPackets(benchmark::State &state)
{
    Sender sender;
    const std::shared_ptr<MediaPort> port = openPort();
    TrackTransport transport;
    transport.peerAddress = "127.0.0.1";
    transport.peerRtpPort = sender.port();
    transport.clientRtpPort = port->firstPort();
    port->setUpTrack(0, transport, {});
    uint64_t sent = 0;
    while (state.KeepRunning())
    {
        const double before = othersCpuSeconds();
        sender.burst(port->firstPort());
        sent += BURST;
        if (!arrived(*port, sent))
        {
            state.SkipWithError("not every packet arrived");
            break;
        }
        state.SetIterationTime(std::max(0.0, othersCpuSeconds() - before));
    }
    state.SetItemsProcessed(state.iterations() * BURST);
    port->close();
}
BENCHMARK(udpPackets)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// A bare loop's processor time for the same burst: it waits, and reads what there is.
void udpPacketsBare(benchmark::State &state)
{
    Sender sender;
    auto at = *Endpoint::parse("127.0.0.1", 0);
    std::array<UdpPair, 2> pairs;
    bindPairs(at, pairs);
    const int socket = pairs[0].rtp.get();
    const Descriptor events(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{EPOLLIN, {}};
    epoll_ctl(events.get(), EPOLL_CTL_ADD, socket, &event);
    std::atomic<int64_t> received{0};
    std::atomic<bool> ends{false};
    std::thread loop([&] {
        std::array<uint8_t, 2048> buffer{};
        while (!ends)
        {
            epoll_wait(events.get(), &event, 1, 100);
            while (recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0)
                ++received;
        }
    });
    int64_t sent = 0;
    while (state.KeepRunning())
    {
        const double before = othersCpuSeconds();
        sender.burst(at.port());
        sent += BURST;
        while (received < sent)
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        state.SetIterationTime(std::max(0.0, othersCpuSeconds() - before));
    }
    state.SetItemsProcessed(state.iterations() * BURST);
    ends = true;
    loop.join();
}
BENCHMARK(udpPacketsBare)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// The mark by which the keep-alive knows of a new port's media, among many ports.
void markOfNewPort(benchmark::State &state)
{
    std::vector<std::shared_ptr<std::atomic<bool>>> marks;
    const auto others = static_cast<ZR_ULONG>(state.range(0));
    for (ZR_ULONG port = 1; port <= others; ++port)
        marks.push_back(zr::common::mediaMark(port));
    ZR_ULONG next = others;
    while (state.KeepRunning())
        benchmark::DoNotOptimize(zr::common::mediaMark(++next));
}
BENCHMARK(markOfNewPort)->Arg(100)->Arg(10000);

/// A media port with its four sockets from its opening to its closing, among other ones.
void portAmong(benchmark::State &state)
{
    std::vector<std::shared_ptr<MediaPort>> others(static_cast<size_t>(state.range(0)));
    ZR_ULONG last = 0;
    for (std::shared_ptr<MediaPort> &port : others)
        MediaPort::open(++last, "127.0.0.1", port);
    while (state.KeepRunning())
    {
        std::shared_ptr<MediaPort> port;
        if (MediaPort::open(last + 1, "127.0.0.1", port) != 0)
        {
            state.SkipWithError("no port could be opened");
            break;
        }
        port->close();
    }
}
BENCHMARK(portAmong)->Arg(2)->Arg(200)->Unit(benchmark::kMicrosecond); // more may meet the limit of open files

} // namespace
