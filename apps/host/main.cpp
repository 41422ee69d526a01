// zr_rtsp_host: a host of the plug-in for the command line. It loads the library as any host does, with dlopen, and
// drives one session.

#include <algorithm>
#include <csignal>
#include <cstring>

#include "base64.h"
#include "commands.h"
#include "masking.h"
#include "trace.h"
#include "zr_platform.h"

namespace {

using namespace zr::host;

// A line of the plug-in may hold them in clear, and a server may repeat them.
void hide(const Source &source)
{
    constexpr size_t unmistakable = 4; // shorter ones stand in many words
    const Credentials &credentials = source.credentials;
    std::vector<std::string> secrets = secretsIn(source.url.text);
    if (!credentials.password.empty())
    {
        const std::string both = credentials.user + ":" + credentials.password;
        secrets.insert(secrets.end(), {both, toBase64(both), credentials.password}); // the second as Basic writes it
    }
    for (const std::string &secret : secrets)
    {
        ZR_LogHide(secret.size() < unmistakable ? nullptr : secret.c_str());
    }
}

void setUpLog(const Options &all)
{
    const CommonOptions &options = all.common;
    hide(options.source);
    for (const Source &source : all.watch.sources)
    {
        hide(source);
    }
    if (!options.logFile.empty())
    {
        ZR_LogSetFile(options.logFile.c_str());
    }
    // the program tells itself what fails, and among its own lines others would only confuse; in a file there is room
    constexpr auto silent = static_cast<tagZrLogLevel>(ZR_LOG_ERROR + 1);
    ZR_LogSetLevel(options.logLevel.value_or(options.logFile.empty() ? silent : ZR_LOG_INFO));
}

void setUpTls(const CommonOptions &options, Report &report)
{
    if (!options.caFile.empty() && ZR_TlsAddTrust(options.caFile.c_str()) != 0)
    {
        throw Failure(ExitCode::Usage, "reading " + options.caFile, 0, "it holds no certificate that can be used",
                      "a file in PEM form, which begins with -----BEGIN CERTIFICATE-----");
    }
    if (options.insecure)
    {
        ZR_TlsSetVerification(0);
        report.warning("insecure", "certificates are not verified, anybody may answer for the server (--insecure)",
                       nullptr);
    }
}

Failure withAdvice(const Failure &failed, const Hints &hints)
{
    const bool usage = failed.exit() == ExitCode::Usage && failed.advice().empty();
    const bool refused = failed.exit() == ExitCode::Credentials && failed.code() != 0 && !hints.credentials.empty();
    return usage || refused ? Failure(failed.exit(), failed.step(), failed.code(), failed.meaning(),
                                      usage ? hints.usage : hints.credentials)
                            : failed;
}

int run(int argc, char **argv, Report &report)
{
    Hints hints;
    try
    {
        const Options options = parseOptions(argc, argv, hints);
        setUpLog(options);
        setUpTls(options.common, report);
        for (const std::string &text : options.common.warnings)
        {
            report.warning("open_secret", text, nullptr);
        }
        Trace trace(report);
        if (options.common.trace || !options.common.traceFile.empty())
        {
            trace.show(options.common.traceFile);
        }
        switch (options.command)
        {
        case Command::Help:
            break;
        case Command::Describe:
            describeCommand(options.common, options.describe, report);
            break;
        case Command::Check:
            checkCommand(options.common, options.check, report, trace);
            break;
        case Command::Play:
        case Command::Replay:
            playCommand(options.common, options.play, report);
            break;
        case Command::Download:
            downloadCommand(options.common, options.download, report);
            break;
        case Command::Tv:
            tvCommand(options.common, options.tv, report);
            break;
        case Command::Cameras:
            camerasCommand(options.cameras, report);
            break;
        case Command::Watch:
            watchCommand(options.common, options.watch, report);
            break;
        }
        return static_cast<int>(ExitCode::Ok);
    }
    catch (const Failure &failed)
    {
        report.failure(withAdvice(failed, hints));
        return static_cast<int>(failed.exit());
    }
    catch (const std::exception &failed)
    {
        report.failure(Failure(ExitCode::Internal, "running", 0, failed.what()));
        return static_cast<int>(ExitCode::Internal);
    }
}

} // namespace

int main(int argc, char **argv)
{
    try
    {
        std::signal(SIGPIPE, SIG_IGN); // a failed write is told by the write
        std::signal(SIGXFSZ, SIG_IGN);
        // known before the options are, so that also a wrong one is told in the form that was asked for
        const bool json =
            std::any_of(argv, argv + argc, [](const char *text) { return std::strcmp(text, "--json") == 0; });
        const auto report = makeReport(json);
        return run(argc, argv, *report);
    }
    catch (...)
    {
        return static_cast<int>(ExitCode::Internal);
    }
}
