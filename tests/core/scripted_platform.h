/// @file
/// A platform that the test scripts: it records what the plug-in asks of the in-house libraries, answers requests on
/// cue from a delivery thread of its own, and fails whichever call the test names.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tw_util.h"
#include "zr_common.h"
#include "zr_msg_dispatch.h"

namespace zr::test {

using Texts = std::vector<std::string>;

constexpr ZR_ULONG AOI_PORT = 77;  ///< under which the tests register their objects
constexpr ZR_ULONG INJECTED = 777; ///< the code of an injected failure
constexpr ZR_ULONG REQUEST = 0, SUCCESS = 1, FAILURE = 2;

/// A message from the far side. Elements are texts; an element that is absent fails its read with its own identifier.
struct Answer : tagAOIMsg
{
    Answer(ZR_ULONG id, ZR_ULONG kind, ZR_ULONG destination = AOI_PORT)
        : tagAOIMsg{{id, kind, 1, destination}}
    {
    }
    /// Adds an element: numbers in decimal, a transport as "address:port", the two elements that are read raw with
    /// their leading bytes and their zero.
    Answer &with(ZR_ULONG element, const std::string &value);
    Answer &raw(ZR_ULONG element, const std::string &bytes);

    std::map<ZR_ULONG, std::vector<char>> elements;
};

/// A request as it was sent, its elements in the order of their adding, such as "Scale=1.000000".
struct Request
{
    ZR_ULONG id, kind, source, destination;
    Texts elements;
};

/// A message under construction, with its elements in the order of their adding.
struct Message : tagMDPMsg
{
    Texts elements;
};

/// One log line as "level:code:text", followed by " {module}" or " {file}" where these are not the class's own.
struct LogLine
{
    std::string text;
    size_t liveMessages; ///< messages allocated and not yet freed when it was written
};

/// Values as one text, with commas between them.
template <typename... Values>
std::string listed(const Values &...values)
{
    std::ostringstream out;
    ((out << std::fixed << values << ','), ...);
    return out.str().substr(0, out.str().rfind(','));
}

/// The process's one scripted platform, and its message dispatcher. All operations may be called from any thread.
class Platform final : public CIAOIMsgDisp
{
public:
    static Platform &instance();

    /// Forgets everything recorded and scripted, and starts the delivery thread.
    void start();
    /// Delivers what is queued and ends the delivery thread.
    void stop();

    // --- the script
    /// Makes calls of an operation fail: those from the nth on (1: the next), count of them. Operations are named after
    /// the IE ("URL", "Scale" ...) or by a word of their own ("malloc", "header", "send", "sendto" ...).
    void fail(const std::string &operation, ZR_ULONG code = INJECTED, int nth = 1, int count = 1)
    {
        locked()->m_faults[operation] = {code, nth - 1, count};
    }
    /// Runs at the start of every call of an operation, with no lock of the platform held; it may block or throw.
    void hook(const std::string &operation, const std::function<void()> &action)
    {
        locked()->m_hooks[operation] = action;
    }
    /// Scripts the answer to the next request of its message identifier that has none yet.
    void answer(const Answer &scripted) { locked()->m_scripted.push_back(scripted); }
    /// Hands a message to its processor on the delivery thread.
    void deliver(const Answer &message) { locked()->m_queue.push_back(message); }
    /// Runs the callback of every timer of a period, on the caller's thread.
    void tick(ZR_ULONG periodMs);
    /// From now on a wait of 25 seconds is over after a few milliseconds.
    void expireWaits();
    std::atomic<int> sendChunk{0};       ///< bytes that a datagram takes; 0: all; negative: none
    std::atomic<int64_t> clockOffset{0}; ///< of the counter, in ticks of 100 ns
    std::atomic<int64_t> todOffset{0};   ///< of the next reading of the time of day alone

    // --- the record
    Texts logs(char fromLevel = '1');
    std::vector<LogLine> logLines() { return locked()->m_logs; }
    std::vector<Request> requests() { return locked()->m_requests; }
    /// What happened besides, in order: "addUAAddr(...)", "register(77)", "release()" ...
    Texts events() { return locked()->m_events; }
    /// The bytes that were sent as datagrams or handed to the player library.
    Texts packets() { return locked()->m_packets; }
    std::vector<ZR_ULONG> deliveryResults() { return locked()->m_deliveryResults; }
    std::atomic<size_t> liveMessages{0};
    std::atomic<int> openSockets{0};
    std::atomic<int> frequencyReads{0}; ///< of the process
    void clearRecord();
    /// Waits, 20 seconds at most, until a predicate over the record holds.
    bool waitFor(const std::function<bool()> &predicate);

    // --- for the platform's operations
    template <typename... Values>
    void record(const std::string &event, const Values &...values)
    {
        locked()->m_events.push_back(event + "(" + listed(values...) + ")");
    }
    void recordPacket(const std::string &bytes) { locked()->m_packets.push_back(bytes); }
    void writeLog(const std::string &text) { locked()->m_logs.push_back({text, liveMessages}); }
    /// Runs the operation's hook and says whether this call fails, and with which code.
    ZR_ULONG enter(const std::string &operation);
    ZR_ULONG startTimer(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user);
    ZR_ULONG stopTimer(ZR_ULONG handle);
    ZR_ULONG sendAOIMsg(tagMDPMsg *message) override;
    ZR_ULONG registerAOIMsgProc(ZR_ULONG id, CIAOIMsgProc *processor) override;
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG id) override;

private:
    struct Timer
    {
        ZR_ULONG periodMs;
        TW_TIMER_CALLBACK callback;
        void *user;
    };
    struct Fault
    {
        ZR_ULONG code;
        int skip, count;
    };
    /// The platform for one statement, under its lock; whoever waits for a change is told.
    struct Locked
    {
        ~Locked() { platform->m_changed.notify_all(); }
        Platform *operator->() const { return platform; }
        Platform *platform;
        std::unique_lock<std::recursive_mutex> guard{platform->m_lock};
    };
    Locked locked() { return {this}; }
    void runDelivery();

    std::recursive_mutex m_lock; ///< guards everything below; never held while foreign code runs
    std::condition_variable_any m_changed;
    std::map<std::string, Fault> m_faults;
    std::map<std::string, std::function<void()>> m_hooks;
    std::deque<Answer> m_scripted, m_queue;
    std::map<ZR_ULONG, CIAOIMsgProc *> m_processors;
    std::map<ZR_ULONG, Timer> m_timers;
    std::vector<LogLine> m_logs;
    std::vector<Request> m_requests;
    Texts m_events, m_packets;
    std::vector<ZR_ULONG> m_deliveryResults;
    std::thread m_delivery;
    ZR_ULONG m_runningId = 0; ///< whose processor the delivery thread is in
    bool m_stopping = false;
    ZR_ULONG m_lastTimer = 0;
};

} // namespace zr::test
