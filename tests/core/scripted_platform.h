/// @file
/// A platform that the test scripts: it records what the plug-in asks of the in-house libraries, answers requests on
/// cue from threads of its own, and fails whichever call the test names.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <tuple>
#include <utility>

#include "tw_util.h"
#include "zr_common.h"
#include "zr_msg_dispatch.h"

namespace zr::test {

using Texts = std::vector<std::string>;

constexpr ZR_ULONG AOI_PORT = 77;  ///< under which the tests register their objects
constexpr ZR_ULONG INJECTED = 777; ///< the code of an injected failure
constexpr ZR_ULONG REQUEST = 0, SUCCESS = 1, FAILURE = 2;

/// Which of the running thread's next steps is picked, counted from 1; 0: none, or it was met. Allocations are counted
/// by the one program that replaces operator new; there the picked one fails.
inline thread_local int callsLeft = 0, allocationsLeft = 0;
/// What happens at the picked call of the platform, and the code with which it then fails.
inline thread_local std::function<ZR_ULONG(const std::string &operation)> atPickedCall;

/// While it lives, the running thread's allocations are not counted: what has a C interface never throws.
struct Uncounted
{
    int left = std::exchange(allocationsLeft, 0);
    ~Uncounted() { allocationsLeft = left; }
};

/// A message from the far side. Elements are texts; an element that is absent fails its read with its own identifier.
struct Answer : tagAOIMsg
{
    Answer(ZR_ULONG id, ZR_ULONG kind, ZR_ULONG destination = AOI_PORT)
        : tagAOIMsg{{id, kind, 1, destination}}
    {
    }
    /// Adds an element: numbers in decimal, a transport as "address:port", the two elements that are read raw with
    /// their leading bytes and their zero.
    Answer &with(ZR_ULONG element, const std::string &value)
    {
        const size_t lead = element == AOI_IE_DATA ? 84 : element == AOI_IE_AUTHORIZATION_ID ? 8 : 0;
        return raw(element, std::string(lead, '\x7f') + value + '\0');
    }
    Answer &raw(ZR_ULONG element, const std::string &bytes)
    {
        elements[element].assign(bytes.begin(), bytes.end());
        return *this;
    }

    std::map<ZR_ULONG, std::vector<char>> elements;
};

/// A request, with its elements in the order of their adding, such as "Scale=1.000000".
struct Message : tagMDPMsg
{
    Texts elements;
};

/// Values as one text, with commas between them.
template <typename... Values>
std::string listed(const Values &...values)
{
    const Uncounted uncounted; // a stream would swallow the failure
    std::ostringstream out;
    ((out << std::fixed << values << ','), ...);
    return out.str().substr(0, out.str().rfind(','));
}

/// The platform and its message dispatcher. All operations may be called from any thread.
class Platform final : public CIAOIMsgDisp
{
public:
    /// Forgets everything recorded and scripted.
    void start()
    {
        locked()->m_script = {};
        clearRecord();
    }

