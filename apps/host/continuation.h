/// @file
/// A download that goes on where it was cut.
#pragma once

#include <string>

#include "course.h"
#include "report.h"

namespace zr::host {

/// The file that is there, and the rest that is fetched into another one beside it. One thread.
class Continuation
{
public:
    /// Reads the file, which takes a while. Joins to it what a continuation fetched that was killed.
    /// @param options  of the whole download; records into the file
    /// @throws Failure  when the file is no recording
    Continuation(const CourseOptions &options, Report &report);

    /// The options that fetch the rest.
    const CourseOptions &options() const { return m_rest; }
    /// Seconds of the recording that the file has.
    double held() const { return m_held; }
    /// Seconds of the recording that are there, without what is fetched again for the seam.
    double there() const { return m_rest.skip; }
    /// Makes one file of both, when something came.
    /// @return seconds that the file holds now
    /// @throws Failure  when that cannot be; both are left then
    double join();

private:
    void takeFormer();
    void takeFormer(const std::string &rest);

    const std::string m_file;
    CourseOptions m_rest;
    double m_held = 0;
    Report &m_report;
};

} // namespace zr::host
