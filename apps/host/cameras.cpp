#include "cameras.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>

#include <toml++/toml.h>

#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "secrets.h"
#include "usage.h"

namespace zr::host {
namespace {

constexpr size_t mostBytes = size_t{1024} * 1024;
constexpr size_t longestName = 64;

Failure wrongFile(const std::string &file, const std::string &meaning,
                  const std::string &advice = "zr_rtsp_host cameras --help-all shows how it looks")
{
    return {ExitCode::Usage, "reading " + file, 0, meaning, advice};
}

/// One camera's table, whose every key must be known.
class Entry
{
public:
    Entry(const std::string &file, const toml::key &name, const toml::node &node)
        : m_file(file)
        , m_name(name.str())
        , m_node(node)
    {
        if (!Cameras::isName(m_name) || m_name.size() > longestName)
        {
            throw wrong(name.source(), "a camera's name has 1 to 64 characters without : / @ and blanks");
        }
        if (!node.is_table())
        {
            throw wrong(name.source(), m_name + " is no camera: it takes a table, [" + m_name + "]");
        }
    }

    Camera camera() const
    {
        Camera made{m_name, text("url"), text("user"), text("password-file"), text("password-command"), text("tag")};
        const bool http = flag("http");
        made.tunnel = flag("http-one") ? ZR_TUNNEL_HTTP_ONE : http ? ZR_TUNNEL_HTTP : ZR_TUNNEL_NONE;
        refuseUnknown();
        if (made.url.empty())
        {
            throw wrong(m_node.source(), m_name + " has no url");
        }
        const bool hasPassword = !made.passwordFile.empty() || !made.passwordCommand.empty();
        if (!made.passwordFile.empty() && !made.passwordCommand.empty())
        {
            throw wrong(m_node.source(), m_name + " has a password-file and a password-command: one is enough");
        }
        try
        {
            if (parseUrl(made.url).credentials.user.empty() && made.user.empty() && hasPassword)
            {
                throw wrong(m_node.source(), m_name + " has a password, but no user");
            }
        }
        catch (const Failure &bad)
        {
            throw bad.step() == "reading " + m_file
                ? bad
                : wrong(m_node.as_table()->get("url")->source(), m_name + ": " + bad.meaning());
        }
        if (!made.passwordFile.empty())
        {
            made.passwordFile = (std::filesystem::path(m_file).parent_path() / made.passwordFile).string();
        }
        return made;
    }

private:
    std::string text(const char *key) const
    {
        m_known.insert(key);
        const toml::node *value = m_node.as_table()->get(key);
        if (value == nullptr)
        {
            return "";
        }
        const auto found = value->value_exact<std::string>();
        const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
        if (!found || found->empty() || std::any_of(found->begin(), found->end(), isControl))
        {
            throw wrong(value->source(),
                        m_name + ": " + key + " is no text in quotes, is empty, or holds a control character");
        }
        return *found;
    }

    bool flag(const char *key) const
    {
        m_known.insert(key);
        const toml::node *value = m_node.as_table()->get(key);
        if (value != nullptr && !value->is_boolean())
        {
            throw wrong(value->source(), m_name + ": " + key + " is neither true nor false");
        }
        return value != nullptr && **value->as_boolean();
    }

    void refuseUnknown() const
    {
        for (const auto &[key, value] : *m_node.as_table())
        {
            const std::string name(key.str());
            if (m_known.count(name) == 0)
            {
                const std::string meant = nearest(name, {m_known.begin(), m_known.end()});
                throw wrong(key.source(),
                            m_name + ": there is no key " + name + (meant.empty() ? "" : " (" + meant + "?)") +
                                "; there are url, user, password-file, password-command, tag, http and http-one");
            }
        }
    }

    Failure wrong(const toml::source_region &where, const std::string &meaning) const
    {
        return wrongFile(m_file, "line " + std::to_string(where.begin.line) + ": " + meaning);
    }

