#include <algorithm>

#include "mapping_parts.h"
#include "rtsp_text.h"

namespace {

using namespace zr::dispatch;
namespace aoi = zr::aoi;
namespace rtsp = zr::rtsp;

/// One transport of a Transport header.
struct Offer
{
    bool tcp = false;
    bool unicast = false;
    bool multicast = false;
    std::optional<std::string_view> interleaved, clientPort, serverPort, port, ttl;
    std::string_view source, destination;
};

void readParameter(std::string_view text, Offer &offer)
{
    const size_t equals = std::min(text.find('='), text.size());
    const std::string_view name = rtsp::trimmed(text.substr(0, equals));
    const std::string_view value = rtsp::trimmed(text.substr(std::min(equals + 1, text.size())));
    if (rtsp::sameText(name, "unicast"))
        offer.unicast = true;
    else if (rtsp::sameText(name, "multicast"))
        offer.multicast = true;
    else if (rtsp::sameText(name, "interleaved"))
        offer.interleaved = value;
    else if (rtsp::sameText(name, "client_port"))
        offer.clientPort = value;
    else if (rtsp::sameText(name, "server_port"))
        offer.serverPort = value;
    else if (rtsp::sameText(name, "port"))
        offer.port = value;
    else if (rtsp::sameText(name, "ttl"))
        offer.ttl = value;
    else if (rtsp::sameText(name, "source"))
        offer.source = value;
    else if (rtsp::sameText(name, "destination"))
        offer.destination = value;
}

std::optional<Offer> readOffer(std::string_view text)
{
    const std::string_view kind = rtsp::takePiece(text, ';');
    Offer offer;
    offer.tcp = rtsp::sameText(kind, "RTP/AVP/TCP");
    if (!offer.tcp && !rtsp::sameText(kind, "RTP/AVP") && !rtsp::sameText(kind, "RTP/AVP/UDP"))
        return std::nullopt;
    while (!text.empty())
        readParameter(rtsp::takePiece(text, ';'), offer);
    return offer;
}

bool isKindAsked(const Offer &offer, const aoi::TransportElement &asked)
{
    const bool tcp = asked.protocol == PROTOCOL_TCP;
    if (asked.method && tcp)
        return (offer.tcp || offer.interleaved) && !offer.multicast;
    if (offer.interleaved || offer.tcp != tcp)
        return false;
    if (asked.method == BROADCASTMETHOD_MULTICAST)
        return offer.multicast || !offer.unicast;
    return !offer.multicast;
}

struct Pair
{
    uint16_t first = 0;
    uint16_t second = 0;
};

/// "4588-4589" or "4588", whose second is the next; none when it is neither or exceeds the maximum.
std::optional<Pair> readPair(std::string_view text, uint16_t maximum)
{
    const size_t dash = std::min(text.find('-'), text.size());
    const auto first = rtsp::parseNumber(rtsp::trimmed(text.substr(0, dash)), maximum);
    if (!first)
        return std::nullopt;
    auto second = std::optional<uint32_t>(*first == 0 && maximum == UINT16_MAX ? 0 : *first + 1);
    if (dash < text.size())
        second = rtsp::parseNumber(rtsp::trimmed(text.substr(dash + 1)), maximum);
    if (!second || *second > maximum)
        return std::nullopt;
    return Pair{static_cast<uint16_t>(*first), static_cast<uint16_t>(*second)};
}

std::optional<Pair> readPorts(const std::optional<std::string_view> &text, Pair absent)
{
    return text ? readPair(*text, UINT16_MAX) : absent;
}

bool readInterleaved(const Offer &offer, unsigned setups, const Ends &ends, AgreedTransport &agreed)
{
    const auto asked = static_cast<uint8_t>(2 * setups);
    const auto channels =
        offer.interleaved ? readPair(*offer.interleaved, UINT8_MAX) : Pair{asked, static_cast<uint16_t>(asked + 1)};
    if (!channels || channels->first == channels->second)
        return false;
    agreed.track.interleaved = true;
    agreed.track.rtpChannel = static_cast<uint8_t>(channels->first);
    agreed.track.rtcpChannel = static_cast<uint8_t>(channels->second);
    agreed.track.peerAddress = ends.peerAddress;
    agreed.plain = aoi::TransportAddress{ends.peerAddress, ends.peerPort};
    agreed.method = agreed.plain;
    return true;
}

/// The source that an answer names, when it can be one; else empty. Nobody sends from a group.
std::string sourceOf(const Offer &offer)
{
    const std::string address = numericAddress(offer.source);
    return isGroup(address) ? std::string() : address;
}

/// Who sends to a group: whom the answer names, else whom the description lets in, best the server itself.
std::string groupSource(const Offer &offer, const DescribedGroup *described, const std::string &peer)
{
    std::string source = sourceOf(offer);
    if (!source.empty() || described == nullptr || described->sources.empty())
        return source;
    const auto &sources = described->sources;
    return std::find(sources.begin(), sources.end(), peer) != sources.end() ? peer : sources.front();
}

/// What the answer does not say of the group, the description does. Who is reached over IPv4 can join no group of IPv6,
/// nor let in a sender there, and the other way round.
bool readMulticast(const Offer &offer, Pair receiver, const DescribedGroup *described, const Ends &ends,
                   zr::media::TrackTransport &track)
{
    auto ports = readPorts(offer.port, receiver);
    track.group = numericAddress(offer.destination);
    if (described != nullptr && (track.group.empty() || track.group == described->address))
    {
        track.group = described->address;
        if (ports && ports->first == 0)
            ports->first = described->port;
    }
    else
        described = nullptr;
    if (!ports || ports->first == 0 || ports->first == UINT16_MAX || !isGroup(track.group))
        return false;
    const std::string source = groupSource(offer, described, ends.peerAddress);
    if (!isSameFamily(track.group, ends.peerAddress) || (!source.empty() && !isSameFamily(source, track.group)))
        return false;
    track.multicast = true;
    track.sourceNamed = !source.empty();
    track.peerAddress = track.sourceNamed ? source : ends.peerAddress;
    track.groupPort = track.clientRtpPort = ports->first;
    track.groupTtl = static_cast<uint8_t>(offer.ttl ? rtsp::parseNumber(*offer.ttl, UINT8_MAX).value_or(0) : 0);
    return true;
}

bool readUdp(const Offer &offer, const TransportQuestion &asked, const Ends &ends, AgreedTransport &agreed)
{
    const auto sender = readPorts(offer.serverPort, {});
    const auto receiver = readPorts(offer.clientPort, {});
    if (!sender || !receiver)
        return false;
    zr::media::TrackTransport &track = agreed.track;
    track.peerAddress = sourceOf(offer);
    if (track.peerAddress.empty() || !isSameFamily(track.peerAddress, ends.peerAddress))
        track.peerAddress = ends.peerAddress;
    track.peerRtpPort = sender->first;
    track.peerRtcpPort = sender->second;
    track.clientRtpPort = receiver->first;
    if (track.clientRtpPort == 0)
        track.clientRtpPort = static_cast<uint16_t>(asked.element.port + 2 * asked.setups);
    const bool multicast = asked.element.method == BROADCASTMETHOD_MULTICAST;
    if (multicast && !readMulticast(offer, *receiver, asked.group, ends, track))
        return false;
    agreed.plain = aoi::TransportAddress{track.peerAddress, track.peerRtpPort};
    agreed.method = multicast ? aoi::TransportAddress{track.group, track.groupPort} : agreed.plain;
    return true;
}

} // namespace

