#include <array>
#include <cstdio>

#include "elements.h"
#include "loop_back.h"
#include "tw_system.h"

ZR_ULONG own::LoopBack::play(const tagAOIMsg &request, tagAOIMsg *answer)
{
    Session *session = sessionOf(request);
    if (session == nullptr)
        return noSession;
    session->position = session->now();
    std::sscanf(textOf(request, AOI_IE_RANGE_TIME).c_str(), "%lf", &session->position);
    session->scale = 1.0F;
    getValue(&request, AOI_IE_SCALE, session->scale);
    session->playing = true;
    session->since = Clock::now();
    return keepAlive(request, answer);
}

ZR_ULONG own::LoopBack::pause(const tagAOIMsg &request, tagAOIMsg *answer)
{
    Session *session = sessionOf(request);
    if (session == nullptr)
        return noSession;
    session->position = session->now();
    session->playing = false;
    return keepAlive(request, answer);
}

/// What all answers within a session tell: whose it is, and where it plays.
ZR_ULONG own::LoopBack::keepAlive(const tagAOIMsg &request, tagAOIMsg *answer)
{
    const Session *session = sessionOf(request);
    if (session == nullptr)
        return noSession;
    std::array<char, 64> range{};
    VELK_snprintf(range.data(), range.size(), "npt=%.3f-", session->now());
    addText(answer, AOI_IE_SESSION_ID, 0, session->id);
    addText(answer, AOI_IE_RANGE, 0, range.data());
    return 0;
}

double own::LoopBack::Session::now() const
{
    if (!playing)
        return position;
    return position + std::chrono::duration<double>(Clock::now() - since).count() * static_cast<double>(scale);
}
