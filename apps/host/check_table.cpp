#include "check_table.h"

namespace zr::host {
void CheckTable::add(const Row &row, const Fields &fields)
{
    m_rows.push_back(row);
    Fields told{{"step", row.step}, {"result", word(row.verdict)}, {"detail", row.text}};
    if (fields.is_object())
    {
        told.update(fields);
    }
    m_report.judged("step", row, told);
}

void CheckTable::ok(const std::string &step, const std::string &text, const Fields &fields)
{
    add({step, Verdict::Ok, text, ""}, fields);
}

void CheckTable::failed(const std::string &step, const Failure &why, bool needed)
{
    add({step, Verdict::Failed, why.meaning() + (why.code() == 0 ? "" : " (code " + std::to_string(why.code()) + ")"),
         why.advice()},
        {{"needed", needed},
         {"code", why.code()},
         {"exit_code", static_cast<int>(why.exit())},
         {"advice", why.advice()}});
    if (needed && !m_failure)
    {
        m_failure = why;
    }
}

void CheckTable::skipped(const std::string &step, const std::string &why)
{
    add({step, Verdict::Skipped, why, ""}, nullptr);
}

std::string CheckTable::failedSteps() const
{
    std::string names;
    for (const Row &row : m_rows)
    {
        if (row.verdict == Verdict::Failed)
        {
            names += (names.empty() ? "" : ", ") + row.step;
        }
    }
    return names;
}

} // namespace zr::host