    // --- the script
    /// Makes calls of an operation fail: those from the nth on (1: the next), count of them. Operations are named after
    /// the IE ("URL", "Scale" ...) or by a word of their own ("malloc", "header", "send" ...). Where a call does not
    /// fail but gives a number, it is that ("received": packets, "sendto": bytes that a datagram takes, -1: none).
    void fail(const std::string &operation, ZR_ULONG code = INJECTED, int nth = 1, int count = 1)
    {
        locked()->m_script.faults[operation] = {code, nth - 1, count};
    }
    /// Runs at the start of every call of an operation, with no lock of the platform held; it may block or throw.
    void hook(const std::string &operation, const std::function<void()> &action)
    {
        locked()->m_script.hooks[operation] = action;
    }
    /// Scripts the answer to the next request of its message identifier that has none yet.
    void answer(const Answer &scripted) { locked()->m_script.answers.emplace(scripted.stHeader.ulMsgID, scripted); }
    /// Hands a message to its processor, on a thread of its own.
    void deliver(Answer message)
    {
        const auto delivery = [this, message]() mutable {
            CIAOIMsgProc *processor = locked()->processorOf(message.stHeader.ulDstID);
            if (processor != nullptr)
                processor->AOIMsgPro(&message);
        };
        locked()->m_deliveries.push_back(std::async(std::launch::async, delivery));
    }
    /// Waits for what is being delivered; not from inside a delivery.
    void settle() { const auto finished = std::exchange(locked()->m_deliveries, {}); }
    void setTimer(ZR_ULONG periodMs, const std::function<void()> &step) { locked()->m_script.timers[periodMs] = step; }
    bool dropTimer(ZR_ULONG periodMs) { return locked()->m_script.timers.erase(periodMs) == 1; }
    /// Runs the timer of a period, on the caller's thread.
    void tick(ZR_ULONG periodMs)
    {
        const auto step = locked()->m_script.timers.at(periodMs);
        step();
    }
    /// From now on a wait of 25 seconds is over after a few milliseconds; by the time of day only the next one.
    void expireWaits()
    {
        fail("counterBehindMs", 24'995, 1, 1'000'000);
        fail("timeBehindMs", 24'995);
    }

    // --- the record
    Texts logs(char fromLevel = '1')
    {
        Texts texts = locked()->m_record.logs;
        const auto below = [fromLevel](const std::string &text) { return text[0] < fromLevel; };
        texts.erase(std::remove_if(texts.begin(), texts.end(), below), texts.end());
        return texts;
    }
    std::vector<Message> requests() { return locked()->m_record.requests; }
    /// What happened besides, in order: "addUAAddr(...)", "register(77)", "release()" ...
    Texts events() { return locked()->m_record.events; }
    /// The bytes that were sent as datagrams or handed to the player library.
    Texts packets() { return locked()->m_record.packets; }
    void clearRecord() { locked()->m_record = {}; }
    std::atomic<size_t> liveMessages{0}; ///< allocated and not yet freed
    std::atomic<int> openSockets{0}, openRoutes{0};
    size_t processors() { return locked()->m_script.processors.size(); }
    /// Waits, 20 seconds at most, until a predicate over the record holds.
    bool waitFor(const std::function<bool()> &predicate)
    {
        std::unique_lock<std::recursive_mutex> guard(m_lock);
        return m_changed.wait_for(guard, std::chrono::seconds(20), predicate);
    }

    // --- for the platform's operations
    template <typename... Values>
    void record(const std::string &event, const Values &...values)
    {
        locked()->m_record.events.push_back(event + "(" + listed(values...) + ")");
    }
    void recordPacket(const std::string &bytes) { locked()->m_record.packets.push_back(bytes); }
    /// One log line as "level:code:text", followed by " {module}" or " {file}" where these are not the class's own.
    void writeLog(const std::string &text) { locked()->m_record.logs.push_back(text); }
    /// Runs the operation's hook and says whether this call fails, and with which code.
    ZR_ULONG enter(const std::string &operation)
    {
        const Uncounted uncounted;
        if (const ZR_ULONG code = callsLeft > 0 && --callsLeft == 0 ? atPickedCall(operation) : 0)
            return code;
        std::unique_lock<std::recursive_mutex> guard(m_lock);
        const auto action = m_script.hooks[operation];
        Fault &fault = m_script.faults[operation];
        const bool fails = fault.count > 0 && fault.skip-- <= 0;
        fault.count -= fails ? 1 : 0;
        const ZR_ULONG code = fails ? fault.code : 0;
        guard.unlock();
        if (action)
            action();
        return code;
    }
    ZR_ULONG sendAOIMsg(tagMDPMsg *message) override
    {
        const ZR_ULONG code = enter("send");
        if (code != 0)
            return code;
        const Locked guard = locked();
        m_record.requests.push_back(*static_cast<Message *>(message));
        if (const auto scripted = m_script.answers.extract(message->stHeader.ulMsgID))
            deliver(scripted.mapped());
        return 0;
    }
    ZR_ULONG registerAOIMsgProc(ZR_ULONG id, CIAOIMsgProc *processor) override
    {
        record("register", id);
        const ZR_ULONG code = enter("register");
        if (code == 0)
            locked()->m_script.processors[id] = processor;
        return code;
    }
    ZR_ULONG unregisterAOIMsgProc(ZR_ULONG id) override
    {
        record("unregister", id);
        enter("unregister");
        locked()->m_script.processors.erase(id);
        settle();
        return 0;
    }

private:
    struct Fault
    {
        ZR_ULONG code;
        int skip, count;
    };
    struct Script
    {
        std::map<std::string, Fault> faults;
        std::map<std::string, std::function<void()>> hooks;
        std::multimap<ZR_ULONG, Answer> answers;
        std::map<ZR_ULONG, CIAOIMsgProc *> processors;
        std::map<ZR_ULONG, std::function<void()>> timers;
    };
    struct Record
    {
        std::vector<Message> requests;
        Texts logs, events, packets;
    };
    /// The platform for one statement, under its lock; whoever waits for a change is told.
    struct Locked
    {
        ~Locked() { platform->m_changed.notify_all(); }
        Platform *operator->() const { return platform; }
        Platform *platform;
        std::unique_lock<std::recursive_mutex> guard{platform->m_lock};
        Uncounted uncounted{};
    };
    Locked locked() { return {this}; }
    CIAOIMsgProc *processorOf(ZR_ULONG id) { return m_script.processors.count(id) ? m_script.processors[id] : nullptr; }

    std::recursive_mutex m_lock; ///< guards everything below; never held while foreign code runs
    std::condition_variable_any m_changed;
    Script m_script;
    Record m_record;
    std::vector<std::future<void>> m_deliveries;
};

inline Platform platform; ///< the process's one

} // namespace zr::test
