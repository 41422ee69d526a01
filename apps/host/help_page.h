/// @file
/// How --help looks: a page that fits a terminal of 80 columns and 24 lines; --help-all has the rest.
#pragma once

#include <CLI/CLI.hpp>

#include "options_help.h"

namespace zr::host {

/// The group of those that the page has no room for: --help-all lists them.
inline constexpr const char *moreGroup = "More options";

/// The group of the options that every command takes: likewise.
inline constexpr const char *commonGroup = "Options of all commands";

/// That of options for recordings: likewise.
inline constexpr const char *recordingGroup = "Options of recordings";

class HelpPage : public CLI::Formatter
{
public:
    explicit HelpPage(const CommandHelp &help)
        : m_help(help)
    {
    }

    std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override;
    std::string make_option(const CLI::Option *option, bool positional) const override;
    std::string make_subcommand(const CLI::App *command) const override;

private:
    CommandHelp m_help;
};

} // namespace zr::host
