/// @file
/// Pictures in a terminal.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "report.h"

namespace zr::host {

/// Draws with what the terminal understands, by its environment: sixels or kitty's images, else half blocks in as many
/// colours as it has. One thread.
class PictureText
{
public:
    /// @throws Failure  when the program was built without the library for it
    PictureText();
    ~PictureText();
    PictureText(const PictureText &) = delete;
    PictureText &operator=(const PictureText &) = delete;

    /// @param rgb   height rows of width times red, green and blue
    /// @param room  what it must fit into; its proportions are kept
    /// @return rows of text, or one element that draws an image
    std::vector<std::string> draw(const uint8_t *rgb, uint32_t width, uint32_t height, TerminalSize room);

private:
    struct Means;
    std::unique_ptr<Means> m_means;
};

} // namespace zr::host
