#include "route_registry.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform_log.h"
#include "zr_cc_rt.h"

namespace {

using UaPair = std::pair<std::string, std::string>;

struct Entry
{
    zr::route::Address address;
    unsigned count = 0;
};

struct Registry
{
    std::mutex mutex; ///< guards the table; nothing is called under it
    std::map<UaPair, std::vector<Entry>> table;
};

Registry &registry()
{
    static Registry instance;
    return instance;
}

constexpr ZR_ULONG codeNotRegistered = 1;

} // namespace

ZR_ULONG CRouteMgr::addUAAddr(const std::string &strSrcUaID, const std::string &strDstUaID, const std::string &strIP,
                              ZR_USHORT usPort)
{
    Registry &routes = registry();
    const std::lock_guard<std::mutex> lock(routes.mutex);
    std::vector<Entry> &entries = routes.table[{strSrcUaID, strDstUaID}];
    for (Entry &entry : entries)
    {
        if (entry.address.host == strIP && entry.address.port == usPort)
        {
            ++entry.count;
            return 0;
        }
    }
    entries.push_back({{strIP, usPort}, 1});
    return 0;
}

ZR_ULONG CRouteMgr::deleteUAAddr(const std::string &strSrcUaID, const std::string &strDstUaID)
{
    Registry &routes = registry();
    const std::lock_guard<std::mutex> lock(routes.mutex);
    const auto found = routes.table.find({strSrcUaID, strDstUaID});
    if (found == routes.table.end())
        return codeNotRegistered;
    // which registration is meant is not said: the oldest address goes first
    std::vector<Entry> &entries = found->second;
    if (--entries.front().count == 0)
        entries.erase(entries.begin());
    if (entries.empty())
        routes.table.erase(found);
    return 0;
}

zr::route::Found zr::route::find(const std::string &srcUaId, const std::string &dstUaId)
{
    Registry &routes = registry();
    const std::lock_guard<std::mutex> lock(routes.mutex);
    Found found;
    const auto pair = routes.table.find({srcUaId, dstUaId});
    if (pair == routes.table.end())
        return found;
    for (const Entry &entry : pair->second)
    {
        if (found.first)
            found.others.push_back(entry.address);
        else
            found.first = entry.address;
    }
    return found;
}
