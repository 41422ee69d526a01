#include "output_file.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "failure.h"

namespace zr::host {

bool wouldBeLost(const std::string &file)
{
    std::error_code ignored;
    const auto status = std::filesystem::symlink_status(file, ignored);
    // whoever puts a link there should not lead the program to another's file
    return std::filesystem::is_regular_file(status) || std::filesystem::is_symlink(status);
}

std::string whyUnwritable(const std::string &file)
{
    const std::filesystem::path path(file);
    std::error_code ignored;
    if (path.filename().empty() || std::filesystem::is_directory(path, ignored))
    {
        return file + " names a folder: a file is to be named";
    }
    const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    if (!std::filesystem::is_directory(folder, ignored))
    {
        return "there is no folder " + folder.string();
    }
    const bool there = std::filesystem::exists(path, ignored);
    if (::access(there ? path.c_str() : folder.c_str(), there ? W_OK : W_OK | X_OK) == 0)
    {
        return "";
    }
    const std::string reason = std::generic_category().message(errno);
    return there ? file + " cannot be written: " + reason
                 : "no file can be made in the folder " + folder.string() + ": " + reason;
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
