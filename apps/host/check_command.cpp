#include "check.h"

#include <cstdio>
#include <utility>

#include <unistd.h>

#include "addresses.h"
#include "check_page.h"
#include "terminal_mode.h"

namespace zr::host {
namespace {

using std::chrono::milliseconds;
using Clock = Course::Clock;

constexpr std::chrono::seconds connectWithin{5};

} // namespace

double since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string inMs(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, seconds < 0.01 ? "%.1f ms" : "%.0f ms", seconds * 1000);
    return text;
}

Fields took(double seconds)
{
    return {{"seconds", seconds}};
}

Failure withHeard(const Failure &failed, double seconds, size_t messages)
{
    constexpr double waitedFor = 20;
    if (failed.exit() != ExitCode::Unreachable || seconds < waitedFor)
    {
        return failed;
    }
    return {failed.exit(), failed.step(), failed.code(),
            failed.meaning() + (messages == 0 ? "; nothing at all came from it"
                                              : "; " + std::to_string(messages) +
                                                    " messages came from it that are no answer (--trace shows them)"),
            failed.advice()};
}

void Check::stopIfAsked() const
{
    if (m_interrupt.asked())
    {
        throw m_interrupt.failure("checking", "interrupted");
    }
}

void Check::sleep(milliseconds time) const
{
    m_interrupt.sleep(time);
    stopIfAsked();
}

void Check::skip(std::initializer_list<const char *> steps, const std::string &why)
{
    for (const char *step : steps)
    {
        m_table.skipped(step, why);
    }
}

void Check::tryName()
{
    std::string found;
    for (const std::string &address : addressesOf(m_source.url.host, m_interrupt))
    {
        found += (found.empty() ? "" : ", ") + address;
    }
    m_table.ok("name", m_source.url.host + (found == m_source.url.host ? "" : " is " + found), {{"addresses", found}});
}

void Check::tryRoute()
{
    const std::string local = localAddressTowards(m_source.url.host, m_source.url.port, m_interrupt);
    const std::string interface = interfaceOf(local);
    m_table.ok("route", "from " + local + (interface.empty() ? "" : " by " + interface),
               {{"local", local}, {"interface", interface}});
}

void Check::tryTcp()
{
    const Url &url = m_source.url;
    const double seconds = timeToConnect(url.host, url.port, connectWithin, m_interrupt);
    m_table.ok("TCP", "port " + std::to_string(url.port) + " answers in " + inMs(seconds), took(seconds));
}

bool Check::reachable()
{
    struct Step
    {
        const char *name;
        void (Check::*tried)();
    };
    static constexpr Step steps[] = {{"name", &Check::tryName}, {"route", &Check::tryRoute}, {"TCP", &Check::tryTcp}};
    bool reached = true;
    for (const Step &step : steps)
    {
        if (!reached)
        {
            m_table.skipped(step.name, "it needs the step before");
            continue;
        }
        try
        {
            (this->*step.tried)();
        }
        catch (const Failure &failed)
        {
            stopIfAsked();
            m_table.failed(step.name, failed, true);
            reached = false;
        }
    }
    stopIfAsked();
    return reached;
}

void Check::tellTls(const Session &session, const std::optional<Failure> &failure)
{
    const std::string version = session.facts().szTls;
    if (m_source.url.text.rfind("rtsps:", 0) != 0)
    {
        m_table.skipped("TLS", "rtsp is not encrypted; rtsps would be");
        return;
    }
    if (version.empty())
    {
        m_table.failed("TLS", *failure, true);
        return;
    }
    m_table.ok("TLS",
               version + (m_common.insecure ? ", certificate not verified (--insecure)" : ", certificate verified"),
               {{"version", version}, {"verified", !m_common.insecure}});
}

/// Asks the server for a sign of life. A row tells what is wrong with it.
/// @param unanswered  what else there is to say of no answer; may be empty
/// @param more        credentials are tried next
/// @return what is known then; nothing when it failed
std::optional<ZrSessionFacts> Check::ask(const Session &session, const std::string &step, const std::string &unanswered,
                                         bool more)
{
    constexpr ZR_ULONG unauthorized = 401;
    const auto facts = session.ask(answerWithin);
    stopIfAsked();
    if (!facts)
    {
        m_table.failed(
            step, Failure(ExitCode::Unreachable, step, 0, "no answer came within 3 s" + unanswered, deviceLog), false);
    }
    else if (facts->ulCheckStatus == unauthorized && more)
    {
        m_table.ok(step, "the server asks for credentials");
    }
    else if (facts->ulCheckStatus >= 300)
    {
        m_table.failed(step, requestFailed(step, facts->ulCheckStatus), false);
    }
    else
    {
        return facts;
    }
    return std::nullopt;
}

void Check::tellOptions(const Session &session, bool more)
{
    const auto begin = Clock::now();
    if (const auto facts = ask(session, "OPTIONS", "", more))
    {
        const std::string methods = facts->szMethods;
        m_table.ok("OPTIONS", methods.empty() ? "answered, without a list of methods" : methods,
                   {{"methods", methods}, {"server", facts->szServer}, {"seconds", since(begin)}});
    }
}

