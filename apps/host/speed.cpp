#include "speed.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "failure.h"

namespace zr::host {
namespace {

struct Speed
{
    double factor;
    ZR_ULONG code;
};

constexpr Speed speeds[] = {{0.125, 19}, {0.25, 9}, {0.5, 10}, {1, 11}, {2, 12}, {4, 13},   {8, 14},   {16, 15},
                            {-16, 2},    {-8, 3},   {-4, 4},   {-2, 5}, {-1, 6}, {-0.5, 7}, {-0.25, 8}};
constexpr ZR_ULONG normalSpeed = 11;
constexpr ZR_ULONG lastCode = 19;
constexpr const char *codePrefix = "code:";

bool number(const std::string &text, double &value)
{
    char *end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(value);
}

} // namespace

std::optional<ZR_ULONG> speedCode(const std::string &text)
{
    double value = 0;
    if (text.rfind(codePrefix, 0) == 0)
    {
        if (number(text.substr(5), value) && value >= 0 && value <= lastCode && value == std::floor(value))
        {
            return static_cast<ZR_ULONG>(value);
        }
        throw wrongUsage("a speed code is a whole number from 0 to 19");
    }
    if (number(!text.empty() && text.back() == 'x' ? text.substr(0, text.size() - 1) : text, value))
    {
        for (const Speed &speed : speeds)
        {
            if (std::fabs(speed.factor - value) < 1e-9)
            {
                return speed.code == normalSpeed ? std::nullopt : std::optional<ZR_ULONG>(speed.code);
            }
        }
    }
    throw wrongUsage("a speed is one of 0.125, 0.25, 0.5, 1, 2, 4, 8, 16, -0.25, -0.5, -1, -2, -4, -8, -16, or code:N");
}

std::optional<ZR_ULONG> nextSpeed(std::optional<ZR_ULONG> code, bool up)
{
    const double now = speedFactor(code);
    const Speed *next = nullptr;
    for (const Speed &speed : speeds)
    {
        const bool beyond = up ? speed.factor > now : speed.factor < now;
        if (beyond && (next == nullptr || std::fabs(speed.factor - now) < std::fabs(next->factor - now)))
        {
            next = &speed;
        }
    }
    if (next == nullptr)
    {
        return code;
    }
    return next->code == normalSpeed ? std::nullopt : std::optional<ZR_ULONG>(next->code);
}

std::string speedText(std::optional<ZR_ULONG> code)
{
    char text[16];
    std::snprintf(text, sizeof text, "x%g", speedFactor(code));
    return text;
}

double speedFactor(std::optional<ZR_ULONG> code)
{
    for (const Speed &speed : speeds)
    {
        if (speed.code == code)
        {
            return speed.factor;
        }
    }
    return 1;
}

} // namespace zr::host
