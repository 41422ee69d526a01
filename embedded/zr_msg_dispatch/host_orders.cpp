#include "host_orders.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include <openssl/crypto.h>

#include "platform_log.h"
#include "rtsp_text.h"
#include "zr_platform.h"

namespace zr::dispatch {

namespace {

constexpr size_t longestCredential = 255;
constexpr size_t mostHeaders = 16;
constexpr size_t longestName = 64;
constexpr size_t longestValue = 1024;

/// What the dispatch writes itself, or what would announce a body.
constexpr std::array<std::string_view, 12> reservedNames = {
    "CSeq",  "Session", "Transport", "Content-Length",    "Authorization",    "User-Agent",
    "Scale", "Range",   "Accept",    "Transfer-Encoding", "Content-Encoding", "Content-Type"};
constexpr std::array<std::string_view, 8> methods = {"DESCRIBE", "SETUP",   "PLAY",          "PAUSE",
                                                     "TEARDOWN", "OPTIONS", "GET_PARAMETER", "SET_PARAMETER"};

struct Store
{
    std::mutex mutex; ///< guards the map, and what counts in each of its members
    std::unordered_map<ZR_ULONG, std::shared_ptr<HostOrders>> orders;
};

/// Never destroyed: hosts may call while the process ends.
Store &store()
{
    static Store *const only = new Store;
    return *only;
}

/// @return why a header cannot be added, or null
const char *headerProblem(std::string_view method, std::string_view name, std::string_view value)
{
    if (!method.empty() && std::find(methods.begin(), methods.end(), method) == methods.end())
        return "the method is none that is sent";
    if (!rtsp::isToken(name) || name.size() > longestName)
        return "its name is no token of at most 64 characters";
    if (std::any_of(reservedNames.begin(), reservedNames.end(),
                    [name](std::string_view reserved) { return rtsp::sameText(name, reserved); }))
        return "the platform writes it itself";
    if (rtsp::hasControls(value) || value.size() > longestValue)
        return "its value has control characters, or more than 1024 bytes";
    return nullptr;
}

ZR_ULONG refused(const char *operation, ZR_ULONG id, ZR_ULONG code, const char *why)
{
    ZR_PLATFORM_LOG(ERROR, code, Dispatch, "%s for %u is refused: %s", operation, id, why);
    return code;
}

ZR_ULONG tooMany(const char *operation, ZR_ULONG id)
{
    return refused(operation, id, ZR_SESSION_TOO_MANY, "it has 16 headers already");
}

/// Puts a header in the place of the one that it replaces; an empty value only takes that away.
bool put(std::vector<HostHeader> &headers, HostHeader added)
{
    headers.erase(std::remove_if(headers.begin(), headers.end(),
                                 [&added](const HostHeader &old) {
                                     return old.method == added.method &&
                                            rtsp::sameText(old.header.name, added.header.name);
                                 }),
                  headers.end());
    if (added.header.value.empty())
        return true;
    if (headers.size() == mostHeaders)
        return false;
    headers.push_back(std::move(added));
    return true;
}

std::string framesOf(const ZrOnvifReplay &replay)
{
    const std::string interval = replay.ulIntervalMs == 0 ? std::string() : '/' + std::to_string(replay.ulIntervalMs);
    switch (replay.ulFrames)
    {
    case ZR_FRAMES_INTRA:
        return "intra" + interval;
    case ZR_FRAMES_PREDICTED:
        return "predicted" + interval;
    default:
        return {};
    }
}

/// The headers of a replay (ONVIF Streaming Specification, replay control); without one they are taken away.
std::vector<HostHeader> replayHeaders(const ZrOnvifReplay *replay)
{
    const std::string require = replay ? "onvif-replay" : "";
    const std::string immediate = replay && replay->ulImmediate != 0 ? "yes" : "";
    std::string rate;
    if (replay && replay->ulRateControl != ZR_RATE_CONTROL_UNSAID)
        rate = replay->ulRateControl == ZR_RATE_CONTROL_NO ? "no" : "yes";
    return {{"SETUP", {"Require", require}},
            {"PLAY", {"Require", require}},
            {"PLAY", {"Rate-Control", rate}},
            {"PLAY", {"Immediate", immediate}},
            {"PLAY", {"Frames", replay ? framesOf(*replay) : ""}}};
}

template <typename Operation>
ZR_ULONG guarded(const char *name, ZR_ULONG id, Operation operation)
{
    try
    {
        return operation();
    }
    catch (const std::exception &error)
    {
        return refused(name, id, ZR_SESSION_FAILED, error.what());
    }
}

} // namespace

Credentials::Credentials(std::string_view userName, std::string_view userPassword, bool basicInClear)
    : user(userName)
    , password(userPassword)
    , mayShow(basicInClear)
{
}

Credentials::~Credentials()
{
    OPENSSL_cleanse(password.data(), password.size());
}

std::string Orders::linesFor(std::string_view method) const
{
    std::string lines;
    for (const HostHeader &mine : headers)
    {
        const bool replaced = mine.method.empty() &&
                              std::any_of(headers.begin(), headers.end(), [&mine, method](const HostHeader &other) {
                                  return other.method == method && rtsp::sameText(other.header.name, mine.header.name);
                              });
        if (!replaced && (mine.method.empty() || mine.method == method))
            lines.append(mine.header.name).append(": ").append(mine.header.value).append("\r\n");
    }
    return lines;
}

const std::shared_ptr<const Orders> &HostOrders::none()
{
    static const auto &only = *new std::shared_ptr<const Orders>(std::make_shared<Orders>()); // as the store
    return only;
}

std::shared_ptr<HostOrders> HostOrders::of(ZR_ULONG id)
{
    const std::lock_guard<std::mutex> lock(store().mutex);
    std::shared_ptr<HostOrders> &found = store().orders[id];
    if (!found)
        found = std::make_shared<HostOrders>();
    return found;
}

bool HostOrders::change(ZR_ULONG id, const std::function<bool(Orders &)> &apply)
{
    const std::lock_guard<std::mutex> lock(store().mutex);
    const auto found = store().orders.find(id);
    const auto changed = found == store().orders.end() ? std::make_shared<Orders>()
                                                       : std::make_shared<Orders>(*found->second->m_current);
    if (!apply(*changed))
        return false;
    if (found == store().orders.end() && changed->none())
        return true;
    std::shared_ptr<HostOrders> &orders = store().orders[id];
    if (!orders)
        orders = std::make_shared<HostOrders>();
    orders->m_current = changed;
    if (changed->none() && orders.use_count() == 1) // no session has it
        store().orders.erase(id);
    return true;
}

void HostOrders::forget(ZR_ULONG id)
{
    const std::lock_guard<std::mutex> lock(store().mutex);
    const auto found = store().orders.find(id);
    if (found != store().orders.end() && found->second.get() == this)
        store().orders.erase(found);
}

std::shared_ptr<const Orders> HostOrders::current() const
{
    const std::lock_guard<std::mutex> lock(store().mutex);
    return m_current;
}

} // namespace zr::dispatch

