#include "media_program.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "client_program.h"
#include "rtsp_text.h"

namespace media {

namespace {

using client::Clock;
using client::Json;
using client::Meter;

/// A folder for recordings, removed with what is in it.
class Folder
{
public:
    Folder()
    {
        m_path = (std::filesystem::temp_directory_path() / "media_client.XXXXXX").string();
        if (mkdtemp(m_path.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), m_path);
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    const std::string &path() const { return m_path; }

private:
    std::string m_path;
};

/// From the first packet to the last one that comes.
struct Received
{
    uint64_t before = 0, packets = 0;
    Meter::Spent spent{};
};

Received receive(Receiver &receiver, uint64_t expected)
{
    constexpr auto look = std::chrono::milliseconds(200);                         // each asks every stream
    const auto silence = std::chrono::milliseconds(expected == 0 ? 1500 : 10000); // on a machine that does much else
    Received received;
    received.before = received.packets = receiver.packets();
    const Meter meter;
    for (auto heard = Clock::now(); Clock::now() - heard < silence; std::this_thread::sleep_for(look))
    {
        if (expected != 0 && received.packets >= expected)
            break;
        const uint64_t packets = receiver.packets();
        if (packets == received.packets)
            continue;
        heard = Clock::now();
        received.packets = packets;
        received.spent = meter.spent();
    }
    return received;
}

uint64_t bytesOf(const Options &options)
{
    uint64_t bytes = 0;
    for (unsigned i = 0; i < options.streams && !options.recordings.empty(); ++i)
        bytes += std::filesystem::file_size(options.recording(i));
    return bytes;
}

Json measure(const Options &options, const Receivers &receivers, const std::string &name)
{
    const auto receiver = receivers.at(name)(options);
    for (unsigned i = 0; i < options.streams; ++i)
        receiver->add();
    const long threads = client::ofProcess("Threads:");
    const Received received = receive(*receiver, options.packets);
    const Meter meter;
    if (!options.recordings.empty())
        receiver->endRecordings();
    const uint64_t counted = received.packets - received.before;
    const double cpu = received.spent.cpuUs() + (options.recordings.empty() ? 0 : meter.spent().cpuUs());
    const double perPacket = counted == 0 ? 0 : cpu / static_cast<double>(counted);
    return {{"client", name},
            {"mode", "media"},
            {"n", options.streams},
            {"packets", received.packets},
            {"wall_s", received.spent.seconds},
            {"user_us", received.spent.userUs},
            {"sys_us", received.spent.sysUs},
            {"cpu_us_per_packet", perPacket},
            {"cpu_ms_per_stream_s", cpu / 1000 / options.streams / received.spent.seconds},
            {"recorded_bytes", bytesOf(options)},
            {"threads", threads}};
}

} // namespace

int run(int argc, char **argv, const Receivers &receivers)
{
    Options options;
    std::string name;
    bool records = false;
    std::vector<std::string> names;
    for (const auto &known : receivers)
        names.push_back(known.first);
    CLI::App app{"Receives media from a sink server on 127.0.0.1 until nothing comes any more, and says as JSON what\n"
                 "a packet cost: the processor time of this program, from when all streams play.\n"};
    app.add_option("--port", options.port)->required();
    app.add_option("-n", options.streams, "streams")->required()->check(CLI::PositiveNumber);
    app.add_option("--receiver", name)->check(CLI::IsMember(names))->required();
    app.add_option("--packets", options.packets, "that are sent altogether: then it is over");
    app.add_flag("--udp", options.udp, "RTP over UDP; else interleaved");
    app.add_flag("--record", records, "into a temporary folder; the files' end is counted as well");
    CLI11_PARSE(app, argc, argv);
    try
    {
        constexpr rlim_t ofStream = 5, ofRecording = 16;
        client::needDescriptors(options.streams * (ofStream + (records ? ofRecording : 0)));
        const std::unique_ptr<Folder> folder = records ? std::make_unique<Folder>() : nullptr;
        options.recordings = records ? folder->path() : "";
        std::printf("%s\n", measure(options, receivers, name).dump().c_str());
        return 0;
    }
    catch (const std::exception &failed)
    {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), failed.what());
        return 1;
    }
}

PlainSession::PlainSession(const Options &options)
    : m_options(options)
    , m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_fd < 0 || connect(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), "connecting");
}

PlainSession::~PlainSession()
{
    close(m_fd);
}

void PlainSession::play(uint16_t rtpPort)
{
    const std::string transport =
        rtpPort == 0 ? "RTP/AVP/TCP;unicast;interleaved=0-1"
                     : "RTP/AVP;unicast;client_port=" + std::to_string(rtpPort) + '-' + std::to_string(rtpPort + 1);
    const std::string described = ask("DESCRIBE", m_options.url(), "Accept: application/sdp\r\n");
    const std::string setUp =
        ask("SETUP", text::controlUrl(described, m_options.url(), 0), "Transport: " + transport + "\r\n");
    m_id = text::behind(setUp, "Session: ", ";\r");
    ask("PLAY", m_options.url(), "Session: " + m_id + "\r\n");
}

std::string PlainSession::ask(const std::string &method, const std::string &url, const std::string &headers)
{
    const std::string request =
        method + ' ' + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_cseq) + "\r\n" + headers + "\r\n";
    if (send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        throw std::system_error(errno, std::generic_category(), method);
    std::string answer = readAnswer();
    if (answer.compare(0, 12, "RTSP/1.0 200") != 0)
        throw std::runtime_error(method + " was refused: " + answer.substr(0, answer.find('\r')));
    return answer;
}

/// Byte by byte, for what follows is another's.
std::string PlainSession::readAnswer() const
{
    std::string answer;
    size_t whole = SIZE_MAX;
    while (answer.size() < whole)
    {
        char byte = 0;
        if (recv(m_fd, &byte, 1, 0) != 1)
            throw std::runtime_error("the connection was lost");
        answer += byte;
        if (whole == SIZE_MAX && answer.size() >= 4 && answer.compare(answer.size() - 4, 4, "\r\n\r\n") == 0)
        {
            const std::string length(text::behind(answer, "Content-Length: ", "\r"));
            whole = answer.size() + std::strtoul(length.c_str(), nullptr, 10);
        }
    }
    return answer;
}

} // namespace media
