#include "keys.h"

#include <algorithm>
#include <array>

namespace zr::host {
namespace {

struct Sequence
{
    const char *bytes;
    Key key;
};

constexpr std::array<Sequence, 29> sequences = {{{" ", Key::Pause},
                                                 {"\033[D", Key::Back},
                                                 {"\033OD", Key::Back},
                                                 {"\033[C", Key::Forward},
                                                 {"\033OC", Key::Forward},
                                                 {"\033[6~", Key::FarBack},
                                                 {"\033[1;2D", Key::FarBack},
                                                 {"\033[5~", Key::FarForward},
                                                 {"\033[1;2C", Key::FarForward},
                                                 {"-", Key::Slower},
                                                 {"_", Key::Slower},
                                                 {"+", Key::Faster},
                                                 {"=", Key::Faster},
                                                 {"\033[A", Key::Up},
                                                 {"\033OA", Key::Up},
                                                 {"\033[B", Key::Down},
                                                 {"\033OB", Key::Down},
                                                 {"s", Key::Snapshot},
                                                 {"S", Key::Snapshot},
                                                 {"r", Key::Record},
                                                 {"R", Key::Record},
                                                 {"i", Key::Information},
                                                 {"I", Key::Information},
                                                 {"?", Key::Help},
                                                 {"h", Key::Help},
                                                 {"H", Key::Help},
                                                 {"q", Key::Quit},
                                                 {"Q", Key::Quit},
                                                 {"\004", Key::Quit}}};

/// The bytes of the key in front; 0: its rest has not come yet.
size_t keyLength(const std::string &typed)
{
    constexpr size_t longest = 16; // of a sequence that means anything
    if (typed.front() != '\033')
    {
        return 1;
    }
    if (typed.size() == 1)
    {
        return 0;
    }
    if (typed[1] == 'O')
    {
        return typed.size() > 2 ? 3 : 0;
    }
    if (typed[1] != '[')
    {
        return 1; // an escape by itself, then something else
    }
    for (size_t i = 2; i < typed.size() && i < longest; ++i)
    {
        if (typed[i] >= 0x40 && typed[i] <= 0x7e) // a sequence's last byte
        {
            return i + 1;
        }
    }
    return typed.size() < longest ? 0 : longest;
}

} // namespace

std::vector<Key> takeKeys(std::string &typed)
{
    std::vector<Key> keys;
    while (!typed.empty())
    {
        const size_t length = keyLength(typed);
        if (length == 0)
        {
            break;
        }
        const auto *found = std::find_if(sequences.begin(), sequences.end(),
                                         [&](const Sequence &one) { return typed.compare(0, length, one.bytes) == 0; });
        keys.push_back(found != sequences.end() ? found->key : Key::Unknown);
        typed.erase(0, length);
    }
    return keys;
}

const char *const keyHelp = R"(  space              pause, and play on
  left, right        back or on by 10 s
  page down, page up back or on by a minute, as are shift and left, right
  - and +            slower or faster, backwards below 0.125
  s                  picture into a file
  r                  record into a file, and end that
  i                  information
  q                  quit)";

} // namespace zr::host
