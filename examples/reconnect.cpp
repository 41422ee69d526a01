// Keeps a stream playing: begins a new session, with growing pauses, whenever the old one has ended.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>

#include "session.h"

using namespace std::chrono_literals;

namespace {

/// Hands a notification on to the host's own thread: inside of one no object can be made or deleted.
class Ending : public CIMediaCtrlObserver
{
public:
    ZR_ULONG getObserverID() override { return 1; }

    void notify(ZR_ULONG *code, uintptr_t) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_code = *code;
        m_changed.notify_one();
    }

    /// @return the notification, or 0 when the time has passed without
    ZR_ULONG wait(std::chrono::seconds time)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, time, [this] { return m_code != 0; });
        return m_code;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    ZR_ULONG m_code = 0;
};

/// @return whether the session lived as long as it was to
bool playOnce(const example::Source &source, std::chrono::seconds time)
{
    Ending ending; // outlives the session that tells it
    example::Session session(source, "127.0.0.1", &ending);
    session.setUp(PROTOCOL_TCP);
    example::Library::require("play", session.control().play("", ""));
    std::printf("playing\n");
    std::fflush(stdout);
    const ZR_ULONG code = ending.wait(time);
    if (code != 0)
        std::printf("the session has ended: %u\n", code);
    return code == 0;
}

void keepPlaying(const example::Source &source, std::chrono::seconds time)
{
    constexpr auto longestPause = 30s;
    for (auto pause = 1s;; pause = std::min(pause * 2, longestPause))
    {
        try
        {
            if (playOnce(source, time))
                return;
            pause = 1s; // it had worked
        }
        catch (const std::exception &failed)
        {
            std::printf("%s\n", failed.what());
        }
        std::printf("once more in %lld s\n", static_cast<long long>(pause.count()));
        std::fflush(stdout);
        std::this_thread::sleep_for(pause);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
    {
        std::fprintf(stderr, "usage: %s HOST PORT PATH SECONDS\n", argv[0]);
        return 2;
    }
    return example::run(
        [&] { keepPlaying(example::Source::fromArguments(argv), std::chrono::seconds(std::stoul(argv[4]))); });
}
