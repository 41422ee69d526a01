/// @file
/// The far side of the template's dispatcher: a device inside the process that answers each request by a table. In its
/// place comes what speaks RTSP (RFC 2326) to a network.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "zr_msg_dispatch.h"

namespace own {

struct FreeMessage
{
    void operator()(tagMDPMsg *message) const;
};
using Message = std::unique_ptr<tagMDPMsg, FreeMessage>;

/// @return a message without elements
/// @throws std::bad_alloc
Message makeMessage(ZR_ULONG size);

/// Used by one thread at a time.
class LoopBack
{
public:
    /// Whether requests of this message identifier are known.
    static bool knows(ZR_ULONG messageId);

    /// Answers a request. What it begins and ends goes by the request's source identifier.
    /// @return the answer, addressed to who sent the request
    Message answer(const tagAOIMsg &request);

private:
    using Clock = std::chrono::steady_clock;
    struct Session
    {
        std::string id;
        double position = 0.0; ///< in seconds, at `since` or now
        float scale = 1.0F;
        bool playing = false;
        Clock::time_point since;

        double now() const;
    };
    struct Row;
    static const Row *rowOf(ZR_ULONG messageId);
    static bool authorized(const tagAOIMsg &request, const std::string &url);

    // each fills the answer, and returns 0 or the RTSP status of a failure
    ZR_ULONG describe(const tagAOIMsg &request, tagAOIMsg *answer);
    ZR_ULONG setUp(const tagAOIMsg &request, tagAOIMsg *answer);
    ZR_ULONG play(const tagAOIMsg &request, tagAOIMsg *answer);
    ZR_ULONG pause(const tagAOIMsg &request, tagAOIMsg *answer);
    ZR_ULONG tearDown(const tagAOIMsg &request, tagAOIMsg *answer);
    ZR_ULONG keepAlive(const tagAOIMsg &request, tagAOIMsg *answer);
    static constexpr ZR_ULONG noSession = 454; ///< RTSP's "Session Not Found"
    Session *sessionOf(const tagAOIMsg &request);

    std::map<ZR_ULONG, Session> m_sessions; ///< by the identifier of who asked for them
    unsigned m_lastSession = 0;
};

} // namespace own
