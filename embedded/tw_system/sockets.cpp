#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "tw_system.h"

int VELK_socket(int iFamily, int iType, int iProtocol)
{
    return socket(iFamily, iType | SOCK_CLOEXEC, iProtocol);
}

int VELK_sendto(int iSocket, const void *pvData, int iLen, int iFlags, const struct sockaddr *pstTo, int iToLen)
{
    if (iLen < 0 || iToLen < 0)
    {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(sendto(iSocket, pvData, static_cast<size_t>(iLen), iFlags | MSG_NOSIGNAL, pstTo,
                                   static_cast<socklen_t>(iToLen)));
}

int VELK_closesocket(int iSocket)
{
    return close(iSocket);
}

ZR_ULONG VELK_inet_addr(const char *pszAddress)
{
    return inet_addr(pszAddress);
}

ZR_USHORT VELK_htons(ZR_USHORT usValue)
{
    return htons(usValue);
}

int VELK_getlasterr()
{
    return errno;
}
