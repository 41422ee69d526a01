#include "new_file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform_log.h"

namespace zr::media {
namespace {

constexpr const char *temporaryEnd = ".part";

bool isTemporary(const std::string &name, const std::string &beside)
{
    const std::string end = temporaryEnd;
    if (name.size() <= beside.size() + end.size() || name.compare(0, beside.size(), beside) != 0 ||
        name.compare(name.size() - end.size(), end.size(), end) != 0)
    {
        return false;
    }
    const std::string numbers = name.substr(beside.size(), name.size() - beside.size() - end.size());
    const size_t dash = numbers.find('-');
    return numbers[0] == '.' && dash != std::string::npos && dash > 1 && dash + 1 < numbers.size() &&
           numbers.find_first_not_of("0123456789", 1) == dash &&
           numbers.find_first_not_of("0123456789", dash + 1) == std::string::npos;
}

/// Says that somebody works on a file, until all that share the descriptor are gone, wherever they run. It is a lock on
/// a byte that no file has, since some network file systems refuse I/O to whatever is locked.
bool hold(int fd)
{
    struct flock far
    {
    };
    far.l_type = F_WRLCK;
    far.l_whence = SEEK_SET;
    far.l_start = off_t{1} << 62;
    far.l_len = 1;
    return fcntl(fd, F_OFD_SETLK, &far) == 0;
}

/// Where it is a file that nobody holds.
void removeUnheld(const std::string &file)
{
    const Descriptor fd(::open(file.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status
    {
    };
    if (fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && hold(fd.get()) && ::unlink(file.c_str()) == 0)
    {
        ZR_PLATFORM_LOG(INFO, 0, Player, "recording: removed %s, which was not finished", file.c_str());
    }
}

} // namespace

std::string temporaryName(const std::string &file)
{
    static std::atomic<unsigned> number{0};
    return file + "." + std::to_string(getpid()) + "-" + std::to_string(number.fetch_add(1)) + temporaryEnd;
}

std::string partName(const std::string &file, ZR_ULONG number)
{
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "-%03u", number);
    const size_t name = file.rfind('/') == std::string::npos ? 0 : file.rfind('/') + 1;
    const size_t dot = file.rfind('.');
    return dot == std::string::npos || dot <= name ? file + digits.data()
                                                   : file.substr(0, dot) + digits.data() + file.substr(dot);
}

int createFile(const std::string &file, bool fresh)
{
    // non-blocking: nobody is to wait for a FIFO's reader
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | (fresh ? O_EXCL : O_TRUNC);
    const Descriptor fd(::open(file.c_str(), flags, 0666));
    struct stat status
    {
    };
    if (!fd || fstat(fd.get(), &status) != 0)
    {
        return errno;
    }
    return S_ISREG(status.st_mode) ? 0 : EINVAL;
}

int createTemporary(const std::string &file, std::string &out, Descriptor &held)
{
    while (true)
    {
        out = temporaryName(file);
        if (const int error = createFile(out, true))
        {
            return error;
        }
        held = Descriptor(::open(out.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
        const bool locked = held && hold(held.get());
        if (!locked && errno != ENOENT && errno != EAGAIN)
        {
            return held ? 0 : errno; // a file system without locks: nobody takes it for abandoned
        }
        struct stat status
        {
        };
        if (locked && fstat(held.get(), &status) == 0 && status.st_nlink > 0)
        {
            return 0;
        }
        // somebody took it for abandoned before it was locked
    }
}

void removeAbandoned(const std::string &file)
{
    namespace fs = std::filesystem;
    std::error_code failed;
    const fs::path folder = fs::path(file).parent_path();
    std::vector<std::string> found;
    for (fs::directory_iterator one(folder.empty() ? "." : folder, failed), end; !failed && one != end;
         one.increment(failed))
    {
        if (isTemporary(one->path().filename().string(), fs::path(file).filename().string()))
        {
            found.push_back(one->path().string());
        }
    }
    for (const std::string &name : found)
    {
        removeUnheld(name);
    }
}

int createNumbered(const std::string &file, bool overwrite, ZR_ULONG max, ZR_ULONG &number, std::string &out)
{
    while (true)
    {
        out = number < 2 ? file : partName(file, number);
        const int error = createFile(out, !overwrite);
        if (error != EEXIST || number >= max)
        {
            return error;
        }
        number = std::max<ZR_ULONG>(number, 1) + 1;
    }
}

} // namespace zr::media
