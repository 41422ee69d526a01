#include "picture_text.h"

namespace zr::host {

struct PictureText::Means
{
};

PictureText::PictureText()
{
    throw Failure(ExitCode::Usage, "drawing the picture", 0,
                  "this program was built without libchafa, which draws pictures in a terminal",
                  "a build with the package libchafa-dev, --window, or --snapshot");
}

PictureText::~PictureText() = default;

std::vector<std::string> PictureText::draw(const uint8_t *, uint32_t, uint32_t, TerminalSize)
{
    return {};
}

} // namespace zr::host
