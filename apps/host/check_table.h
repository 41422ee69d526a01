/// @file
/// What a check tried, and how each step went.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "report.h"

namespace zr::host {

/// Says each step as it is added, and keeps it.
class CheckTable
{
public:
    explicit CheckTable(Report &report)
        : m_report(report)
    {
    }

    /// @param fields  for programs, besides the step and its text; may be null
    void ok(const std::string &step, const std::string &text, const Fields &fields = nullptr);
    /// @param needed  without it the stream is of no use: the first such step is why the check failed
    void failed(const std::string &step, const Failure &why, bool needed);
    /// Steps that failed were needed after all.
    void needed(const Failure &why) { m_failure.emplace(m_failure.value_or(why)); }
    void skipped(const std::string &step, const std::string &why);

    const std::vector<Row> &rows() const { return m_rows; }
    const std::optional<Failure> &failure() const { return m_failure; }
    /// The names of the failed steps, such as "UDP: media, seek".
    std::string failedSteps() const;

private:
    void add(const Row &row, const Fields &fields);

    Report &m_report;
    std::vector<Row> m_rows;
    std::optional<Failure> m_failure;
};

} // namespace zr::host
