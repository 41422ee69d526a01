#include <algorithm>

#include "commands.h"

namespace zr::host {

void camerasCommand(const CamerasOptions &options, Report &report)
{
    if (options.names)
    {
        for (const Camera &camera : options.cameras)
        {
            report.event("camera", camera.name, {{"name", camera.name}});
        }
        return;
    }
    size_t nameWidth = 0;
    size_t urlWidth = 0;
    for (const Camera &camera : options.cameras)
    {
        nameWidth = std::max(nameWidth, camera.name.size());
        urlWidth = std::max(urlWidth, parseUrl(camera.url).text.size());
    }
    const auto padded = [](std::string text, size_t width) { return text.append(width - text.size() + 2, ' '); };
    for (const Camera &camera : options.cameras)
    {
        const Url url = parseUrl(camera.url);
        const std::string user = camera.user.empty() ? url.credentials.user : camera.user;
        const std::string password = !camera.passwordFile.empty()      ? "in " + camera.passwordFile
                                     : !camera.passwordCommand.empty() ? "by its command"
                                     : url.credentials.complete        ? "in its URL"
                                     : user.empty()                    ? ""
                                                                       : "typed, or ZR_RTSP_PASSWORD";
        std::string line = padded(camera.name, nameWidth) + padded(url.text, urlWidth);
        if (!user.empty())
        {
            line.append("user ").append(user).append(", password ").append(password);
        }
        if (!camera.tag.empty())
        {
            line.append("  tag ").append(camera.tag);
        }
        const bool overOne = camera.tunnel == ZR_TUNNEL_HTTP_ONE;
        line += overOne ? "  in HTTP, over one connection" : camera.tunnel == ZR_TUNNEL_HTTP ? "  in HTTP" : "";
        line.erase(line.find_last_not_of(' ') + 1);
        report.event("camera", line,
                     {{"name", camera.name},
                      {"url", url.text},
                      {"user", user},
                      {"password", password},
                      {"tag", camera.tag},
                      {"http", camera.tunnel != ZR_TUNNEL_NONE},
                      {"http_one", overOne}});
    }
    if (options.cameras.empty())
    {
        report.event("no_cameras",
                     "no cameras in " + (options.file.empty() ? "any file" : options.file) +
                         "; zr_rtsp_host cameras --help-all shows how they are written",
                     {{"file", options.file}});
    }
}

} // namespace zr::host
