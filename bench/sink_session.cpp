#include "sink_session.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <strings.h>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include "rtsp_text.h"

namespace sink {

namespace {

constexpr size_t longestHead = 65536;
/// Of slices: nothing that a parser takes for a start code.
constexpr int filler = 0xA5;

std::string base64(std::string_view text)
{
    std::string out((text.size() + 2) / 3 * 4 + 1, '\0');
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                        reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
    out.resize(static_cast<size_t>(size));
    return out;
}

template <typename Number>
bool parse(std::string_view text, Number &out)
{
    return std::from_chars(text.data(), text.data() + text.size(), out).ec == std::errc();
}

std::string ok(const std::string &cseq, std::string_view headers)
{
    return std::string("RTSP/1.0 200 OK\r\nCSeq: ").append(cseq).append("\r\n").append(headers).append("\r\n");
}

void put(char *at, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        at[i] = static_cast<char>(value >> (8 * (bytes - 1 - i)));
}

} // namespace

std::string Counts::json() const
{
    const nlohmann::ordered_json all = {{"connections", connections},
                                        {"connections_open", connectionsOpen},
                                        {"connections_peak", connectionsPeak},
                                        {"sessions_opened", opened},
                                        {"sessions_played", played},
                                        {"sessions_ended", ended},
                                        {"sessions_complete", complete},
                                        {"sessions_dropped", dropped},
                                        {"sessions_expired", expired},
                                        {"sessions_open", open},
                                        {"sessions_peak", peak},
                                        {"playing", playing},
                                        {"playing_peak", playingPeak},
                                        {"keepalives", keepAlives},
                                        {"challenges", challenges},
                                        {"auth_right", authRight},
                                        {"auth_wrong", authWrong},
                                        {"refused", refused},
                                        {"rtp_sent", rtpSent},
                                        {"rtp_skipped", rtpSkipped},
                                        {"rtp_worst_gap_ms", rtpWorstGapMs},
                                        {"rtcp_received", rtcpReceived},
                                        {"methods", methods}};
    return all.dump();
}

std::string_view Request::find(std::string_view name) const
{
    for (std::string_view rest = headers; !rest.empty();)
    {
        const size_t end = std::min(rest.find("\r\n"), rest.size());
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 2, rest.size()));
        if (line.size() <= name.size() || line[name.size()] != ':' ||
            strncasecmp(line.data(), name.data(), name.size()) != 0)
            continue;
        const size_t value = line.find_first_not_of(' ', name.size() + 1);
        return value == std::string_view::npos ? std::string_view() : line.substr(value);
    }
    return {};
}

Session::Session(const Options &options, Counts &counts, uint64_t number)
    : m_options(options)
    , m_counts(counts)
    , m_id(std::to_string(100000000 + number))
    , m_nonce(text::md5(std::to_string(Clock::now().time_since_epoch().count()) + '/' + m_id))
    , m_ssrc(static_cast<uint32_t>(number))
{
}

Session::~Session()
{
    if (m_state == State::Ready || m_state == State::Playing)
        ++m_counts.dropped;
    become(State::Over);
}

/// The one place that counts who is there.
void Session::become(State state)
{
    const auto isOpen = [](State which) { return which == State::Ready || which == State::Playing; };
    m_counts.open += static_cast<uint64_t>(isOpen(state)) - static_cast<uint64_t>(isOpen(m_state));
    m_counts.playing +=
        static_cast<uint64_t>(state == State::Playing) - static_cast<uint64_t>(m_state == State::Playing);
    m_counts.peak = std::max(m_counts.peak, m_counts.open);
    m_counts.playingPeak = std::max(m_counts.playingPeak, m_counts.playing);
    m_state = state;
}

bool Session::expire(Clock::time_point now)
{
    const bool over = (m_state == State::Ready || m_state == State::Playing) &&
                      now - m_heard > std::chrono::seconds(m_options.timeout);
    if (over)
    {
        ++m_counts.expired;
        become(State::Over);
    }
    return over;
}

