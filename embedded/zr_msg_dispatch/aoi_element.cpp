#include "aoi_element.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "rtsp_text.h"

namespace zr::aoi {
namespace {

constexpr std::string_view zero("\0", 1);
using TransportNumbers = std::array<ZR_ULONG, transportPrefix / sizeof(ZR_ULONG)>;

/// What may stand in a Transport parameter: names, IPv4 and IPv6 addresses, but nothing that begins another parameter.
bool isAddress(std::string_view text)
{
    const auto allowed = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               std::string_view(".:-_%[]").find(c) != std::string_view::npos;
    };
    return !text.empty() && std::all_of(text.begin(), text.end(), allowed);
}

} // namespace

bool isHeaderText(std::string_view text)
{
    return !rtsp::anyBelow<0x20>(text) ||
           std::none_of(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

const char *addressProblem(const TransportElement &transport)
{
    if (!transport.method)
    {
        if (!isAddress(transport.address))
            return "the TV wall's address is no address";
        if (transport.port == 0 || transport.port == 65535)
            return "the TV wall's port and the one above cannot be an RTP pair";
        return nullptr;
    }
    // two tracks take four ports from the first one on
    const bool onTheWire = transport.protocol == PROTOCOL_UDP && transport.method != BROADCASTMETHOD_MULTICAST;
    if (onTheWire && (transport.port == 0 || transport.port > 65532))
        return "the local port is not within 1 to 65532";
    return nullptr;
}

Status appendText(tagAOIMsg *message, ZR_ULONG id, std::string_view prefix, std::string_view text,
                  std::string_view mark)
{
    return mdp::append(message, id, {prefix, text, mark, zero});
}

Status appendNumber(tagAOIMsg *message, ZR_ULONG id, ZR_ULONG number)
{
    return mdp::append(message, id, {std::string_view(reinterpret_cast<const char *>(&number), sizeof(number))});
}

Status appendTransport(tagAOIMsg *message, ZR_ULONG id, const TransportElement &transport)
{
    const TransportNumbers numbers{transport.port, transport.protocol, transport.method.value_or(BROADCASTMETHOD_NONE)};
    const std::string_view prefix(reinterpret_cast<const char *>(numbers.data()), transportPrefix);
    return appendText(message, id, prefix, transport.address);
}

Status readText(std::string_view value, size_t prefix, std::string_view &text)
{
    if (value.size() <= prefix || value.back() != '\0')
        return mdp::Malformed;
    text = value.data() + prefix;
    return mdp::Ok;
}

Status readTransport(std::string_view value, bool withMethod, TransportElement &transport)
{
    std::string_view address;
    const Status status = readText(value, transportPrefix, address);
    if (status != mdp::Ok)
        return status;
    TransportNumbers numbers{};
    std::memcpy(numbers.data(), value.data(), transportPrefix);
    if (numbers[0] > 0xFFFF)
        return mdp::Malformed;
    transport.address = address;
    transport.port = static_cast<uint16_t>(numbers[0]);
    transport.protocol = static_cast<tagProtocol>(numbers[1]);
    transport.method.reset();
    if (withMethod)
        transport.method = static_cast<tagBroadcastmethod>(numbers[2]);
    return mdp::Ok;
}

Status getText(const tagAOIMsg *message, ZR_ULONG id, size_t prefix, std::string &text)
{
    std::string_view value;
    Status status = mdp::find(message, id, value);
    if (status == mdp::Ok)
        status = readText(value, prefix, value);
    if (status == mdp::Ok)
        text = value;
    return status;
}

Status getNumber(const tagAOIMsg *message, ZR_ULONG id, ZR_ULONG &number)
{
    std::string_view value;
    const Status found = mdp::find(message, id, value);
    if (found != mdp::Ok)
        return found;
    if (value.size() != sizeof(number))
        return mdp::Malformed;
    std::memcpy(&number, value.data(), sizeof(number));
    return mdp::Ok;
}

Status getTransport(const tagAOIMsg *message, ZR_ULONG id, TransportElement &transport)
{
    std::string_view value;
    const Status found = mdp::find(message, id, value);
    return found == mdp::Ok ? readTransport(value, id == AOI_IE_METHOD_TRANSPORT, transport) : found;
}

} // namespace zr::aoi
