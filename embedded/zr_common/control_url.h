/// @file
/// Which section of a description a SETUP is for.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace zr::common {

/// Whether a URL ends with a control attribute, as a piece of its own.
inline bool endsWithControl(std::string_view url, std::string_view control)
{
    if (control.empty() || url.size() < control.size() || url.substr(url.size() - control.size()) != control)
    {
        return false;
    }
    const size_t begin = url.size() - control.size();
    return begin == 0 || control.front() == '/' || control.front() == '?' || url[begin - 1] == '/';
}

/// The place of the section whose control attribute a SETUP's URL names (RFC 2326, C.1.1), by the longest that does;
/// the place that is given where none does.
/// @param sections  each with its "control", as it stands in the description
template <typename Section>
size_t sectionOf(const std::vector<Section> &sections, std::string_view url, size_t otherwise)
{
    size_t longest = 0;
    size_t place = otherwise;
    for (size_t i = 0; i < sections.size(); ++i)
    {
        if (endsWithControl(url, sections[i].control) && sections[i].control.size() > longest)
        {
            longest = sections[i].control.size();
            place = i;
        }
    }
    return place;
}

} // namespace zr::common
