#include "usage.h"

#include <algorithm>
#include <numeric>

#include "masking.h"

namespace zr::host {
namespace {

constexpr const char *program = "zr_rtsp_host";

/// How many letters must be changed, added, left away or swapped with the next.
size_t distance(const std::string &from, const std::string &to)
{
    std::vector<std::vector<size_t>> table(from.size() + 1, std::vector<size_t>(to.size() + 1));
    std::iota(table[0].begin(), table[0].end(), 0);
    for (size_t i = 1; i <= from.size(); ++i)
    {
        table[i][0] = i;
        for (size_t j = 1; j <= to.size(); ++j)
        {
            const bool same = from[i - 1] == to[j - 1];
            table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, table[i - 1][j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
            {
                table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
            }
        }
    }
    return table.back().back();
}

std::vector<std::string> commandsOf(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
    {
        names.push_back(command->get_name());
    }
    return names;
}

std::vector<std::string> optionsOf(const CLI::App &command)
{
    std::vector<std::string> names;
    for (const CLI::Option *option : command.get_options())
    {
        names.push_back(option->get_name());
    }
    return names;
}

Failure wrongCommand(const CLI::App &app, const std::string &first)
{
    const std::vector<std::string> commands = commandsOf(app);
    const std::string help = std::string(program) + " --help";
    const auto failure = [](const std::string &meaning, const std::string &advice) {
        return Failure(ExitCode::Usage, "reading the command line", 0, meaning, advice);
    };
    std::string all;
    for (const std::string &name : commands)
    {
        all += (all.empty() ? "one of " : ", ") + name;
    }
    if (first.empty())
    {
        return failure("there is no command", all + "; see " + help);
    }
    if (first.front() == '-')
    {
        return failure(first.substr(0, first.find('=')) + " is not known before the command", "see " + help);
    }
    if (first.find("://") != std::string::npos)
    {
        return failure("there is a URL where a command is expected",
                       "zr_rtsp_host play URL, or check URL; see " + help);
    }
    const std::string meant = nearest(first, commands);
    return failure(first + " is no command",
                   (meant.empty() ? all : std::string(program) + " " + meant) + "; see " + help);
}

// Without the words themselves, which may be a password's that has a blank or follows a mistyped option.
std::string unexpected(const CLI::App &command, const std::vector<std::string> &words)
{
    std::string options;
    for (const std::string &word : words)
    {
        if (word.rfind("--", 0) == 0)
        {
            const std::string name = word.substr(0, word.find('='));
            const std::string meant = nearest(name, optionsOf(command));
            options += (options.empty() ? " " : ", ") + name + (meant.empty() ? "" : " (" + meant + "?)");
        }
    }
    return options.empty() ? "there is more than " + command.get_name() + " takes"
                           : command.get_name() + " does not know" + options;
}

} // namespace

std::string nearest(const std::string &word, const std::vector<std::string> &words)
{
    constexpr size_t longest = 40; // of a word that somebody typed for one of these
    std::string found;
    size_t least = word.size() / 3 + 2; // which is too far
    for (const std::string &one : words)
    {
        const bool begun = word.size() > 2 && one.compare(0, word.size(), word) == 0;
        const size_t apart = word.size() > longest ? least : begun ? 0 : distance(word, one);
        if (apart < least && apart < one.size())
        {
            least = apart;
            found = one;
        }
    }
    return found;
}

std::string helpFor(const CLI::App &app)
{
    const auto chosen = app.get_subcommands();
    return std::string(program) + (chosen.empty() ? "" : " " + chosen.front()->get_name()) + " --help";
}

Failure misunderstood(const CLI::App &app, const CLI::ParseError &wrong, const std::string &first)
{
    const auto chosen = app.get_subcommands();
    if (chosen.empty() || !app.remaining().empty())
    {
        return wrongCommand(app, first);
    }
    if (dynamic_cast<const CLI::ExtrasError *>(&wrong) != nullptr)
    {
        return wrongUsage(unexpected(*chosen.front(), app.remaining(true)));
    }
    const std::string text = wrong.what();
    if (dynamic_cast<const CLI::ArgumentMismatch *>(&wrong) != nullptr)
    {
        return wrongUsage(text.substr(0, text.find(':')) + " takes a value");
    }
    const size_t name = text.find("--");
    if (dynamic_cast<const CLI::ConversionError *>(&wrong) != nullptr && name != std::string::npos)
    {
        return wrongUsage(text.substr(name, text.find(' ', name) - name) + " takes no value"); // others have a check
    }
    return wrongUsage(withoutCredentials(text));
}

} // namespace zr::host
