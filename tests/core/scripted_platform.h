/// @file
/// A platform that the test scripts: it records what the plug-in asks of the in-house libraries, answers requests on
/// cue from a delivery thread of its own, and fails whichever call the test names.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tw_util.h"
#include "zr_common.h"
#include "zr_msg_dispatch.h"

namespace zr::test
{

constexpr ZR_ULONG AOI_PORT = 77;  ///< under which the tests register their objects
constexpr ZR_ULONG INJECTED = 777; ///< the code of an injected failure
constexpr ZR_ULONG REQUEST = 0, SUCCESS = 1, FAILURE = 2;

/// A message from the far side. Elements are texts; an element that is absent fails its read with its own identifier.
struct Answer : tagAOIMsg
{
    Answer(ZR_ULONG id, ZR_ULONG kind, ZR_ULONG destination = AOI_PORT);
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
    std::vector<std::string> elements;
};

/// One log line as "level:code:text", followed by " {module}" or " {file}" where these are not the class's own.
struct LogLine
{
    std::string text;
    int line;
    size_t liveMessages; ///< messages allocated and not yet freed when it was written
};

/// The process's one scripted platform. All operations may be called from any thread.
class Platform
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
    void fail(const std::string &operation, ZR_ULONG code = INJECTED, int nth = 1, int count = 1);
    void heal(const std::string &operation);
    /// Runs at the start of every call of an operation, with no lock of the platform held; it may block or throw.
    void hook(const std::string &operation, std::function<void()> action);
    /// Scripts the answer to the next request of its message identifier that has none yet.
    void answer(const Answer &scripted);
    /// Hands a message to its processor on the delivery thread.
    void deliver(const Answer &message);
    /// Runs the callback of every timer of a period, on the caller's thread.
    void tick(ZR_ULONG periodMs);
    /// From now on a wait of 25 seconds is over after a few milliseconds.
    void expireWaits();
    std::atomic<bool> dispatcherMissing{false};
    std::atomic<int> sendChunk{0}; ///< bytes that a datagram takes; 0: all; negative: none

    // --- the record
    std::vector<std::string> logs(char fromLevel = '1') const;
    std::vector<LogLine> logLines() const;
    std::vector<Request> requests() const;
    /// What happened besides, in order: "setServerIP(10.0.0.9)", "register(77)", "release" ...
    std::vector<std::string> events() const;
    std::vector<std::string> datagrams() const;
    std::vector<std::string> playerPackets() const;
    std::vector<ZR_ULONG> deliveryResults() const;
    size_t liveMessages() const;
    std::atomic<int> openSockets{0};
    std::atomic<int> frequencyReads{0}; ///< of the process
    void record(const std::string &event);
    void clearRecord();
    /// Waits, 20 seconds at most, until a predicate over the record holds.
    bool waitFor(const std::function<bool()> &predicate);
    bool waitForRequests(size_t count);

    // --- for the platform's operations
    /// Runs the operation's hook and says whether this call fails, and with which code.
    ZR_ULONG enter(const std::string &operation);
    void writeLog(const std::string &text, int line);
    tagMDPMsg *allocateMessage();
    void freeMessage(void *message);
    ZR_ULONG addElement(tagAOIMsg *message, const std::string &name, const std::string &value);
    ZR_ULONG send(tagMDPMsg *message);
    ZR_ULONG registerProcessor(ZR_ULONG id, CIAOIMsgProc *processor);
    ZR_ULONG unregisterProcessor(ZR_ULONG id);
    void startTimer(ZR_ULONG periodMs, TW_TIMER_CALLBACK callback, void *user, ZR_ULONG &handle);
    ZR_ULONG stopTimer(ZR_ULONG handle);
    int sendDatagram(const std::string &target, const std::string &bytes);
    void playerPacket(const std::string &packet);
    std::atomic<int64_t> clockOffset{0}; ///< of the counter, in ticks of 100 ns
    std::atomic<int64_t> todOffset{0};   ///< of the next reading of the time of day alone

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
    void runDelivery();

    mutable std::recursive_mutex m_lock; ///< guards everything below; never held while foreign code runs
    std::condition_variable_any m_changed;
    std::map<std::string, Fault> m_faults;
    std::map<std::string, std::function<void()>> m_hooks;
    std::deque<Answer> m_scripted, m_queue;
    std::map<ZR_ULONG, CIAOIMsgProc *> m_processors;
    std::map<const void *, std::vector<std::string>> m_messages;
    std::map<ZR_ULONG, Timer> m_timers;
    std::vector<LogLine> m_logs;
    std::vector<Request> m_requests;
    std::vector<std::string> m_events, m_datagrams, m_playerPackets;
    std::vector<ZR_ULONG> m_deliveryResults;
    std::thread m_delivery;
    ZR_ULONG m_runningId = 0; ///< whose processor the delivery thread is in
    bool m_stopping = false;
    ZR_ULONG m_lastTimer = 0;
};

} // namespace zr::test
