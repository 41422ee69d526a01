#include "output_file.h"

#include <filesystem>

#include "failure.h"

namespace zr::host {

bool wouldBeLost(const std::string &file)
{
    std::error_code ignored;
    const auto status = std::filesystem::symlink_status(file, ignored);
    // whoever puts a link there should not lead the program to another's file
    return std::filesystem::is_regular_file(status) || std::filesystem::is_symlink(status);
}

void requireFree(const std::string &file, bool force)
{
    if (!file.empty() && !force && wouldBeLost(file))
    {
        throw Failure(ExitCode::Output, "writing " + file, 0, "there is such a file already",
                      "another name, or --force to write over it");
    }
}

std::string numbered(const std::string &file, int &number, bool force)
{
    while (true)
    {
        std::filesystem::path path(file);
        if (number > 1)
        {
            path.replace_extension(std::to_string(number) + path.extension().string());
        }
        if (force || !wouldBeLost(path.string()))
        {
            return path.string();
        }
        ++number;
    }
}

} // namespace zr::host