/// @param given    with the credentials, when there are any
/// @param failure  receives why not
bool Check::describedBy(Session &session, const std::string &step, bool given, std::optional<Failure> &failure)
{
    const auto begin = Clock::now();
    const size_t before = m_trace.received();
    const bool more = !given && !m_source.credentials.user.empty(); // they are tried next
    try
    {
        session.describe();
    }
    catch (const Failure &failed)
    {
        failure.emplace(withHeard(failed, since(begin), m_trace.received() - before));
    }
    const double seconds = since(begin);
    stopIfAsked();
    if (!given)
    {
        tellTls(session, failure);
        if (m_table.failure())
        {
            skip({"OPTIONS", "DESCRIBE"}, "it needs TLS");
            return false;
        }
        if (!failure || failure->exit() != ExitCode::Unreachable)
        {
            tellOptions(session, more);
        }
        else
        {
            m_table.skipped("OPTIONS", "nothing is asked before DESCRIBE is answered");
        }
    }
    if (!failure)
    {
        m_table.ok(step, "answered in " + inMs(seconds) + (more ? ", also without credentials" : ""), took(seconds));
    }
    else if (more && failure->exit() == ExitCode::Credentials)
    {
        m_table.ok(step, "the server asks for credentials, as it should", took(seconds));
    }
    else
    {
        m_table.failed(step, *failure, !more);
    }
    stopIfAsked();
    return !failure;
}

bool Check::described()
{
    const bool given = !m_source.credentials.user.empty();
    Source plain = m_source;
    plain.credentials = {};
    std::optional<Description> description;
    for (const Source *source : {&std::as_const(plain), &m_source})
    {
        if (source == &m_source && (!given || m_table.failure()))
        {
            break;
        }
        Mailbox mailbox(m_interrupt);
        Session session(m_plugin, *source, mailbox);
        std::optional<Failure> failure;
        const bool anonymous = source == &plain;
        if (describedBy(session, anonymous ? given ? "DESCRIBE, nobody" : "DESCRIBE" : "DESCRIBE, user", !anonymous,
                        failure))
        {
            description = session.description();
        }
    }
    if (m_table.failure() || !description)
    {
        return false;
    }
    tellTracks(*description);
    return true;
}

void Check::tellTracks(const Description &description)
{
    std::string text;
    for (const Track &track : description.tracks)
    {
        text += (text.empty() ? "" : "; ") + track.media + " " + details(track);
    }
    m_table.ok("tracks", text, {{"range", description.range}});
}

void Check::conclude()
{
    const auto &failure = m_table.failure();
    const std::string steps = m_table.failedSteps();
    const std::string verdict = (failure ? "the stream does not play" : "the stream plays") +
                                (steps.empty() ? std::string() : "; failed: " + steps);
    m_report.event("checked", verdict, {{"plays", !failure.has_value()}, {"failed", steps}});
    tellPage(verdict);
    const bool seen = !m_common.json && isatty(STDOUT_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
    if (failure && seen) // with its cause and advice, a few lines above
    {
        throw Failure(failure->exit(), "checking", failure->code(), "the table tells why");
    }
    if (failure)
    {
        throw Failure(*failure);
    }
}

void Check::tellPage(const std::string &verdict)
{
    if (!m_options.html.empty())
    {
        writePage(m_options.html, {m_source, m_table, verdict, m_picture, m_trace.kept()});
        m_report.event("page", "wrote the page " + m_options.html, {{"file", m_options.html}});
    }
}

void Check::tryAll()
{
    constexpr const char *needs = "it needs a step that failed";
    if (!reachable())
    {
        skip({"TLS", "OPTIONS", "DESCRIBE", "SETUP", "PLAY"}, needs);
    }
    else if (!described())
    {
        skip({"SETUP", "PLAY"}, needs);
    }
    else
    {
        CourseOptions options;
        if (m_source.tunnelled())
        {
            skip({"UDP: SETUP", "UDP: PLAY", "UDP: media"}, "a tunnel in HTTP carries the media, too");
        }
        m_plays = !m_source.tunnelled() && tryTransport(options, true);
        options.protocol = PROTOCOL_TCP;
        m_plays = tryTransport(options, !m_plays) || m_plays;
        if (!m_plays)
        {
            m_table.needed(*m_transportFailure);
        }
        if (m_options.multicast)
        {
            options.protocol = PROTOCOL_UDP;
            options.multicast = true;
            tryTransport(options, false);
        }
    }
}

void Check::run()
{
    m_trace.keep();
    try
    {
        tryAll();
    }
    catch (const Failure &failed)
    {
        if (m_interrupt.asked())
        {
            tellPage("interrupted: what comes behind the last row was not tried");
        }
        stopIfAsked();
        m_table.failed(
            "session",
            Failure(failed.exit(), "session", failed.code(), failed.step() + ": " + failed.meaning(), failed.advice()),
            !m_plays);
    }
    conclude();
}

void checkCommand(const CommonOptions &common, const CheckOptions &options, Report &report, Trace &trace)
{
    Check check(common, options, report, trace);
    const TerminalMode deaf(TerminalMode::Kind::Deaf);
    check.run();
}

} // namespace zr::host
