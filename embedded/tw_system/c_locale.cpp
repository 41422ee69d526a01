#include "c_locale.h"

#include <clocale>
#include <cstdio>

namespace {

/// Never freed: threads may format until the process ends.
locale_t cLocale()
{
    static const locale_t instance = newlocale(LC_ALL_MASK, "C", nullptr);
    return instance;
}

class LocaleScope
{
public:
    explicit LocaleScope(locale_t locale)
        : m_before(uselocale(locale)) // a null one (no memory) changes nothing
    {
    }
    ~LocaleScope() { uselocale(m_before); }
    LocaleScope(const LocaleScope &) = delete;
    LocaleScope &operator=(const LocaleScope &) = delete;

private:
    locale_t m_before;
};

} // namespace

int zr::system::formatC(char *out, size_t size, const char *format, va_list arguments)
{
    const LocaleScope scope(cLocale());
    return std::vsnprintf(out, size, format, arguments);
}
