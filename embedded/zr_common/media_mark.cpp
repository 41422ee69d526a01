#include "media_mark.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <unordered_map>

#include "zr_common.h"

namespace {

/// Holds no mark itself. Of ports that nobody receives on any more it keeps at most as many entries as of others, or a
/// few: so that thousands of ports open without each one walking over all.
struct Marks
{
    static constexpr size_t few = 64;

    void dropExpired()
    {
        for (auto mark = byPort.begin(); mark != byPort.end();)
            mark = mark->second.expired() ? byPort.erase(mark) : std::next(mark);
        dropAt = std::max(few, 2 * byPort.size());
    }

    std::mutex mutex; ///< guards what follows; nothing is called under it
    std::unordered_map<ZR_ULONG, std::weak_ptr<std::atomic<bool>>> byPort;
    size_t dropAt = few; ///< entries
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
    if (all.byPort.size() >= all.dropAt)
        all.dropExpired();
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
