#include "continuation.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

#include "output_file.h"
#include "zr_platform.h"

namespace zr::host {
namespace {

/// A file's times are rounded, and a server that takes the request to the letter must not begin behind the key frame.
constexpr double beforeKey = 0.1; // seconds

/// Whether a file was begun as a Matroska file, or not even that.
bool isBegun(const std::string &file)
{
    constexpr std::array<char, 4> ebml = {'\x1a', '\x45', '\xdf', '\xa3'}; // RFC 8794, 11.2.1
    std::array<char, 4> head{};
    std::ifstream in(file, std::ios::binary);
    in.read(head.data(), head.size());
    return in.gcount() == 0 ? in.eof() : head == ebml;
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
    takeFormer();
    ZR_RecordingFacts(m_file.c_str(), &facts); // as it is by now
    m_held = static_cast<double>(facts.ullMediaMs) / 1000;
    m_rest.held = m_held;
    m_rest.skip = std::max(static_cast<double>(facts.ullLastKeyMs) / 1000 - beforeKey, 0.001);
    m_report.event("continuing",
                   m_file + " ends at " + seconds(m_held) + "; it can go on from its last key frame, at " +
                       seconds(m_rest.skip),
                   {{"file", m_file}, {"seconds", m_held}, {"from", m_rest.skip}});
}

void Continuation::takeFormer(const std::string &rest)
{
    namespace fs = std::filesystem;
    std::error_code ignored;
    const bool ours = fs::is_regular_file(fs::symlink_status(rest, ignored)) &&
                      fs::last_write_time(rest, ignored) >= fs::last_write_time(m_file, ignored);
    ZrRecordingFacts facts{};
    if (ours && isBegun(rest) && ZR_RecordingFacts(rest.c_str(), &facts) != 0)
    {
        fs::remove(rest, ignored);
        m_report.event("removed", "removed " + rest + ", which was left there: it holds no media", {{"file", rest}});
    }
    else if (ours && ZR_RecordingContinue(m_file.c_str(), rest.c_str()) == 0)
    {
        fs::remove(rest, ignored);
        m_report.event("joined", "joined " + rest + " to " + m_file + ": an earlier --continue left it",
                       {{"file", m_file}, {"rest", rest}});
    }
    else
    {
        m_report.warning("left", rest + " stays as it is: it does not continue " + m_file, {{"file", rest}});
    }
}

/// Of continuations that were killed, and takes a free name for what comes.
void Continuation::takeFormer()
{
    const std::string name = std::filesystem::path(m_file).replace_extension(".rest.mkv").string();
    int number = 1;
    for (std::string rest = name; wouldBeLost(rest); rest = numbered(name, ++number, true))
    {
        takeFormer(rest);
    }
    number = 1;
    m_rest.record = numbered(name, number, false);
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
