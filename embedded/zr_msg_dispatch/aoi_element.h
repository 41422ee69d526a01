/// @file
/// The values of information elements (IEs) by type: texts with their own zero, numbers, transports. A get that fails
/// leaves its result as it was.
#pragma once

#include <string>
#include <string_view>

#include "aoi_message.h"
#include "message_buffer.h"

namespace zr::aoi {

using mdp::Status;

/// The bytes in front of the text of AOI_IE_DATA, and of AOI_IE_AUTHORIZATION_ID in an answer. They are zero.
constexpr size_t dataPrefix = 84;
constexpr size_t challengePrefix = 8;

/// Stands behind the UA ID of a destination, and its zero, that whoever asks takes for an ONVIF source.
constexpr std::string_view onvifMark("\0onvif", 6);

/// Whether a text may become part of a header: no CR, LF or NUL.
bool isHeaderText(std::string_view text);

/// Why a transport cannot be written, or null. Ports count only where they go on the wire: those of RTP over UDP and
/// of the relation to a TV wall.
const char *addressProblem(const TransportElement &transport);

/// @param mark  stands behind the text, within its own zero
Status appendText(tagAOIMsg *message, ZR_ULONG id, std::string_view prefix, std::string_view text,
                  std::string_view mark = {});
Status appendNumber(tagAOIMsg *message, ZR_ULONG id, ZR_ULONG number);
Status appendTransport(tagAOIMsg *message, ZR_ULONG id, const TransportElement &transport);

/// The text in a value of an IE, behind a prefix of that many bytes, up to its first zero. It stays the message's.
Status readText(std::string_view value, size_t prefix, std::string_view &text);
/// The transport in a value of an IE.
/// @param withMethod  whether the IE is AOI_IE_METHOD_TRANSPORT: the method is set then
Status readTransport(std::string_view value, bool withMethod, TransportElement &transport);

/// The text behind a prefix of that many bytes, up to its first zero.
Status getText(const tagAOIMsg *message, ZR_ULONG id, size_t prefix, std::string &text);
Status getNumber(const tagAOIMsg *message, ZR_ULONG id, ZR_ULONG &number);
/// The method is set where the IE is AOI_IE_METHOD_TRANSPORT.
Status getTransport(const tagAOIMsg *message, ZR_ULONG id, TransportElement &transport);

/// What an IE of each kind takes in a message, in bytes.
constexpr size_t textSize(size_t prefix, size_t length)
{
    return mdp::elementSize(prefix + length + 1);
}
constexpr size_t numberSize = mdp::elementSize(sizeof(ZR_ULONG));
constexpr size_t transportPrefix = 3 * sizeof(ZR_ULONG); ///< port, protocol, broadcast method

} // namespace zr::aoi