using zr::dispatch::HostOrders;
using zr::dispatch::Orders;

ZR_ULONG ZR_SessionSetCredentials(ZR_ULONG ulAOIPortID, const char *pszUser, const char *pszPassword, ZR_ULONG ulFlags)
{
    namespace zd = zr::dispatch;
    constexpr const char *name = "ZR_SessionSetCredentials";
    return zd::guarded(name, ulAOIPortID, [&]() -> ZR_ULONG {
        std::shared_ptr<const zd::Credentials> credentials;
        if (pszUser)
        {
            const std::string_view user = pszUser;
            if (!pszPassword || user.empty() || user.find(':') != std::string_view::npos ||
                zr::rtsp::hasControls(user) || zr::rtsp::hasControls(pszPassword) ||
                user.size() > zd::longestCredential || std::strlen(pszPassword) > zd::longestCredential ||
                ulFlags > ZR_CREDENTIALS_BASIC_IN_CLEAR)
                return zd::refused(name, ulAOIPortID, ZR_SESSION_INVALID,
                                   "no user or password, one with control characters, a user with a colon, one of more "
                                   "than 255 bytes, or an unknown flag");
            credentials = std::make_shared<zd::Credentials>(user, pszPassword, ulFlags != 0);
        }
        HostOrders::change(ulAOIPortID, [&](Orders &orders) {
            orders.credentials.swap(credentials);
            return true;
        });
        return 0;
    });
}

