/// @file
/// The steps of "check": what a technician would try by hand, one after another.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "check_table.h"
#include "commands.h"
#include "course.h"
#include "trace.h"

namespace zr::host {

inline constexpr std::chrono::milliseconds answerWithin{3000};
inline constexpr const char *deviceLog = "look for other clients of the device, and into its own log";

/// Seconds since then.
double since(Course::Clock::time_point begin);
/// Such as "3.1 ms".
std::string inMs(double seconds);
/// The failure of a step, with what came instead of an answer, where that was waited for.
/// @param messages  that came from the server meanwhile
Failure withHeard(const Failure &failed, double seconds, size_t messages);
/// What a row's event says of its time.
Fields took(double seconds);

/// Notes when a course came to which of its steps.
class Progress : public Report
{
public:
    void event(const std::string &name, const std::string &, const Fields &fields) override
    {
        if (name == "described") // of a session that was opened anew as well
        {
            m_tracks.clear();
        }
        if (name == "set_up")
        {
            m_tracks += (m_tracks.empty() ? "" : ", ") + fields.value("media", "");
        }
        m_times.emplace_back(name, Course::Clock::now());
    }
    void status(const Status &) override {}
    void failure(const Failure &) override {}

    /// The last time that it happened.
    std::optional<Course::Clock::time_point> when(const std::string &name) const
    {
        const auto found =
            std::find_if(m_times.rbegin(), m_times.rend(), [&](const auto &one) { return one.first == name; });
        return found == m_times.rend() ? std::nullopt : std::optional<Course::Clock::time_point>(found->second);
    }
    const std::string &tracks() const { return m_tracks; }

private:
    std::vector<std::pair<std::string, Course::Clock::time_point>> m_times;
    std::string m_tracks; ///< that were set up
};

/// The steps, one after another. What goes wrong with one is a row of the table; an interrupt is thrown.
class Check
{
public:
    Check(const CommonOptions &common, const CheckOptions &options, Report &report, Trace &trace)
        : m_common(common)
        , m_options(options)
        , m_source(common.source)
        , m_interrupt(&report)
        , m_plugin(common.plugin)
        , m_table(report)
        , m_report(report)
        , m_trace(trace)
    {
    }

    /// @throws Failure  that of the first step without which nothing plays
    void run();

private:
    void tryAll();
    bool reachable();
    void tryName();
    void tryRoute();
    void tryTcp();
    bool described();
    bool describedBy(Session &session, const std::string &step, bool given, std::optional<Failure> &failure);
    void tellTls(const Session &session, const std::optional<Failure> &failure);
    std::optional<ZrSessionFacts> ask(const Session &session, const std::string &step, const std::string &unanswered,
                                      bool more);
    void tellOptions(const Session &session, bool more);
    void tellTracks(const Description &description);
    bool tryTransport(const CourseOptions &options, bool more);
    bool tellStart(const std::string &name, const Progress &progress, const std::optional<Failure> &failure,
                   Course::Clock::time_point begin);
    void tryRest(Course &course);
    bool tryPackets(Course &course);
    void tellPackets(const ZrMediaStatistics &before, const ZrMediaStatistics &now, double seconds);
    void takePicture(const Course &course, Session &session);
    void tryKeepAlive(const Session &session);
    void tryPause(Course &course);
    void tryPlaces(Course &course);
    void tryPlaying(Course &course, const std::string &step, const std::string &text,
                    const std::function<void()> &begin, const std::function<std::string()> &seen = {});
    std::string placeAnswered(const Position &asked, double tolerance) const;
    std::string scaleAnswered(double asked) const;
    std::optional<Trace::Answer> answerTo(const std::string &method, Course::Clock::time_point asked) const;
    void end(Course &course);
    void skip(std::initializer_list<const char *> steps, const std::string &why);
    void stopIfAsked() const;
    void sleep(std::chrono::milliseconds time) const;
    void conclude();
    void tellPage(const std::string &verdict);

    const CommonOptions &m_common;
    const CheckOptions &m_options;
    const Source &m_source;
    const Interrupt m_interrupt;
    Plugin m_plugin;
    CheckTable m_table;
    Report &m_report;
    Trace &m_trace;
    bool m_plays = false;                      ///< over one transport at least
    std::optional<Failure> m_transportFailure; ///< the first one
    std::string m_picture;                     ///< PNG
};

} // namespace zr::host