namespace zr::dispatch {

std::optional<AgreedTransport> readTransport(const TransportQuestion &asked, const rtsp::Message &response,
                                             const Ends &ends, std::string &problem)
{
    const std::string *header = response.find("Transport");
    if (header == nullptr)
    {
        problem = "the SETUP answer has no Transport";
        return std::nullopt;
    }
    std::string_view offers = *header;
    const auto offer = readOffer(rtsp::takePiece(offers, ','));
    if (!offer || !isKindAsked(*offer, asked.element))
    {
        problem = "the SETUP answer has a Transport of another kind than asked: " + rtsp::quoted(*header);
        return std::nullopt;
    }
    AgreedTransport agreed;
    const bool interleaved = asked.element.method && asked.element.protocol == PROTOCOL_TCP;
    if (!(interleaved ? readInterleaved(*offer, asked.setups, ends, agreed) : readUdp(*offer, asked, ends, agreed)))
    {
        problem = "the SETUP answer's Transport has unusable ports, channels or addresses: " + rtsp::quoted(*header);
        return std::nullopt;
    }
    const zr::media::TrackTransport &track = agreed.track;
    if (interleaved && (asked.taken[track.rtpChannel] || asked.taken[track.rtcpChannel]))
    {
        problem = "the SETUP answer's Transport has channels that are another track's: " + rtsp::quoted(*header);
        return std::nullopt;
    }
    return agreed;
}

} // namespace zr::dispatch
