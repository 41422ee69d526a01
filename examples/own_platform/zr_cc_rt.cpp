// The route registry. Your dispatcher looks here for the far side's address when a request has to go out; the loop-back
// has no far side, but counts as yours must.

#include <map>
#include <mutex>
#include <utility>

#include "zr_cc_rt.h"

namespace {

struct Routes
{
    std::mutex mutex; ///< guards the table; nothing is called under it
    std::map<std::pair<std::string, std::string>, ZR_ULONG> counts;
};

Routes &routes()
{
    static Routes &instance = *new Routes; // never freed: objects may be deleted while the process ends
    return instance;
}

} // namespace

// Called by createMediaCtrlInter on the host's thread, before the object is registered with the dispatcher. Count: two
// sessions may share a pair. A failure is not looked at; the object's requests then have no route, and are refused by
// sendAOIMsg.
ZR_ULONG CRouteMgr::addUAAddr(const std::string &strSrcUaID, const std::string &strDstUaID, const std::string &strIP,
                              ZR_USHORT usPort)
{
    if (strIP.empty() || usPort == 0)
        return 2;
    Routes &all = routes();
    const std::lock_guard<std::mutex> lock(all.mutex);
    ++all.counts[{strSrcUaID, strDstUaID}];
    return 0;
}

// Called once for each addUAAddr, on the thread that deletes the object, after its last request. A connection may still
// have its TEARDOWN to send: do not end it here. A failure is not looked at.
ZR_ULONG CRouteMgr::deleteUAAddr(const std::string &strSrcUaID, const std::string &strDstUaID)
{
    Routes &all = routes();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.counts.find({strSrcUaID, strDstUaID});
    if (found == all.counts.end())
        return 1;
    if (--found->second == 0)
        all.counts.erase(found);
    return 0;
}
