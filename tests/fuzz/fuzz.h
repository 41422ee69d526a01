/// @file
/// The fuzz targets, and the input that they take apart. What they demand beside what the sanitizers do they assert.
#pragma once

#include <cassert>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zr::fuzz {

/// Where an input ends, pieces are shorter and bytes are 0.
struct Input
{
    std::string_view left;

    /// In memory of their own, at whose end the sanitizer watches.
    std::vector<uint8_t> bytes(size_t size)
    {
        const std::string_view taken = left.substr(0, size);
        left.remove_prefix(taken.size());
        return {taken.begin(), taken.end()};
    }
    uint8_t byte() { return left.empty() ? uint8_t{0} : bytes(1)[0]; }
    std::string line()
    {
        const auto taken = bytes(left.find('\n'));
        byte();
        return {taken.begin(), taken.end()};
    }
};

void parser(Input input), tunnel(Input input), handOff(Input input), media(Input input), metadata(Input input);
void answer(Input input), sdp(Input input), elements(Input input), challenge(Input input), url(Input input),
    masking(Input input);

} // namespace zr::fuzz
