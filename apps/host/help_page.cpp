#include "help_page.h"

#include <sstream>

namespace zr::host {
namespace {

constexpr size_t textColumn = 24;
constexpr size_t lastColumn = 80;

/// A name and its text, which is broken between words.
std::string entry(const std::string &name, const std::string &text)
{
    std::string out;
    std::string line = "  " + name;
    line.resize(std::max(line.size() + 1, textColumn), ' ');
    std::istringstream words(text);
    for (std::string word; words >> word;)
    {
        if (line.size() + word.size() > lastColumn)
        {
            out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
            line.assign(textColumn, ' ');
        }
        line += word + " ";
    }
    return out + line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

/// What stands for its value, such as FILE.
std::string valueName(const CLI::Option &option)
{
    if (!option.get_option_text().empty() || option.get_type_size() == 0)
    {
        return option.get_option_text();
    }
    const std::string type = option.get_type_name();
    return type.find("FILE") != std::string::npos ? "FILE" : type.substr(0, type.find(':'));
}

} // namespace

std::string HelpPage::make_option(const CLI::Option *option, bool positional) const
{
    const std::string value = positional ? "" : valueName(*option);
    return entry(make_option_name(option, positional) + (value.empty() ? "" : " " + value), option->get_description());
}

std::string HelpPage::make_subcommand(const CLI::App *command) const
{
    return entry(command->get_name(), command->get_description());
}

std::string HelpPage::make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const
{
    const bool whole = mode == CLI::AppFormatMode::All;
    std::string page = app->get_description() + ".\n" + make_usage(app, std::move(name)) + make_positionals(app);
    const auto group = [&](const std::string &title) {
        const auto options =
            app->get_options([&](const CLI::Option *one) { return one->get_group() == title && one->nonpositional(); });
        return options.empty() ? "" : make_group(title, false, options);
    };
    const std::string often = group("Options");
    page += often.empty() && !whole ? "\nOptions:\n" : often;
    for (const std::string &title : whole ? app->get_groups() : std::vector<std::string>())
    {
        page += title == "Options" || title.empty() ? "" : group(title);
    }
    if (!whole)
    {
        page += make_option(app->get_help_all_ptr(), false);
    }
    page += make_subcommands(app, CLI::AppFormatMode::Normal);
    return page + (whole ? m_help.notes : "") + m_help.examples;
}

} // namespace zr::host
