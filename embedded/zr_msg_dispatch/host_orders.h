/// @file
/// What a host orders for a session besides the plug-in's requests: credentials, headers of its own, a tunnel.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "rtsp_message.h"
#include "zr_platform.h"
#include "zr_types.h"

namespace zr::dispatch {

/// Wiped when nobody needs them any more.
struct Credentials
{
    Credentials(std::string_view userName, std::string_view userPassword, bool basicInClear);
    ~Credentials();
    Credentials(const Credentials &) = delete;
    Credentials &operator=(const Credentials &) = delete;

    std::string user;
    std::string password;
    const bool mayShow; ///< Basic is allowed where the connection is not encrypted
};

struct HostHeader
{
    std::string method; ///< whose requests have it; empty: all
    rtsp::Header header;
};

/// What counts now; never changed once it is made.
struct Orders
{
    std::shared_ptr<const Credentials> credentials; ///< null: none
    std::vector<HostHeader> headers;
    ZR_ULONG tunnel = ZR_TUNNEL_NONE; ///< a tagZrTunnel
    uint16_t tunnelPort = 0;          ///< where the session's own server takes it; 0: by its RTSP port

    bool none() const { return !credentials && headers.empty() && !tunnelled(); }
    bool tunnelled() const { return tunnel != ZR_TUNNEL_NONE; }
    /// The lines of the headers that a request of the method has; one of the method's own stands for one of all.
    std::string linesFor(std::string_view method) const;
};

/// The orders of one session: made by the host or by the session's registration, whoever comes first, and forgotten
/// when that ends. Any thread; one mutex for all sessions, held for copies of pointers and for changes.
class HostOrders
{
public:
    static std::shared_ptr<HostOrders> of(ZR_ULONG id);
    /// Changes a copy of what counts, which then counts, unless the change refuses.
    /// @param apply  false: it refuses. Called under the mutex, so it does not log
    /// @return what it said
    static bool change(ZR_ULONG id, const std::function<bool(Orders &)> &apply);
    /// The session has ended: another one of that identifier begins without orders.
    void forget(ZR_ULONG id);
    /// Never null.
    std::shared_ptr<const Orders> current() const;

private:
    /// What counts where the host ordered nothing: one for all sessions.
    static const std::shared_ptr<const Orders> &none();

    std::shared_ptr<const Orders> m_current = none();
};

} // namespace zr::dispatch
