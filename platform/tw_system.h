/// @file
/// The system wrapper library: the C library's and BSD sockets' meaning under each name. Any thread.
#pragma once

#include "zr_types.h"

struct sockaddr;

/// Frees *ppvMemory (of malloc) and sets it to NULL.
ZR_PLATFORM_API void VELK_free(void **ppvMemory);
/// BSD strnstr: looks at no more than ulLen characters of the haystack; an empty needle is found at its start.
ZR_PLATFORM_API char *VELK_strnstr(const char *pszHaystack, const char *pszNeedle, size_t ulLen);
/// C99 snprintf, but in the C locale whatever the host's.
ZR_PLATFORM_API int VELK_snprintf(char *pszOut, size_t ulSize, const char *pszFormat, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/// @name As in the C library
/// @{

/// What the function of the same name does there.
ZR_PLATFORM_API int VELK_strncmp(const char *pszLeft, const char *pszRight, size_t ulLen);
ZR_PLATFORM_API int VELK_strncasecmp(const char *pszLeft, const char *pszRight, size_t ulLen);
ZR_PLATFORM_API char *VELK_strncat(char *pszTarget, const char *pszSource, size_t ulLen);
ZR_PLATFORM_API size_t VELK_strlen(const char *pszText);
ZR_PLATFORM_API long VELK_atol(const char *pszText);
ZR_PLATFORM_API void VELK_memzero(void *pvMemory, size_t ulLen);
/// @}

/// @name As BSD sockets have it
/// @{

/// What the function of the same name does there; VELK_getlasterr gives errno, of the thread's last call that failed.
ZR_PLATFORM_API int VELK_socket(int iFamily, int iType, int iProtocol);
ZR_PLATFORM_API int VELK_sendto(int iSocket, const void *pvData, int iLen, int iFlags, const struct sockaddr *pstTo,
                                int iToLen);
ZR_PLATFORM_API int VELK_closesocket(int iSocket);
ZR_PLATFORM_API ZR_ULONG VELK_inet_addr(const char *pszAddress);
ZR_PLATFORM_API ZR_USHORT VELK_htons(ZR_USHORT usValue);
ZR_PLATFORM_API int VELK_getlasterr();
/// @}
