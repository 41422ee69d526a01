// The system wrapper library, first half: memory and texts. Any thread may call any of these, and none may block: some
// are called under a session's lock.

#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "tw_system.h"

// Frees what CAOIIETool::mallocAOIMsg gave, exactly once a message, whether or not it was sent: a pool that gives
// messages must take them back here. The pointer is NULL afterwards; NULL in it is nothing to free.
void VELK_free(void **ppvMemory)
{
    if (ppvMemory == nullptr)
        return;
    std::free(*ppvMemory);
    *ppvMemory = nullptr;
}

// The texts: the C library's meaning, and nothing kept.
int VELK_strncmp(const char *pszLeft, const char *pszRight, size_t ulLen)
{
    return std::strncmp(pszLeft, pszRight, ulLen);
}

int VELK_strncasecmp(const char *pszLeft, const char *pszRight, size_t ulLen)
{
    return strncasecmp(pszLeft, pszRight, ulLen);
}

// Looks at no more than ulLen bytes of the haystack, zero or not; an empty needle is found at its start; NULL when it
// is not there.
char *VELK_strnstr(const char *pszHaystack, const char *pszNeedle, size_t ulLen)
{
    const size_t needle = std::strlen(pszNeedle);
    const size_t length = strnlen(pszHaystack, ulLen);
    for (size_t at = 0; at + needle <= length; ++at)
    {
        if (std::memcmp(pszHaystack + at, pszNeedle, needle) == 0)
            return const_cast<char *>(pszHaystack + at);
    }
    return nullptr;
}

char *VELK_strncat(char *pszTarget, const char *pszSource, size_t ulLen)
{
    return std::strncat(pszTarget, pszSource, ulLen);
}

size_t VELK_strlen(const char *pszText)
{
    return std::strlen(pszText);
}

// Must write a decimal point whatever the host's locale, and the zero within ulSize; the length that the whole text
// has, negative when it cannot be formatted.
int VELK_snprintf(char *pszOut, size_t ulSize, const char *pszFormat, ...)
{
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    const locale_t before = uselocale(plain);
    va_list arguments;
    va_start(arguments, pszFormat);
    const int length = std::vsnprintf(pszOut, ulSize, pszFormat, arguments);
    va_end(arguments);
    uselocale(before);
    return length;
}

long VELK_atol(const char *pszText)
{
    return std::strtol(pszText, nullptr, 10);
}

void VELK_memzero(void *pvMemory, size_t ulLen)
{
    std::memset(pvMemory, 0, ulLen);
}
