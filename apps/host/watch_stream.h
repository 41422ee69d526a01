/// @file
/// One of the streams that watch looks after.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "attempts.h"
#include "options.h"

namespace zr::host {

enum class StreamState
{
    Connecting,
    Alive,
    Silent,
    Lost,  ///< after it was alive
    Failed ///< and never was alive
};

constexpr std::array<StreamState, 5> allStates = {StreamState::Connecting, StreamState::Alive, StreamState::Silent,
                                                  StreamState::Lost, StreamState::Failed};

const char *word(StreamState state);

struct StreamFacts;
/// What it is known by: its camera's name, else its URL.
const std::string &knownAs(const StreamFacts &stream);

/// How a stream is.
struct StreamFacts
{
    size_t number = 0; ///< from 1, for a URL may come more than once
    std::string url;
    std::string name; ///< of its camera; empty: none
    StreamState state = StreamState::Connecting;
    std::chrono::system_clock::time_point since; ///< it is so
    std::string reason;                          ///< why it is lost, failed or silent
    double kilobitsPerSecond = 0;
    double jitterMs = 0;
    // of all its sessions
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t lost = 0;
    uint64_t sessions = 0; ///< that had media
};

/// Its thread runs session after session and tells here how it is.
class Stream : private Report
{
public:
    /// @param source, report  outlive it
    Stream(size_t number, const Source &source, Report &report);

    /// Runs until it is over for good; throws nothing.
    /// @return false when it is over because what is told cannot be printed
    bool run(Plugin &plugin, const Interrupt &interrupt, const WatchOptions &options);

    /// Any thread.
    StreamFacts facts() const;

private:
    void runAll(Plugin &plugin, const Interrupt &interrupt, const WatchOptions &options);
    Ending runOnce(Plugin &plugin, const Interrupt &interrupt, const CourseOptions &options);
    void count(const Media &media, const Media &before);

    // of a course's events those that change the stream's state are told, with its number and URL
    void event(const std::string &name, const std::string &text, const Fields &fields) override;
    void status(const Status &) override {}
    void failure(const Failure &what) override;
    void enter(StreamState state, const std::string &reason);

    const Source &m_source;
    Report &m_report;
    std::string m_toldLoss; ///< why it was lost, as it was told; empty: it is not lost
    bool m_wasAlive = false;
    bool m_told = false;        ///< what ended the latest session was told when it happened
    mutable std::mutex m_mutex; ///< guards m_facts; held for a moment only
    StreamFacts m_facts;
};

} // namespace zr::host