    const std::string &m_file;
    std::string m_name;
    const toml::node &m_node;
    mutable std::set<std::string> m_known;
};

/// @return nothing when there is no such file
std::optional<std::string> contentOf(const std::string &file)
{
    std::error_code unknown;
    if (!std::filesystem::exists(file, unknown) && !unknown)
    {
        return std::nullopt;
    }
    if (std::filesystem::exists(file, unknown) && !std::filesystem::is_regular_file(file, unknown))
    {
        throw wrongFile(file, "it is no file");
    }
    errno = 0;
    std::ifstream in(file, std::ios::binary);
    std::string text(mostBytes + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (in.bad() || (!in && !in.eof()))
    {
        throw wrongFile(file, "it cannot be read: " + std::generic_category().message(errno),
                        "let yourself read it: chmod u+r " + file);
    }
    text.resize(static_cast<size_t>(in.gcount()));
    if (text.size() > mostBytes)
    {
        throw wrongFile(file, "it is larger than 1 MiB");
    }
    return text;
}

/// Whoever may write it may have commands run.
void requireOurs(const std::string &file)
{
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0 || (status.st_uid != geteuid() && status.st_uid != 0))
    {
        throw wrongFile(file, "it has commands run, and belongs to another user", "a copy of your own, with --cameras");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    {
        throw wrongFile(file, "it has commands run, and others than you may write it", "chmod go-w " + file);
    }
}

} // namespace

std::string Cameras::defaultFile()
{
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread yet
    const char *config = std::getenv("XDG_CONFIG_HOME");
    const char *home = std::getenv("HOME");
    // NOLINTEND(concurrency-mt-unsafe)
    const std::string own = "zr_rtsp/cameras.toml";
    if (config != nullptr && *config == '/') // what is no absolute path counts as not set
    {
        return std::string(config) + "/" + own;
    }
    return home != nullptr && *home == '/' ? std::string(home) + "/.config/" + own : "";
}

bool Cameras::isName(const std::string &text)
{
    return !text.empty() && std::none_of(text.begin(), text.end(), [](unsigned char c) {
        return c <= 0x20 || c == 0x7f || c == ':' || c == '/' || c == '@';
    });
}

Cameras::Cameras(const std::string &file)
    : m_file(file.empty() ? defaultFile() : file)
{
    const auto text = m_file.empty() ? std::nullopt : contentOf(m_file);
    if (!text && !file.empty())
    {
        throw wrongFile(file, "there is no such file");
    }
    if (text)
    {
        parse(*text);
    }
}

void Cameras::parse(const std::string &text)
{
    try
    {
        const toml::table tables = toml::parse(text);
        for (const auto &[name, node] : tables)
        {
            m_cameras.push_back(Entry(m_file, name, node).camera());
        }
    }
    catch (const toml::parse_error &wrong)
    {
        throw wrongFile(m_file,
                        "line " + std::to_string(wrong.source().begin.line) + ": " + std::string(wrong.description()));
    }
    if (std::any_of(m_cameras.begin(), m_cameras.end(), [](const Camera &one) { return !one.passwordCommand.empty(); }))
    {
        requireOurs(m_file);
    }
}

std::vector<std::string> Cameras::warnings(const std::vector<Camera> &used) const
{
    std::set<std::string> open;
    for (const Camera &one : used)
    {
        for (const std::string &file :
             {parseUrl(one.url).credentials.complete ? m_file : std::string(), one.passwordFile})
        {
            if (isReadByOthers(file))
            {
                open.insert(file);
            }
        }
    }
    std::vector<std::string> words;
    std::transform(open.begin(), open.end(), std::back_inserter(words), openSecret);
    return words;
}

const Camera &Cameras::named(const std::string &name) const
{
    const auto found =
        std::find_if(m_cameras.begin(), m_cameras.end(), [&](const Camera &one) { return one.name == name; });
    if (found != m_cameras.end())
    {
        return *found;
    }
    constexpr size_t mostNames = 12;
    std::vector<std::string> all;
    std::transform(m_cameras.begin(), m_cameras.end(), std::back_inserter(all),
                   [](const Camera &one) { return one.name; });
    std::string names;
    for (size_t i = 0; i < std::min(all.size(), mostNames); ++i)
    {
        names += (i == 0 ? "" : ", ") + all[i];
    }
    names += all.size() > mostNames ? " ..." : "";
    const std::string meant = nearest(name, all);
    const std::string where = m_file.empty() ? ", for there is no cameras file" : " in " + m_file;
    throw Failure(ExitCode::Usage, "reading the command line", 0, name + " is no URL, and no camera" + where,
                  names.empty()
                      ? "a URL begins with rtsp:// or rtsps://; zr_rtsp_host cameras --help-all tells of names"
                      : (meant.empty() ? "" : meant + "; ") + "there are " + names);
}

Credentials credentialsOf(const Camera &camera)
{
    Credentials made;
    made.user = camera.user;
    if (!camera.passwordFile.empty())
    {
        made.password = readPassword(camera.passwordFile, camera.name);
    }
    else if (!camera.passwordCommand.empty())
    {
        made.password = runForPassword(camera.passwordCommand, camera.name);
    }
    made.complete = !camera.passwordFile.empty() || !camera.passwordCommand.empty();
    return made;
}

} // namespace zr::host
