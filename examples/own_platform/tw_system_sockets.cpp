// The system wrapper library, second half: sockets.

#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "tw_system.h"

// The sockets: one datagram socket for each play() of an ONVIF session over UDP, opened, used and closed by the thread
// that plays, outside the session's lock. A negative result is a failure: without a socket play() fails, an unsent
// datagram is logged and passed over.
int VELK_socket(int iFamily, int iType, int iProtocol)
{
    return socket(iFamily, iType | SOCK_CLOEXEC, iProtocol);
}

// The bytes that were taken. It must raise no SIGPIPE in the host's process.
int VELK_sendto(int iSocket, const void *pvData, int iLen, int iFlags, const struct sockaddr *pstTo, int iToLen)
{
    return static_cast<int>(sendto(iSocket, pvData, static_cast<size_t>(iLen), iFlags | MSG_NOSIGNAL, pstTo,
                                   static_cast<socklen_t>(iToLen)));
}

int VELK_closesocket(int iSocket)
{
    return close(iSocket);
}

// In network order; 0xFFFFFFFF for what is no dotted address.
ZR_ULONG VELK_inet_addr(const char *pszAddress)
{
    return inet_addr(pszAddress);
}

ZR_USHORT VELK_htons(ZR_USHORT usValue)
{
    return htons(usValue);
}

// Why the last socket operation of the calling thread failed; for the log.
int VELK_getlasterr()
{
    return errno;
}
