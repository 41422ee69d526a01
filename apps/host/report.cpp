#include "report.h"

#include <cstdio>

#include <unistd.h>

namespace zr::host {
namespace {

// Also control characters above 7f (in UTF-8 their first byte is c2) could steer a terminal.
std::string harmless(std::string text)
{
    for (size_t i = 0; i < text.size(); ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool highControl = byte == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if ((byte < 0x20 && byte != '\n') || byte == 0x7f || highControl)
        {
            text[i] = '?';
        }
    }
    return text;
}

// Whoever reads stdout may have gone; nobody is left to play for then.
void flush()
{
    if (std::fflush(stdout) != 0)
    {
        throw Failure(ExitCode::Output, "printing", 0, "stdout cannot be written");
    }
}

void printLine(const std::string &line)
{
    std::printf("%s\n", line.c_str());
    flush();
}

class TextReport : public Report
{
public:
    void event(const std::string &, const std::string &text, const Fields &) override
    {
        clearStatus();
        printLine(harmless(text));
    }

    void progress(const Progress &now) override
    {
        if (!m_terminal)
        {
            return;
        }
        std::printf("\r\033[K%s  %.0f s  %.0f kbit/s  %llu packets  lost %llu", now.state.c_str(), now.seconds,
                    now.kilobitsPerSecond, static_cast<unsigned long long>(now.packets),
                    static_cast<unsigned long long>(now.lost));
        flush();
        m_status = true;
    }

    void failure(const Failure &what) override
    {
        clearStatus();
        std::fprintf(stderr, "zr_rtsp_host: %s\n", harmless(what.what()).c_str());
        if (!what.advice().empty())
        {
            std::fprintf(stderr, "  try: %s\n", harmless(what.advice()).c_str());
        }
    }

private:
    void clearStatus()
    {
        if (m_status)
        {
            std::printf("\r\033[K");
            m_status = false;
        }
    }

    const bool m_terminal = isatty(STDOUT_FILENO) == 1;
    bool m_status = false; ///< a status line stands where the cursor is
};

class JsonReport : public Report
{
public:
    void event(const std::string &name, const std::string &text, const Fields &fields) override
    {
        Fields line{{"event", name}, {"text", text}};
        if (fields.is_object())
        {
            line.update(fields);
        }
        printLine(line.dump(-1, ' ', false, Fields::error_handler_t::replace));
    }

    void progress(const Progress &now) override
    {
        event("progress", now.state,
              {{"seconds", now.seconds},
               {"kbit_per_s", now.kilobitsPerSecond},
               {"packets", now.packets},
               {"lost", now.lost}});
    }

    void failure(const Failure &what) override
    {
        event("error", what.what(),
              {{"step", what.step()},
               {"code", what.code()},
               {"exit_code", static_cast<int>(what.exit())},
               {"advice", what.advice()}});
    }
};

} // namespace

std::unique_ptr<Report> makeReport(bool json)
{
    if (json)
    {
        return std::make_unique<JsonReport>();
    }
    return std::make_unique<TextReport>();
}

} // namespace zr::host
