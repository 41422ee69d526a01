#include "media_mark.h"

#include <map>
#include <mutex>

#include "zr_common.h"

namespace {

/// Holds no mark itself: a port that nobody receives on any more leaves nothing behind.
struct Marks
{
    std::mutex mutex; ///< guards the map; nothing is called under it
    std::map<ZR_ULONG, std::weak_ptr<std::atomic<bool>>> byPort;
};

Marks &marks()
{
    static Marks &instance = *new Marks; // never freed: media may arrive until the process ends
    return instance;
}

/// Takes a port's mark back and tells whether it was there.
bool takeMark(ZR_ULONG portId)
{
    Marks &all = marks();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.byPort.find(portId);
    const auto mark = found == all.byPort.end() ? nullptr : found->second.lock();
    return mark != nullptr && mark->exchange(false);
}

} // namespace

std::shared_ptr<std::atomic<bool>> zr::common::mediaMark(ZR_ULONG portId)
{
    Marks &all = marks();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (auto mark = all.byPort.begin(); mark != all.byPort.end();)
        mark = mark->second.expired() ? all.byPort.erase(mark) : std::next(mark);

    std::weak_ptr<std::atomic<bool>> &entry = all.byPort[portId];
    auto mark = entry.lock();
    if (mark == nullptr)
    {
        mark = std::make_shared<std::atomic<bool>>(false);
        entry = mark;
    }
    return mark;
}

void CJugeMediaKeepLive::RefreshMediaKeepLive(ZR_ULONG ulPortID)
{
    takeMark(ulPortID);
}

ZR_ULONG CJugeMediaKeepLive::CheckIfRecvPkt(ZR_ULONG ulPortID)
{
    return takeMark(ulPortID) ? 1 : 0;
}