bool Session::take(std::string &in, std::string &out, uint16_t rtpPort)
{
    size_t done = 0;
    while (done < in.size())
    {
        const std::string_view rest = std::string_view(in).substr(done);
        if (rest[0] == '$') // RTCP
        {
            const size_t size = rest.size() < 4 ? SIZE_MAX
                                                : 4 + (static_cast<size_t>(static_cast<unsigned char>(rest[2])) << 8U) +
                                                      static_cast<unsigned char>(rest[3]);
            if (size > rest.size())
                break;
            ++m_counts.rtcpReceived;
            done += size;
            continue;
        }
        const size_t head = rest.find("\r\n\r\n");
        const size_t line = rest.find("\r\n");
        if (head == std::string_view::npos && rest.size() > longestHead)
            return false;
        if (head == std::string_view::npos)
            break;
        const size_t space = rest.find(' ');
        const size_t second = space < line ? rest.find(' ', space + 1) : std::string_view::npos;
        if (second >= line || rest.substr(second + 1, line - second - 1) != "RTSP/1.0")
            return false;
        const Request request = {rest.substr(0, space), rest.substr(space + 1, second - space - 1),
                                 rest.substr(line + 2, head - line)};
        size_t body = 0;
        parse(request.find("Content-Length"), body);
        if (body > longestHead)
            return false;
        if (head + 4 + body > rest.size())
            break;
        out += answer(request, rtpPort);
        done += head + 4 + body;
    }
    in.erase(0, done);
    return true;
}

std::string Session::answer(const Request &request, uint16_t rtpPort)
{
    const std::string cseq(request.find("CSeq"));
    const std::string_view method = request.method;
    ++m_counts.methods[std::string(method)];
    m_heard = Clock::now();
    if (!authorized(request))
    {
        ++m_counts.challenges;
        const std::string how =
            m_options.basic ? "Basic realm=\"sink\"" : "Digest realm=\"sink\", nonce=\"" + m_nonce + '"';
        return "RTSP/1.0 401 Unauthorized\r\nCSeq: " + cseq + "\r\nWWW-Authenticate: " + how + "\r\n\r\n";
    }
    const bool mine = mayGoOn(request);
    if (method == "OPTIONS" || method == "GET_PARAMETER" || method == "SET_PARAMETER")
    {
        if (!request.find("Session").empty() && !mine)
            return refuse(454, "Session Not Found", cseq);
        m_counts.keepAlives += mine ? 1 : 0;
        constexpr char methods[] =
            "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER, TEARDOWN\r\n";
        return ok(cseq, (mine ? sessionLine() : "") + (method == "OPTIONS" ? methods : ""));
    }
    if (method == "DESCRIBE")
        return describe(request, cseq);
    if (method == "SETUP")
        return setUp(request, cseq, rtpPort);
    if (!mine)
        return refuse(454, "Session Not Found", cseq);
    if (method == "PLAY")
        return play(cseq);
    if (method == "PAUSE" && m_state == State::Playing)
    {
        become(State::Ready);
        return ok(cseq, sessionLine());
    }
    if (method == "TEARDOWN")
    {
        ++m_counts.ended;
        m_counts.complete += m_described && m_everPlayed ? 1 : 0;
        become(State::Over);
        return ok(cseq, sessionLine());
    }
    return method == "PAUSE" ? refuse(455, "Method Not Valid in This State", cseq)
                             : refuse(501, "Not Implemented", cseq);
}

std::string Session::describe(const Request &request, const std::string &cseq)
{
    constexpr std::string_view sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=sink\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n"
                                     "a=control:*\r\na=range:npt=0-\r\n"
                                     "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                                     "a=fmtp:96 packetization-mode=1;profile-level-id=42e01e;"
                                     "sprop-parameter-sets=Z0LAHtkDxWhAAAADAEAAAAwDxYuS,aMuMsg==\r\n"
                                     "a=control:track1\r\n"
                                     "m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\na=control:track2\r\n";
    m_described = true;
    const std::string url(request.url);
    const std::string base = url.back() == '/' ? url : url + '/';
    return ok(cseq, "Server: sink\r\nContent-Type: application/sdp\r\nContent-Base: " + base +
                        "\r\nContent-Location: " + url + "\r\nContent-Length: " + std::to_string(sdp.size()) + "\r\n")
        .append(sdp);
}

std::string Session::setUp(const Request &request, const std::string &cseq, uint16_t rtpPort)
{
    if (m_state == State::Over || m_state == State::Playing)
        return refuse(455, "Method Not Valid in This State", cseq);
    if (m_state == State::Ready && !mayGoOn(request))
        return refuse(454, "Session Not Found", cseq);
    const std::string_view transport = request.find("Transport");
    Track track;
    std::string more;
    if (parse(text::behind(transport, "interleaved=", "-;,"), track.to) && track.to < 255)
        track.interleaved = true;
    else if (parse(text::behind(transport, "client_port=", "-;,"), track.to))
        more = ";server_port=" + std::to_string(rtpPort) + '-' + std::to_string(rtpPort + 1);
    else
        return refuse(461, "Unsupported Transport", cseq);
    if (m_setups++ == 0)
    {
        ++m_counts.opened;
        become(State::Ready);
        m_still = request.url.find("/still") != std::string_view::npos;
        m_track = track;
    }
    return ok(cseq, sessionLine() + "Transport: " + std::string(transport) + more + "\r\n");
}

