#include "typed_keys.h"

#include <array>
#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace zr::host {

int TypedKeys::handle()
{
    // the shell may have taken the terminal, or given it back, since the last time
    return !m_ended && m_terminal.take() ? STDIN_FILENO : -1;
}

std::vector<Key> TypedKeys::take()
{
    pollfd ready{handle(), POLLIN, 0};
    while (ready.fd >= 0 && poll(&ready, 1, 0) > 0)
    {
        std::array<char, 64> bytes{};
        const ssize_t size = ::read(ready.fd, bytes.data(), bytes.size());
        if (size > 0)
        {
            m_typed.append(bytes.data(), static_cast<size_t>(size));
        }
        else if (size == 0 || errno != EINTR)
        {
            m_ended = true;
            break;
        }
    }
    return takeKeys(m_typed);
}

} // namespace zr::host
