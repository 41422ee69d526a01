// The plug-in's library over the embedded platform: started twice, ended with objects alive, closed and opened again.
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <thread>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "zr_platform.h"
#include "zr_rtsp/zr_rtsp.h"

namespace {

/// The plug-in, as a host opens it.
struct Plugin
{
    Plugin()
        : library(dlopen(ZR_PLUGIN, RTLD_NOW | RTLD_LOCAL))
        , start(find<decltype(init)>("init"))
        , end(find<decltype(destroy)>("destroy"))
        , create(find<decltype(createMediaCtrlInter)>("createMediaCtrlInter"))
        , remove(find<decltype(deleteMediaCtrlInter)>("deleteMediaCtrlInter"))
    {
        EXPECT_EQ(0U, start(0, 0, nullptr, nullptr));
    }
    template <typename Function>
    Function *find(const char *name) const
    {
        return reinterpret_cast<Function *>(dlsym(library, name));
    }
    CIMediaCtrl *object(ZR_ULONG id, uint16_t port) const
    {
        return create(id, "src", "dst", "127.0.0.1", 6000, "127.0.0.1", port, id);
    }

    void *library;
    decltype(init) *start;
    decltype(destroy) *end;
    decltype(createMediaCtrlInter) *create;
    decltype(deleteMediaCtrlInter) *remove;
};

/// How often a walk of the media timer has met an object that does not play, by the log.
size_t walks(const std::string &log)
{
    CZRWriteLog::writeLog(ZR_LOG_INFO, 0, 0, "test", __LINE__, "what was logged before is flushed");
    std::ifstream file(log);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    size_t count = 0;
    for (size_t at = 0; (at = text.find("no MediaCtrl alive", at)) != std::string::npos; ++at)
        ++count;
    return count;
}

TEST(PluginLife, objectsAndTimersOutliveItsEndAndItsClosing)
{
    const std::string log = "plugin_life." + std::to_string(getpid()) + ".log";
    ZR_LogSetFile(log.c_str());
    ZR_LogSetLevel(ZR_LOG_DEBUG);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), length));
    ASSERT_EQ(0, listen(listener, 1));
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    const timeval patience = {15, 0}; // of accept and recv
    setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const uint16_t port = ntohs(address.sin_port);
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/silent";

    Plugin first;
    EXPECT_EQ(0U, first.start(0, 0, nullptr, nullptr)); // whose timers are never stopped
    CIMediaCtrl *waiting = first.object(1, port), *kept = first.object(2, port);
    auto describe = std::async(std::launch::async, [object = waiting, &url] { return object->describe(url); });
    const int server = accept(listener, nullptr, nullptr); // the request is on its way, and nobody will answer
    char request[8] = {};
    EXPECT_EQ(8, recv(server, request, sizeof request, MSG_WAITALL));
    for (int i = 0; i < 3; ++i) // the last has nothing to end
        first.end();
    EXPECT_EQ(0U, first.remove(&waiting));
    EXPECT_EQ(std::future_status::ready, describe.wait_for(std::chrono::seconds(15)));
    EXPECT_NE(0U, describe.get());
    EXPECT_NE(0U, kept->describe(url));
    EXPECT_NE(0U, kept->setup(url, PROTOCOL_TCP));

    EXPECT_EQ(0, dlclose(first.library));
    const size_t before = walks(log);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (walks(log) == before && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_LT(before, walks(log)); // in code that would be gone

    const Plugin second;
    CIMediaCtrl *fresh = second.object(1, port);
    EXPECT_EQ(0U, second.remove(&kept));
    auto again = std::async(std::launch::async, [object = fresh, &url] { return object->describe(url); });
    const int next = accept(listener, nullptr, nullptr);
    for (const int each : {next, server, listener})
        close(each);
    EXPECT_EQ(503U, again.get());
    EXPECT_EQ(0U, second.remove(&fresh));
    second.end();
    EXPECT_EQ(0, dlclose(second.library));
    ZR_LogSetFile(nullptr);
    EXPECT_EQ(0, std::remove(log.c_str()));
}

} // namespace
