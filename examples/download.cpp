// Fetches a part of a recording into a file, faster than it plays, and shows how far it is.

#include <chrono>
#include <cstdio>
#include <thread>

#include "session.h"

using namespace std::chrono_literals;
using example::Library;

namespace {

constexpr ZR_ULONG fullFrame = 1;
constexpr int fourTimes = 2; // a download code: 0 to 3 are 1, 2, 4 and 8 times

/// @param from, to  seconds of the recording
void fetch(const example::Source &source, unsigned long from, unsigned long to, const char *file)
{
    example::Session session(source, "127.0.0.1");
    session.setUp(PROTOCOL_TCP, fourTimes);
    Library::require("recording", ZR_MediaPortRecord(session.portId(), file));
    Library::require("download", session.extended<CIMediaCtrlEx>().download(std::to_string(from), std::to_string(to),
                                                                            fourTimes, fullFrame));
    const uint64_t wanted = (to - from) * 1000;
    constexpr uint64_t lastFrame = 100; // nobody tells how long the last one lasts
    constexpr ZR_ULONG givenUp = 10000;
    ZrMediaStatistics received = {};
    while (received.ullMediaMs + lastFrame < wanted)
    {
        std::this_thread::sleep_for(200ms);
        received = session.statistics();
        std::printf("%3u%%, %.1f MB\n", static_cast<unsigned>(received.ullMediaMs * 100 / wanted),
                    static_cast<double>(received.ullBytes) / 1e6);
        if (received.ulLastArrivalMs > givenUp && received.ulLastArrivalMs != 0xFFFFFFFF)
            throw std::runtime_error("the server has stopped sending");
    }
    session.control().tearDown();
    Library::require("ending the recording", ZR_MediaPortRecord(session.portId(), nullptr)); // the file is whole now
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7)
    {
        std::fprintf(stderr, "usage: %s HOST PORT PATH FROM TO FILE.mkv\n", argv[0]);
        return 2;
    }
    return example::run(
        [&] { fetch(example::Source::fromArguments(argv), std::stoul(argv[4]), std::stoul(argv[5]), argv[6]); });
}
