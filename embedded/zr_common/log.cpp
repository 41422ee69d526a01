#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "log_line.h"
#include "platform_log.h"
#include "zr_platform.h"

namespace {

/// Time with milliseconds, level, thread, line.
constexpr const char *pattern = "%Y-%m-%d %H:%M:%S.%e %l %t %v";
constexpr size_t fileBytes = 10 * size_t{1024} * 1024;
constexpr size_t oldFiles = 3;

spdlog::level::level_enum spdlogLevel(tagZrLogLevel level)
{
    switch (level)
    {
    case ZR_LOG_DEBUG:
        return spdlog::level::debug;
    case ZR_LOG_INFO:
        return spdlog::level::info;
    case ZR_LOG_WARNING:
        return spdlog::level::warn;
    default:
        return spdlog::level::err;
    }
}

class Log
{
public:
    Log()
        : m_destination(std::make_shared<spdlog::sinks::dist_sink_mt>())
        , m_stderr(std::make_shared<spdlog::sinks::stderr_sink_mt>())
        , m_logger("zr_rtsp", m_destination)
    {
        m_stderr->set_pattern(pattern);
        m_logger.set_level(spdlog::level::trace); // the threshold has let the line pass
        m_logger.flush_on(spdlog::level::info);
        setFile(secure_getenv("ZR_RTSP_LOG_FILE"));
    }

    /// A file that cannot be opened leaves the log on stderr, and says so there.
    void setFile(const char *file)
    {
        const bool wanted = file != nullptr && *file != '\0';
        std::string problem;
        std::shared_ptr<spdlog::sinks::sink> sink = m_stderr;
        try
        {
            if (wanted)
            {
                sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file, fileBytes, oldFiles);
                sink->set_pattern(pattern);
            }
        }
        catch (const std::exception &failure)
        {
            problem = failure.what();
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_toFile = wanted && problem.empty();
            m_destination->set_sinks({sink});
            applyLevel();
        }
        if (!problem.empty()) // not through writeLog: the log may just be being made
            write(ZR_LOG_WARNING, line("the log stays on stderr: %s", problem.c_str()));
    }

    void setLevel(tagZrLogLevel level)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_level = level;
        applyLevel();
    }

    void write(tagZrLogLevel level, const std::string &line) { m_logger.log(spdlogLevel(level), line); }

private:
    static std::string line(const char *format, ...) ZR_PRINTF_FORMAT(1, 2)
    {
        va_list arguments;
        va_start(arguments, format);
        std::string text = zr::common::formatLogLine(0, zr::log::Common, __FILE_NAME__, __LINE__, format, arguments);
        va_end(arguments);
        return text;
    }

    void applyLevel()
    {
        const ZR_ULONG usual = m_toFile ? ZR_LOG_INFO : ZR_LOG_WARNING;
        zr::log::threshold = m_level == 0 ? usual : m_level;
    }

    std::mutex m_mutex; ///< guards what the next two say and their agreement with destination and threshold
    bool m_toFile = false;
    ZR_ULONG m_level = 0; ///< as the host set it; 0: it did not
    std::shared_ptr<spdlog::sinks::dist_sink_mt> m_destination;
    std::shared_ptr<spdlog::sinks::sink> m_stderr;
    spdlog::logger m_logger;
};

Log &log()
{
    static Log &instance = *new Log; // never freed: threads may log until the process ends
    return instance;
}

/// Nothing that a log does may disturb who logs; a thread's cancellation passes.
template <typename Action>
void quietly(Action action)
{
    const int before = errno;
    try
    {
        action();
    }
    catch (abi::__forced_unwind &)
    {
        throw;
    }
    catch (...)
    {
        // there is no memory for the line, and nobody to tell
    }
    errno = before;
}

} // namespace

void CZRWriteLog::writeLog(tagZrLogLevel enLevel, ZR_ULONG ulCode, ZR_ULONG ulModule, const char *pszFile, int iLine,
                           const char *pszFormat, ...)
{
    if (!zr::log::isWritten(enLevel))
        return;
    va_list arguments;
    va_start(arguments, pszFormat);
    quietly([&] {
        Log &destination = log(); // makes the log, and with it the threshold
        if (zr::log::isWritten(enLevel))
            destination.write(enLevel,
                              zr::common::formatLogLine(ulCode, ulModule, pszFile, iLine, pszFormat, arguments));
    });
    va_end(arguments);
}

void ZR_LogSetLevel(tagZrLogLevel enLevel)
{
    quietly([&] { log().setLevel(enLevel); });
}

void ZR_LogSetFile(const char *pszFile)
{
    quietly([&] { log().setFile(pszFile); });
}