std::string Session::play(const std::string &cseq)
{
    if (m_state != State::Playing)
    {
        m_counts.played += m_everPlayed ? 0 : 1;
        m_everPlayed = true;
        m_packetMade = m_heard;
        become(State::Playing);
    }
    return ok(cseq, sessionLine() + "Range: npt=0.000-\r\n");
}

std::string Session::refuse(int status, const char *reason, const std::string &cseq)
{
    ++m_counts.refused;
    return "RTSP/1.0 " + std::to_string(status) + ' ' + reason + "\r\nCSeq: " + cseq + "\r\n\r\n";
}

std::string Session::sessionLine() const
{
    return "Session: " + m_id + ";timeout=" + std::to_string(m_options.timeout) + "\r\n";
}

/// Whether it is of the session that is there.
bool Session::mayGoOn(const Request &request) const
{
    const std::string_view id = request.find("Session");
    return (m_state == State::Ready || m_state == State::Playing) && id.substr(0, id.find(';')) == m_id;
}

/// The requests that open or end something need credentials; those that others bring are looked at as well.
bool Session::authorized(const Request &request)
{
    if (m_options.user.empty())
        return true;
    const std::string_view header = request.find("Authorization");
    if (header.empty())
        return request.method != "DESCRIBE" && request.method != "SETUP" && request.method != "PLAY" &&
               request.method != "TEARDOWN";
    const bool right = rightCredentials(request, header);
    ++(right ? m_counts.authRight : m_counts.authWrong);
    return right;
}

bool Session::rightCredentials(const Request &request, std::string_view header) const
{
    if (m_options.basic)
        return header == "Basic " + base64(m_options.user + ':' + m_options.password);
    const auto value = [header](const char *key) { return std::string(text::behind(header, key, "\"")); };
    const std::string secret = text::md5(m_options.user + ":sink:" + m_options.password);
    return header.substr(0, 7) == "Digest " && value("username=\"") == m_options.user && value("realm=\"") == "sink" &&
           value("nonce=\"") == m_nonce &&
           value("response=\"") == text::digestResponse(secret, m_nonce, request.method, value("uri=\""));
}

/// Slices of H.264 (RFC 6184): one that is no key frame in a packet of its own, or of frames that are fragmented.
void Session::writePayload(char *payload) const
{
    constexpr unsigned keyFrameEvery = 50;
    const bool key = m_frames % keyFrameEvery == 0;
    const bool begins = m_packetsMade == 0;
    if (m_options.mediaRate == 0)
    {
        payload[0] = 0x41;
        return;
    }
    payload[0] = 0x7C; // a fragment of a slice that others refer to
    const bool ends = m_packetsMade + 1 == m_options.packetsOfFrame();
    payload[1] = static_cast<char>((begins ? 0x80 : 0) | (ends ? 0x40 : 0) | (key ? 5 : 1));
    payload[2] = static_cast<char>(!begins ? filler : key ? 0x88 : 0x9A); // the slice's type
}

/// Pictures of nothing: they are counted and recorded, not shown.
std::string_view Session::nextPacket()
{
    constexpr size_t frameHeader = 4, rtpHeader = 12;
    const size_t size = m_options.mediaSize;
    m_packet.resize(frameHeader + size, static_cast<char>(filler));
    char *const packet = m_packet.data() + frameHeader;
    if (m_packetsMade == 0)
    {
        const auto now = Clock::now();
        const auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(now - m_packetMade).count();
        m_counts.rtpWorstGapMs = std::max(m_counts.rtpWorstGapMs, int64_t{gap});
        m_packetMade = now;
        m_timestamp += 90 * m_options.mediaEvery;
    }
    const bool ends = m_packetsMade + 1 == m_options.packetsOfFrame();
    m_packet[0] = '$';
    m_packet[1] = static_cast<char>(m_track->to);
    put(m_packet.data() + 2, static_cast<uint32_t>(size), 2);
    put(packet, ends ? 0x80E0 : 0x8060, 2); // version 2, marker, payload type 96
    put(packet + 2, ++m_sequence, 2);
    put(packet + 4, m_timestamp, 4);
    put(packet + 8, m_ssrc, 4);
    writePayload(packet + rtpHeader);
    m_frames += ends ? 1 : 0;
    m_packetsMade = ends ? 0 : m_packetsMade + 1;
    return m_track->interleaved ? std::string_view(m_packet) : std::string_view(packet, size);
}

} // namespace sink
