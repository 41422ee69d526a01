#include "new_file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "udp.h"

namespace zr::media {

std::string temporaryName(const std::string &file)
{
    static std::atomic<unsigned> number{0};
    return file + "." + std::to_string(getpid()) + "-" + std::to_string(number.fetch_add(1)) + ".part";
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

int createTemporary(const std::string &file, std::string &out)
{
    out = temporaryName(file);
    return createFile(out, true);
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
