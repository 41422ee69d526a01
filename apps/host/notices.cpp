#include "notices.h"

#include <algorithm>

#include "zr_rtsp/codes.h"

namespace zr::host {
namespace {

struct Words
{
    ZR_ULONG notice;
    const char *event;
    const char *cause;
};

constexpr const char *ended = "the server ended the session";
constexpr const char *lost = "the connection to the server was lost";

constexpr Words words[] = {
    {ZR_RTSP_NOTICE_ENDED, ended, ""},
    {ZR_RTSP_NOTICE_END_OF_STREAM, ended, ", end of stream"},
    {ZR_RTSP_NOTICE_SERVER_RESOURCES, ended, ", it needs its resources or was told to"},
    {ZR_RTSP_NOTICE_SILENT, "the server is silent", ", neither media nor answers"},
    {ZR_RTSP_NOTICE_CONNECTION_LOST, lost, ""},
    {ZR_RTSP_NOTICE_ONVIF_LOST, lost, ""},
    {ZR_RTSP_NOTICE_ENDED_GUOBIAO, ended, ", guobiao"},
};

constexpr std::chrono::seconds longestPause{30};
constexpr double longEnough = 10; // seconds of media after which a loss counts as the first one

} // namespace

std::string noticeText(ZR_ULONG notice)
{
    for (const Words &row : words)
    {
        if (row.notice == notice)
        {
            return std::string(row.event) + " (" + std::to_string(notice) + row.cause + ")";
        }
    }
    return "the plug-in tells of something unknown (" + std::to_string(notice) + ")";
}

bool mayPass(const Failure &failed)
{
    switch (failed.exit())
    {
    case ExitCode::Unreachable:
    case ExitCode::Refused:
    case ExitCode::NoMedia:
    case ExitCode::Lost:
        return true;
    default:
        return false;
    }
}

std::chrono::seconds Backoff::next(double seconds)
{
    const auto pause = seconds >= longEnough ? std::chrono::seconds(1) : m_next;
    m_next = std::min(pause * 2, longestPause);
    return pause;
}

} // namespace zr::host
