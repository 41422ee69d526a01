#include "md5.h"

#include <array>
#include <cmath>
#include <cstdint>

namespace {

using State = std::array<uint32_t, 4>;

uint32_t rotated(uint32_t value, uint32_t by)
{
    return value << by | value >> (32 - by);
}

std::array<uint32_t, 64> sines()
{
    std::array<uint32_t, 64> table{};
    for (size_t i = 0; i < table.size(); ++i)
        table[i] = static_cast<uint32_t>(std::floor(std::fabs(std::sin(static_cast<double>(i + 1))) * 4294967296.0));
    return table;
}

void takeBlock(State &state, const unsigned char *block)
{
    static const std::array<uint32_t, 64> constants = sines();
    static constexpr std::array<std::array<uint32_t, 4>, 4> shifts = {
        {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}}};
    auto [a, b, c, d] = state;
    for (uint32_t i = 0; i < 64; ++i)
    {
        const uint32_t round = i / 16;
        const uint32_t mixed = round == 0   ? (b & c) | (~b & d)
                               : round == 1 ? (d & b) | (~d & c)
                               : round == 2 ? b ^ c ^ d
                                            : c ^ (b | ~d);
        const uint32_t word = (round == 0 ? i : round == 1 ? 5 * i + 1 : round == 2 ? 3 * i + 5 : 7 * i) % 16;
        const unsigned char *bytes = block + size_t{4} * word;
        const uint32_t input = bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
                               static_cast<uint32_t>(bytes[3]) << 24;
        const uint32_t sum = a + mixed + constants[i] + input;
        a = d;
        d = c;
        c = b;
        b += rotated(sum, shifts[round][i % 4]);
    }
    state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d};
}

} // namespace

std::string own::md5(const std::string &text)
{
    std::string padded = text + '\x80';
    padded.resize((padded.size() + 8 + 63) / 64 * 64);
    const uint64_t bits = uint64_t{text.size()} * 8;
    for (size_t i = 0; i < 8; ++i)
        padded[padded.size() - 8 + i] = static_cast<char>(bits >> (8 * i) & 0xFF);

    State state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    for (size_t at = 0; at < padded.size(); at += 64)
        takeBlock(state, reinterpret_cast<const unsigned char *>(padded.data()) + at);

    static constexpr char digits[] = "0123456789abcdef";
    std::string hash;
    for (const uint32_t word : state)
    {
        for (uint32_t shift = 0; shift < 32; shift += 8)
        {
            hash += digits[word >> (shift + 4) & 15];
            hash += digits[word >> shift & 15];
        }
    }
    return hash;
}
