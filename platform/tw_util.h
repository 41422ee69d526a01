/// @file
/// The base utility library: periodic timers, digest and Base64 primitives.
#pragma once

#include "zr_types.h"

/// What a timer calls, with the pointer that was given for it; it must not throw.
typedef void (*TW_TIMER_CALLBACK)(void *pvUser);

/// Starts a periodic timer that runs on the facility's own thread.
/// @param ulPeriodMs   the period in milliseconds, at least 1
/// @param pfnCallback  called once a period
/// @param pvUser       passed to it
/// @param pulHandle    receives the handle, never 0
/// @return 0, else a code and no timer
/// Any thread.
ZR_PLATFORM_API ZR_ULONG TW_StartIndependTimer(ZR_ULONG ulPeriodMs, TW_TIMER_CALLBACK pfnCallback, void *pvUser,
                                               ZR_ULONG *pulHandle);

/// Stops a timer. When it returns its callback does not run and will not run; on the timer's own thread it does not
/// wait.
/// @return 0; a code when there is no such timer
ZR_PLATFORM_API ZR_ULONG TW_StopIndependTimer(ZR_ULONG ulHandle);

/// HA1 of RFC 2617, 3.2.2.2, as 32 lowercase hexadecimal digits.
/// @param pszAlg   "MD5", or "md5-sess", which alone uses pszNonce and pszCNonce
/// @param pszHA1   33 bytes
/// @return 0, else a code
ZR_PLATFORM_API ZR_ULONG TW_DigestCalcHA1(const char *pszAlg, const char *pszUserName, const char *pszRealm,
                                          const char *pszPassword, const char *pszNonce, const char *pszCNonce,
                                          char *pszHA1);

/// The response of RFC 2617, 3.2.2.1, as 32 lowercase hexadecimal digits.
/// @param pszQop       NULL or empty: none, and pszNonceCount and pszCNonce are not used
/// @param pszHEntity   the entity's hash, used with qop "auth-int" alone
/// @param pszResponse  at least 33 bytes
/// @return 0, else a code
ZR_PLATFORM_API ZR_ULONG TW_DigestCalcResponse(const char *pszHA1, const char *pszNonce, const char *pszNonceCount,
                                               const char *pszCNonce, const char *pszQop, const char *pszMethod,
                                               const char *pszDigestUri, const char *pszHEntity, char *pszResponse);

/// Base64 (RFC 4648, padded, no line breaks).
/// @param pszIn       the bytes
/// @param ulInLength  their count
/// @param pszOut      receives the text and its zero, 128 bytes at most: what would not fit of the input is cut
/// @return 0, else a code
ZR_PLATFORM_API ZR_ULONG TW_VODstr2Base64(const char *pszIn, ZR_ULONG ulInLength, char *pszOut);
