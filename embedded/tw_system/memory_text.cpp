#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "c_locale.h"
#include "tw_system.h"

void VELK_free(void **ppvMemory)
{
    if (ppvMemory == nullptr)
        return;
    std::free(*ppvMemory);
    *ppvMemory = nullptr;
}

int VELK_strncmp(const char *pszLeft, const char *pszRight, size_t ulLen)
{
    return std::strncmp(pszLeft, pszRight, ulLen);
}

int VELK_strncasecmp(const char *pszLeft, const char *pszRight, size_t ulLen)
{
    return strncasecmp(pszLeft, pszRight, ulLen);
}

char *VELK_strnstr(const char *pszHaystack, const char *pszNeedle, size_t ulLen)
{
    const size_t needle = std::strlen(pszNeedle);
    // the haystack need not end with a zero within ulLen; strnlen reads no further than either
    const size_t haystack = strnlen(pszHaystack, ulLen);
    return static_cast<char *>(memmem(pszHaystack, haystack, pszNeedle, needle));
}

char *VELK_strncat(char *pszTarget, const char *pszSource, size_t ulLen)
{
    return std::strncat(pszTarget, pszSource, ulLen);
}

size_t VELK_strlen(const char *pszText)
{
    return std::strlen(pszText);
}

int VELK_snprintf(char *pszOut, size_t ulSize, const char *pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    const int length = zr::system::formatC(pszOut, ulSize, pszFormat, arguments);
    va_end(arguments);
    return length;
}

long VELK_atol(const char *pszText)
{
    return std::strtol(pszText, nullptr, 10); // atol leaves a number too large undefined
}

void VELK_memzero(void *pvMemory, size_t ulLen)
{
    std::memset(pvMemory, 0, ulLen);
}
