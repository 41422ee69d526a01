#include "continuation.h"

#include <algorithm>
#include <filesystem>

#include "output_file.h"
#include "zr_platform.h"

namespace zr::host {
namespace {

/// A file's times are rounded, and a server that takes the request to the letter must not begin behind the key frame.
constexpr double beforeKey = 0.1; // seconds

std::string restOf(const std::string &file)
{
    int number = 1;
    return numbered(std::filesystem::path(file).replace_extension(".rest.mkv").string(), number, false);
}

std::string seconds(double value)
{
    return positionShown({value, false});
}

} // namespace

Continuation::Continuation(const CourseOptions &options, Report &report)
    : m_file(options.record)
    , m_rest(options)
    , m_report(report)
{
    ZrRecordingFacts facts{};
    const ZR_ULONG result = ZR_RecordingFacts(m_file.c_str(), &facts);
    if (result != 0)
    {
        throw Failure(ExitCode::Output, "continuing " + m_file, result,
                      result == ZR_MEDIA_UNAVAILABLE ? "this build cannot read recordings"
                                                     : "it is no recording that could be continued",
                      result == ZR_MEDIA_UNAVAILABLE ? "a library that was built with GStreamer"
                                                     : "another name, or --force to write over it");
    }
    m_rest.record = restOf(m_file);
    m_held = static_cast<double>(facts.ullMediaMs) / 1000;
    m_rest.held = m_held;
    m_rest.skip = std::max(static_cast<double>(facts.ullLastKeyMs) / 1000 - beforeKey, 0.001);
    m_report.event("continuing",
                   m_file + " ends at " + seconds(m_held) +
                       ": what it lacks is fetched from its last key frame on, at " + seconds(m_rest.skip),
                   {{"file", m_file}, {"seconds", m_held}, {"from", m_rest.skip}});
}

double Continuation::join()
{
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(m_rest.record, ignored))
    {
        return m_held;
    }
    const ZR_ULONG result = ZR_RecordingContinue(m_file.c_str(), m_rest.record.c_str());
    if (result != 0)
    {
        throw Failure(ExitCode::Output, "joining " + m_rest.record + " to " + m_file, result,
                      "they are left as two files",
                      "enough room for another copy, and the same recording; --log-level info tells more");
    }
    std::filesystem::remove(m_rest.record, ignored);
    m_report.event("joined", "joined the rest to " + m_file, {{"file", m_file}});
    ZrRecordingFacts facts{};
    ZR_RecordingFacts(m_file.c_str(), &facts);
    return static_cast<double>(facts.ullMediaMs) / 1000;
}

} // namespace zr::host
