#include "failure.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "zr_platform.h"
#include "zr_rtsp/codes.h"

namespace zr::host {
namespace {

struct Words
{
    ZR_ULONG code;
    ExitCode exit;
    const char *meaning;
    const char *advice;
};

constexpr const char *readTheLog = "run it again with --log-level info: the log says what the server answered";
constexpr const char *checkAddress =
    "check the address and the port, and that the device is on and reachable from here";

// Below 1000 RTSP's statuses (RFC 2326, 7.1.1).
constexpr Words words[] = {
    {400, ExitCode::Refused, "the server did not understand the request", readTheLog},
    {401, ExitCode::Credentials, "the server asks for credentials", "give --user and --password"},
    {403, ExitCode::Credentials, "the server forbids it, or asks for an authentication that is not known here",
     readTheLog},
    {404, ExitCode::Refused, "the server has no such stream", "check the path of the URL"},
    {415, ExitCode::Refused, "the server's answer holds no description (SDP) that can be used",
     "check that the URL names a stream"},
    {453, ExitCode::Refused, "the server has not enough bandwidth left", "end other sessions of this device"},
    {454, ExitCode::Refused, "the server does not know the session",
     "begin anew: the device may have ended it, by its time-out or a restart; --trace shows what was said"},
    {457, ExitCode::Refused, "the server cannot play this range",
     "check --from and --to against the recording's length; a live stream takes neither"},
    {461, ExitCode::Refused, "the server does not offer this transport", "try the other one: --tcp or --udp"},
    {502, ExitCode::Refused, "the server's answer names no session", readTheLog},
    {503, ExitCode::Refused, "the server cannot serve now", "try again later, or end other sessions of this device"},
    {505, ExitCode::Refused, "the server speaks another version of RTSP than 1.0",
     "look in the device's settings for RTSP 1.0, or for another port"},
    {551, ExitCode::Refused, "the server does not offer what is required of it",
     "for a replay it must be an ONVIF recorder; play and download require nothing"},
    {ZR_RTSP_NO_ANSWER, ExitCode::Unreachable, "no answer came that could be used", readTheLog},
    {ZR_RTSP_SETUP_FAILED, ExitCode::Unreachable, "the server did not answer", readTheLog},
    {ZR_RTSP_REQUEST_SEND_FAILED, ExitCode::Internal, "the request could not be sent", readTheLog},
    {ZR_RTSP_WRONG_STATE, ExitCode::Internal, "the session is not in a state for it", readTheLog},
    {ZR_RTSP_PLAY_FAILED, ExitCode::Unreachable, "the server did not answer", readTheLog},
    {ZR_RTSP_SPEED_CHANGE_FAILED, ExitCode::Unreachable, "the server did not answer", readTheLog},
    {ZR_RTSP_DRAG_FAILED, ExitCode::Unreachable, "the server did not answer", readTheLog},
    {ZR_RTSP_PAUSE_FAILED, ExitCode::Unreachable, "the server did not answer", readTheLog},
};

/// Whether what was wrong with an answer is that it is one of HTTP, or a page.
bool speaksHttp(const std::string &text)
{
    constexpr const char *beginnings[] = {"\"HTTP/1.", "\"<!DOCTYPE", "\"<!doctype", "\"<html", "\"<HTML"};
    return std::any_of(std::begin(beginnings), std::end(beginnings),
                       [&](const char *one) { return text.find(one) != std::string::npos; });
}

constexpr const char *otherTunnel =
    "try the other kind of tunnel: --http-one (one connection) where it was --http, --http where it was --http-one";
constexpr const char *unverified = "; --insecure goes on without verifying, for a network that is trusted";

struct Problem
{
    const char *meaning;
    const char *advice;
    ZR_ULONG problem;
    bool untrusted;
};

constexpr Problem problems[] = {
    {"no TLS with the server",
     "check that this port serves rtsps, with TLS 1.2 or newer; where it does not, rtsp:// goes without",
     ZR_CONNECTION_TLS_FAILED, false},
    {"the server's certificate comes from an issuer that is not known here",
     "give the issuer's certificate, or the server's own, with --ca FILE", ZR_CONNECTION_FOREIGN_ISSUER, true},
    {"the server's certificate is for another host name", "use the name or address that the certificate was made for",
     ZR_CONNECTION_WRONG_NAME, true},
    {"the server's certificate has expired", "renew it on the device", ZR_CONNECTION_EXPIRED, true},
    {"the server's certificate is not valid yet", "check the clocks of this machine and of the device",
     ZR_CONNECTION_NOT_YET_VALID, true},
    {"the server's certificate is not accepted", "replace it on the device", ZR_CONNECTION_NOT_TRUSTED, true},
    {"the server cannot be reached", checkAddress, ZR_CONNECTION_FAILED, false},
    {"the connection to the server broke off",
     "check that the port is that of the RTSP server (with TLS: rtsps://), and the device's own log",
     ZR_CONNECTION_BROKEN, false},
    {"the session cannot be tunnelled",
     "name the port in the URL where the device takes HTTP, or try without --http; --trace shows what it answers",
     ZR_CONNECTION_NO_TUNNEL, false},
    {"the session cannot be tunnelled", otherTunnel, ZR_CONNECTION_TUNNEL_CONNECTIONS, false},
    {"the tunnel needs credentials", "check --user and --password", ZR_CONNECTION_TUNNEL_CREDENTIALS, false},
};

} // namespace

Failure::Failure(ExitCode exit, const std::string &step, ZR_ULONG code, const std::string &meaning,
                 const std::string &advice)
    : std::runtime_error(step + " failed: " + meaning + (code == 0 ? "" : " (code " + std::to_string(code) + ")"))
    , m_exit(exit)
    , m_step(step)
    , m_code(code)
    , m_meaning(meaning)
    , m_advice(advice)
{
}

Failure requestFailed(const std::string &step, ZR_ULONG code, const std::string &text)
{
    const std::string because = text.empty() ? "" : ": " + text;
    for (const Words &row : words)
    {
        if (row.code == code)
        {
            return {row.exit, step, code, row.meaning + because, row.advice};
        }
    }
    const bool status = code >= 300 && code < 1000;
    return {status ? ExitCode::Refused : ExitCode::Internal, step, code,
            (status ? "the server refused the request" : "it could not be done") + because, readTheLog};
}

Failure notAnswered(const std::string &step, ZR_ULONG code, std::chrono::seconds waited, bool everAnswered,
                    bool tunnelled)
{
    return {ExitCode::Unreachable, step, code,
            "the server did not answer within " + std::to_string(waited.count()) + " s" +
                (everAnswered ? ", though it did before" : ", though it took the connection"),
            everAnswered ? "look for other clients of the device, and into its own log; restart it: it may hang"
            : tunnelled  ? otherTunnel
                         : "check that the device speaks RTSP on this port; restart it: it may hang"};
}

Failure connectionFailed(const std::string &step, ZR_ULONG code, ZR_ULONG problem, const std::string &text, bool played)
{
    if (problem == ZR_CONNECTION_BROKEN && !played && speaksHttp(text))
    {
        return {ExitCode::Unreachable, step, code, "a web server answers on this port: " + text,
                "name the port of the RTSP server, 554 unless the device says otherwise; --http for a tunnel"};
    }
    for (const Problem &row : problems)
    {
        if (row.problem == problem)
        {
            const bool lost = played && problem == ZR_CONNECTION_BROKEN;
            const bool unknown = problem == ZR_CONNECTION_TUNNEL_CREDENTIALS;
            return {lost      ? ExitCode::Lost
                    : unknown ? ExitCode::Credentials
                              : ExitCode::Unreachable,
                    step, code, row.meaning + (text.empty() ? "" : ": " + text),
                    row.advice + std::string(row.untrusted ? unverified : "")};
        }
    }
    return requestFailed(step, code);
}

Failure wrongUsage(const std::string &meaning)
{
    return {ExitCode::Usage, "reading the command line", 0, meaning};
}

Failure notWritten(const std::string &what, const std::string &file, ZR_ULONG code)
{
    if (code == ZR_MEDIA_NO_MEDIA)
    {
        return {ExitCode::Output, what, code, "nothing came that " + file + " could begin with",
                "let it run until the next key frame; `check URL` tells whether media arrives"};
    }
    constexpr uintmax_t smallestSpace = 1U << 20U;
    std::error_code unknown;
    const std::string folder = std::filesystem::path(file).parent_path().string();
    const auto space = std::filesystem::space(folder.empty() ? "." : folder, unknown);
    if (!unknown && space.available < smallestSpace)
    {
        return {ExitCode::Output, what, code, file + " could not be written whole: the disk is full",
                "make room there; what was written stays, and download --continue fetches the rest"};
    }
    return {ExitCode::Output, what, code, file + " could not be written",
            code == ZR_MEDIA_FAILED
                ? "check quotas and limits (ulimit -f); a picture needs a decoder, such as gstreamer1.0-libav's for "
                  "H.265; --log-level error says why"
                : "check the folder, and that the library was built with GStreamer; --log-level info tells more"};
}

} // namespace zr::host
