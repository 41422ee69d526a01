#include "secrets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <sstream>
#include <system_error>

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "failure.h"
#include "terminal_mode.h"

namespace zr::host {
namespace {

constexpr size_t longestPassword = 1024;

// A line without its end, for files that come from elsewhere.
bool readLine(std::istream &in, std::string &line)
{
    line.clear();
    for (char c = 0; line.size() <= longestPassword && in.get(c);)
    {
        if (c == '\n')
        {
            break;
        }
        line += c;
    }
    if (!line.empty() && line.back() == '\r')
    {
        line.pop_back();
    }
    return !line.empty() && line.size() <= longestPassword;
}

// What a command prints; more than the longest password with its end is read, but not kept.
// @param onSilence  called once, when nothing comes for a second: it may hang, or ask somebody
std::string readAll(int file, const std::function<void()> &onSilence)
{
    std::string all;
    std::array<char, 4096> piece = {};
    for (bool told = false;;)
    {
        pollfd wait = {file, POLLIN, 0};
        if (!told && poll(&wait, 1, 1000) == 0)
        {
            onSilence();
            told = true;
        }
        const ssize_t got = TEMP_FAILURE_RETRY(read(file, piece.data(), piece.size()));
        if (got <= 0)
        {
            return all;
        }
        all.append(piece.data(), std::min(static_cast<size_t>(got), longestPassword + 2 - all.size()));
    }
}

} // namespace

std::string readPassword(const std::string &file, const std::string &whose)
{
    const std::string step = "reading the password" + (whose.empty() ? "" : " of " + whose);
    errno = 0;
    std::ifstream in(file);
    if (!in || in.peek() == std::ifstream::traits_type::eof())
    {
        const int why = errno;
        throw Failure(ExitCode::Usage, step, 0,
                      file + (why != 0 ? " cannot be read: " + std::generic_category().message(why) : " is empty"),
                      "a file that you may read, with the password as its first line");
    }
    std::string line;
    if (!readLine(in, line))
    {
        throw Failure(ExitCode::Usage, step, 0,
                      "the first line of " + file + " is no password of 1 to " + std::to_string(longestPassword) +
                          " characters",
                      "the password alone, as the first line");
    }
    return line;
}

std::string runForPassword(const std::string &command, const std::string &whose)
{
    const auto failed = [&](const std::string &why) {
        return Failure(ExitCode::Credentials, "asking for the password of " + whose, 0, "its command " + why,
                       "run it in a shell: it is to print the password as its first line");
    };
    FILE *const pipe = popen(command.c_str(), "re"); // NOLINT(cert-env33-c): the user's own file names it
    if (pipe == nullptr)
    {
        throw failed("cannot be run");
    }
    const std::string printed = readAll(
        fileno(pipe), [&] { std::fprintf(stderr, "the password-command of %s still runs ...\n", whose.c_str()); });
    const int status = pclose(pipe);
    std::istringstream in(printed);
    std::string line;
    if (status != 0)
    {
        throw failed(WIFEXITED(status) ? "fails with exit code " + std::to_string(WEXITSTATUS(status)) : "was ended");
    }
    if (!readLine(in, line))
    {
        throw failed("prints no password of 1 to " + std::to_string(longestPassword) + " characters");
    }
    return line;
}

bool isReadByOthers(const std::string &file)
{
    struct stat status = {};
    return stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

std::string openSecret(const std::string &file)
{
    return file + " holds a password, and others may read it: chmod go-r it";
}

bool canAskPassword()
{
    return isatty(STDIN_FILENO) == 1;
}

std::string askPassword(const std::string &whom)
{
    const TerminalMode hidden(TerminalMode::Kind::Hidden);
    std::fprintf(stderr, "password of %s: ", whom.c_str());
    std::string line;
    const bool read = readLine(std::cin, line);
    if (line.size() > longestPassword)
    {
        std::cin.ignore(std::numeric_limits<std::streamsize>::max(), '\n'); // the rest is not for the shell
        throw wrongUsage("a password has at most " + std::to_string(longestPassword) + " characters");
    }
    if (!read && !std::cin)
    {
        std::fprintf(stderr, "\n");
        throw Failure(ExitCode::Credentials, "asking for the password", 0, "none was typed",
                      "--password-file FILE, or the environment's ZR_RTSP_PASSWORD");
    }
    return line;
}

} // namespace zr::host
