#include "mapping.h"
#include "result_codes.h"
#include "rtsp_text.h"

namespace {

using namespace zr::dispatch;
namespace rtsp = zr::rtsp;

// what the requester is told: why its session ends
constexpr ZR_ULONG endOfStream = 2001;
constexpr ZR_ULONG otherReason = 2002;
constexpr ZR_ULONG forcedEnd = 2003;

constexpr const char *understood = "OPTIONS, GET_PARAMETER, SET_PARAMETER, ANNOUNCE, REDIRECT";

/// The number that a notice begins with ('2104 "End-of-Stream Reached" event-date=...'); none when it has none.
std::optional<uint32_t> noticeNumber(const rtsp::Message &request)
{
    const std::string *header = request.find("Notice");
    if (header == nullptr)
        header = request.find("x-notice");
    if (header == nullptr)
        return std::nullopt;
    const std::string_view text = rtsp::trimmed(*header);
    return rtsp::parseNumber(text.substr(0, text.find_first_not_of("0123456789")), 9999);
}

std::optional<ZR_ULONG> quitReason(uint32_t notice)
{
    if (notice == 2101 || notice == 2104 || notice == 2306)
        return endOfStream;
    if (notice >= 5400 && notice <= 5499)
        return forcedEnd;
    const uint32_t kind = notice / 1000;
    if (notice != 2103 && (kind == 2 || kind == 4 || kind == 5))
        return otherReason;
    return std::nullopt;
}

} // namespace

namespace zr::dispatch {

ServerRequest judgeServerRequest(const rtsp::Message &request)
{
    ServerRequest judged;
    if (!rtsp::anyPiece(understood, ',', [&](std::string_view method) { return method == request.method; }))
        judged.status = statusNotImplemented;
    if (request.method == "OPTIONS")
        judged.headers.push_back({"Public", understood});
    if (request.method == "REDIRECT")
    {
        const std::string *location = request.find("Location");
        judged.quitReason = forcedEnd;
        judged.says = "leads to " + rtsp::quoted(location ? *location : "");
    }
    if (request.method == "ANNOUNCE")
    {
        const std::optional<uint32_t> notice = noticeNumber(request);
        judged.quitReason = notice ? quitReason(*notice) : std::nullopt;
        judged.says = notice ? "gives notice " + std::to_string(*notice) : "gives no notice";
    }
    return judged;
}

} // namespace zr::dispatch