ZR_ULONG ZR_SessionSetHeader(ZR_ULONG ulAOIPortID, const char *pszMethod, const char *pszName, const char *pszValue)
{
    namespace zd = zr::dispatch;
    constexpr const char *operation = "ZR_SessionSetHeader";
    return zd::guarded(operation, ulAOIPortID, [&]() -> ZR_ULONG {
        const zd::HostHeader header = {
            pszMethod ? pszMethod : "",
            {pszName ? pszName : "", std::string(zr::rtsp::trimmed(pszValue ? pszValue : ""))}};
        const char *problem = zd::headerProblem(header.method, header.header.name, header.header.value);
        if (!problem && pszValue && header.header.value.empty())
            problem = "its value is empty";
        if (problem)
            return zd::refused(operation, ulAOIPortID, ZR_SESSION_INVALID, problem);
        const auto add = [&](Orders &orders) { return zd::put(orders.headers, header); };
        return HostOrders::change(ulAOIPortID, add) ? 0 : zd::tooMany(operation, ulAOIPortID);
    });
}

ZR_ULONG ZR_SessionSetTunnel(ZR_ULONG ulAOIPortID, ZR_ULONG ulTunnel, ZR_ULONG ulPort)
{
    namespace zd = zr::dispatch;
    constexpr const char *name = "ZR_SessionSetTunnel";
    return zd::guarded(name, ulAOIPortID, [&]() -> ZR_ULONG {
        if (ulTunnel > ZR_TUNNEL_HTTP_ONE || ulPort > UINT16_MAX)
            return zd::refused(name, ulAOIPortID, ZR_SESSION_INVALID, "an unknown tunnel, or a port above 65535");
        HostOrders::change(ulAOIPortID, [&](Orders &orders) {
            orders.tunnel = ulTunnel;
            orders.tunnelPort = static_cast<uint16_t>(ulPort);
            return true;
        });
        return 0;
    });
}

ZR_ULONG ZR_SessionSetReplay(ZR_ULONG ulAOIPortID, const ZrOnvifReplay *pstReplay)
{
    namespace zd = zr::dispatch;
    constexpr const char *name = "ZR_SessionSetReplay";
    return zd::guarded(name, ulAOIPortID, [&]() -> ZR_ULONG {
        if (pstReplay && (pstReplay->ulRateControl > ZR_RATE_CONTROL_YES || pstReplay->ulFrames > ZR_FRAMES_PREDICTED ||
                          (pstReplay->ulFrames == ZR_FRAMES_ALL && pstReplay->ulIntervalMs != 0)))
            return zd::refused(name, ulAOIPortID, ZR_SESSION_INVALID,
                               "an unknown value, or an interval between all frames");
        std::vector<zd::HostHeader> headers = zd::replayHeaders(pstReplay);
        const auto add = [&](Orders &orders) {
            return std::all_of(headers.begin(), headers.end(), [&orders](zd::HostHeader &header) {
                return zd::put(orders.headers, std::move(header));
            });
        };
        return HostOrders::change(ulAOIPortID, add) ? 0 : zd::tooMany(name, ulAOIPortID);
    });
}
