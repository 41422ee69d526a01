/// @file
/// The parts of an answer's mapping, each read on its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mapping.h"

namespace zr::dispatch {

/// What a URL consists of, in place: everything but the numbers is the read text's.
struct UrlParts
{
    bool secure = false;
    uint16_t port = 0;       ///< 554 or 322 when not given
    std::string_view host;   ///< brackets of an IPv6 literal are cut off
    std::string_view scheme; ///< with its "://"
    std::string_view rest;   ///< from the host on, behind the credentials

    std::string withoutCredentials() const;
};

/// Reads a URL; none when it is no rtsp or rtsps URL with a host.
std::optional<UrlParts> readUrl(std::string_view text);

/// What a SETUP answer's Transport header agreed on.
struct AgreedTransport
{
    aoi::TransportAddress plain;  ///< the sender, or the connection's far end when interleaved
    aoi::TransportAddress method; ///< the group when multicast was asked for, else the same
    media::TrackTransport track;  ///< not filled for the relation to a TV wall
};

/// What a SETUP asked for.
struct TransportQuestion
{
    const aoi::TransportElement &element;
    const ChannelSet &taken;               ///< by the tracks before it
    unsigned setups = 0;                   ///< n of the request
    const DescribedGroup *group = nullptr; ///< that the description names for its track; null: none
};

/// Reads it (RFC 2326, 12.39).
/// @param problem  receives what is wrong when there is nothing usable, or another kind than asked
std::optional<AgreedTransport> readTransport(const TransportQuestion &asked, const rtsp::Message &response,
                                             const Ends &ends, std::string &problem);

/// A numeric address that packets can come from; empty when it is none. Quotes and brackets are cut off.
std::string numericAddress(std::string_view text);

/// Whether it is the numeric address of a multicast group.
bool isGroup(const std::string &address);

/// Whether two numeric addresses are both of IPv4, or both of IPv6.
bool isSameFamily(std::string_view one, std::string_view other);

/// Takes a line of a description with its end off the text.
std::string_view takeLine(std::string_view &text);

/// It ends at its first CR, too.
std::string_view withoutEnd(std::string_view line);

/// The value of a control attribute; none when the line is another.
std::optional<std::string_view> controlOf(std::string_view line);

/// Where a description says that its sections are sent to, at most 16 of them; empty when none is sent to a group.
std::vector<DescribedGroup> readGroups(std::string_view sdp);

/// The group of the track that a SETUP's URL names by its control attribute, else of the section at its place; null
/// when the description names none.
const DescribedGroup *groupFor(const Session &session, std::string_view url, unsigned setups);

/// Chooses among the challenges of an answer (RFC 2617, 3.2.1 and 2) and writes the choice as the plug-in reads it:
/// Digest with MD5, or Basic where no Digest is offered at all, so that nobody can talk a password out of a client that
/// could do better.
/// @param problem  receives why there is none
std::optional<std::string> chooseChallenge(const rtsp::Message &response, std::string &problem);

/// The description in an answer's body, ended before its first NUL; none when it is not SDP.
std::optional<std::string_view> readDescription(const rtsp::Message &response);

/// The description with the rtpmap attribute of RFC 3551 in each section whose (first) payload type is a static one
/// that has none.
std::string completeRtpmaps(std::string_view sdp);

/// The description of an ONVIF source with a control attribute in its only section, if it has none: the plug-in needs
/// one, but such a stream has the session's URL (RFC 2326, C.1.1), which is the session's control attribute or the
/// base.
/// @param base  the content base, or the URL that was asked
std::string completeControl(std::string sdp, const std::string &base);

/// Why the plug-in could make nothing of an ONVIF source's description, and would go on waiting; empty when it can: it
/// takes codec and control URL of the first video, wherever behind it they stand.
std::string descriptionProblem(std::string_view sdp);

/// Whether a control attribute is to be joined to the content base.
bool hasRelativeControls(std::string_view sdp);

} // namespace zr::dispatch
