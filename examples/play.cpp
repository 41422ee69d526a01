// Plays a stream for three seconds, pauses, seeks, plays on twice as fast, and takes a picture.

#include <chrono>
#include <cstdio>
#include <thread>

#include "session.h"

using namespace std::chrono_literals;
using example::Library;

namespace {

void tell(const char *what, const example::Session &session)
{
    const ZrMediaStatistics received = session.statistics();
    std::printf("%s: %llu packets, %llu lost\n", what, static_cast<unsigned long long>(received.ullPackets),
                static_cast<unsigned long long>(received.ullLost));
}

void play(const example::Source &source, const char *picture)
{
    constexpr ZR_ULONG twiceAsFast = 12; // a speed code, not a factor
    example::Session session(source, "127.0.0.1");
    session.setUp(PROTOCOL_TCP);

    Library::require("play", session.control().play("", ""));
    Library::require("taking the picture", ZR_MediaPortSnapshot(session.portId(), picture, 5000));
    std::this_thread::sleep_for(3s);
    tell("played", session);

    auto &playback = session.extended<CIMediaCtrlEx>();
    Library::require("pause", playback.pause());
    tell("paused", session);
    Library::require("seeking", playback.dragPlay("5", "", twiceAsFast));
    std::this_thread::sleep_for(1s);
    tell("played on from 5 s", session);
    session.control().tearDown();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5)
    {
        std::fprintf(stderr, "usage: %s HOST PORT PATH PICTURE.png\n", argv[0]);
        return 2;
    }
    return example::run([&] { play(example::Source::fromArguments(argv), argv[4]); });
}
