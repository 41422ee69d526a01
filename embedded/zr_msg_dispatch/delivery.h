/// @file
/// Who is registered, and the threads that call them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "aoi_message.h"
#include "host_orders.h"
#include "io_loop.h"

namespace zr::dispatch {

class SessionChannel;

/// Why a connection or a request failed.
struct Problem
{
    ZR_ULONG code = 0; ///< a tagZrConnectionProblem; a request's status
    std::string text;
};

/// What a server told of itself.
struct Facts
{
    std::string tls; ///< version; empty: none
    std::string server;
    std::string methods;         ///< of its Public header
    unsigned timeoutSeconds = 0; ///< 0: no session
    unsigned checksAnswered = 0; ///< keep-alives of the platform's own
    int checkStatus = 0;         ///< of the last one
};

/// One registration of a processor. An identifier that is registered again gets a new one, so that nothing addressed to
/// the old one reaches the new.
class Registration
{
public:
    Registration(ZR_ULONG identifier, CIAOIMsgProc *messageProcessor)
        : id(identifier)
        , orders(HostOrders::of(identifier))
        , processor(messageProcessor)
    {
    }

    const ZR_ULONG id;
    const std::shared_ptr<HostOrders> orders; ///< of the host, for this session
    /// Requests that were accepted and are neither answered nor dropped. Any thread.
    std::atomic<size_t> requests{0};

    /// Any thread; a mutex is held for the copy alone. It is one for all sessions: who writes has the loop's turn, so
    /// that only hosts that read meet there.
    template <typename Value>
    class Noted
    {
    public:
        Value get() const
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return m_value;
        }
        void set(const Value &value)
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_value = value;
        }
        /// @param change  is given the value; under the mutex
        template <typename Change>
        void change(const Change &change)
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            change(m_value);
        }

    private:
        static inline std::mutex m_mutex;
        Value m_value;
    };
    using Note = Noted<Problem>;
    Noted<Facts> facts; ///< what its server told so far, also when the connection is gone
    Noted<std::shared_ptr<const std::string>> description; ///< as it came; null: none, or a track is set up by now
    Note connection;                                       ///< why it failed last, until there is one again
    Note refusal;                                          ///< of the latest request, until the next one
    bool givenUp = false;              ///< by the host: nobody waits for its server any more; on the loop's turn
    SessionChannel *channel = nullptr; ///< the engine's, on the loop's turn; null: none yet, or no more

private:
    friend class Delivery;
    CIAOIMsgProc *const processor;
    // the rest is guarded by the delivery's mutex
    std::vector<aoi::MessagePtr> messages; ///< in order
    bool scheduled = false;                ///< in a list of those that are ready, or its call is running
    bool running = false;
    bool retired = false; ///< for good; from then on messages stays empty and no call begins
};
using RegistrationPtr = std::shared_ptr<Registration>;

/// A registration's messages come one after the other; a registration whose processor blocks holds one thread and
/// nobody else.
///
/// An answer is handed over by the loop's own thread, between two turns: another thread would cost more than all the
/// rest. As answers wake who waits and do little else, that is soon done; when one is not, a thread that watches gives
/// the loop another one, and when many are not, the threads below take the rest. What a server says of its own accord
/// makes a host act: that, and what comes while a call for its registration is running, is for threads that do nothing
/// else. When all of those have been stuck in their calls while somebody waits, one more is started, up to a bound.
///
/// One mutex guards everything here, and no call into a processor and no destruction of a message happens under it. So
/// "retired" and "running" change in one order that all agree on: a call begins only for a registration that is not
/// retired, and whoever retires sees whether one is running.
class Delivery
{
public:
    explicit Delivery(IoLoop &loop);
    ~Delivery();
    Delivery(const Delivery &) = delete;
    Delivery &operator=(const Delivery &) = delete;

    /// Any thread. @return 0; codeInvalidArgument; codeInUse
    ZR_ULONG add(ZR_ULONG id, CIAOIMsgProc *processor);
    /// Any thread. @return null when there is none
    RegistrationPtr find(ZR_ULONG id);
    /// Whether it has ended. Any thread.
    bool retired(const Registration &registration);
    /// Ends a registration: its identifier is free, what is queued is dropped, no call begins any more. One may still
    /// be running. Any thread. @return null when there is none
    RegistrationPtr retire(ZR_ULONG id);
    /// Waits until no call is running for a registration of that identifier that was retired, now or earlier; on a
    /// callback thread returns at once.
    void waitIdle(ZR_ULONG id);
    /// Queues a message; dropped when the registration is retired. On the loop's turn.
    void deliver(const RegistrationPtr &registration, aoi::MessagePtr message);
    /// Makes the calls for answers. The loop's thread, without the turn.
    void handOver();

    /// Retires all, wherever they are. Any thread.
    std::vector<RegistrationPtr> retireAll();
    /// Waits for the running calls and ends the threads, once the loop has stopped.
    void stop();

private:
    using Ready = std::deque<RegistrationPtr>;

    void endRegistration(RegistrationPtr registration, std::vector<aoi::MessagePtr> &dropped);
    void work();
    void callNext(std::unique_lock<std::mutex> &lock, Ready &ready);
    void makeReady(const RegistrationPtr &registration);
    void grow();
    void watchForStalls();
    void checkStalled();
    void watchHandOver();
    void beginWatch();

    IoLoop &m_loop;
    std::mutex m_mutex;             ///< guards all below, and the registrations
    std::condition_variable m_wake; ///< a registration is ready, or the end
    std::condition_variable m_idle; ///< a call into a retired registration's processor has ended
    std::unordered_map<ZR_ULONG, RegistrationPtr> m_registrations;
    std::vector<RegistrationPtr> m_ending; ///< retired while their call was running, until it has ended
    Ready m_ready;
    std::vector<std::thread> m_threads;
    size_t m_idleThreads = 0;
    uint64_t m_taken = 0;        ///< calls begun by them
    uint64_t m_takenAtCheck = 0; ///< the same, when the stall timer was started
    bool m_stopped = false;

    Ready m_answered;           ///< for the loop's thread
    uint64_t m_handedOver = 0;  ///< calls begun by it
    bool m_handingOver = false; ///< one is running
    size_t m_late = 0;          ///< calls whose thread was replaced, and that have not returned
    bool m_watching = false;    ///< the watching thread looks at every tick
    std::condition_variable m_watch;
    std::thread m_watcher;

    LoopTimer m_stallTimer; ///< on the loop's turn
};

} // namespace zr::dispatch
