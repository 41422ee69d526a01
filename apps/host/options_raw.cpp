#include "options_raw.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>

#include "failure.h"
#include "option_values.h"
#include "output_file.h"
#include "position.h"
#include "secrets.h"
#include "source_list.h"
#include "speed.h"

namespace zr::host {
namespace {

Credentials givenCredentials(const RawOptions &raw)
{
    Credentials given = raw.credentials;
    if (raw.camera && given.user.empty() && !raw.password && raw.passwordFile.empty())
    {
        given = credentialsOf(*raw.camera);
        if (given.complete)
        {
            return given;
        }
    }
    const char *inherited = std::getenv("ZR_RTSP_PASSWORD"); // NOLINT(concurrency-mt-unsafe): there is one thread yet
    if (raw.password)
    {
        given.password = *raw.password;
    }
    else if (!raw.passwordFile.empty())
    {
        given.password = readPassword(raw.passwordFile);
    }
    else if (inherited != nullptr)
    {
        given.password = inherited;
    }
    given.complete = raw.password || !raw.passwordFile.empty() || inherited != nullptr;
    return given;
}

void complete(Credentials &credentials, const std::string &where)
{
    if (!credentials.user.empty() && !credentials.complete && canAskPassword())
    {
        credentials.password = askPassword(credentials.user + where);
        credentials.complete = true;
    }
}

/// Devices take tunnels where their web pages are; a server of its own where it takes RTSP, which the URL then names.
void tunnel(Source &source, tagZrTunnel kind)
{
    const bool tls = source.url.text.rfind("rtsps:", 0) == 0;
    source.tunnel = kind;
    source.url.port = source.url.portNamed ? source.url.port : static_cast<uint16_t>(tls ? 443 : 80);
}

Source completeSource(const RawOptions &raw, const std::string &tag)
{
    Credentials given = givenCredentials(raw);
    given.user = raw.camera && given.user.empty() ? raw.camera->user : given.user;
    Source source = makeSource(raw.url, given, tag);
    if (source.credentials.user.empty() && (raw.password || !raw.passwordFile.empty()))
    {
        throw wrongUsage("there is a password, but no user name: give --user as well, or one in the URL");
    }
    complete(source.credentials, " at " + source.url.host);
    urlForDescribe(source.url.text, source.credentials); // refuses what cannot be handed over
    return source;
}

/// Why one camera's password is not known is no reason to leave the others alone.
Credentials credentialsOf(const Camera &camera, std::optional<Failure> &failure)
{
    try
    {
        return credentialsOf(camera);
    }
    catch (const Failure &failed)
    {
        failure.emplace(failed);
        return {};
    }
}

/// Those of a file, or all cameras.
std::vector<Source> completeSources(const RawOptions &raw, const std::string &tag, const Cameras &cameras,
                                    std::vector<std::string> &warnings)
{
    Credentials given = givenCredentials(raw);
    complete(given, "");
    std::vector<Camera> used;
    const auto sourceOf = [&](const Camera &camera) {
        used.push_back(camera);
        std::optional<Failure> failure;
        const Credentials own = credentialsOf(camera, failure);
        const bool has = own.complete || !own.user.empty() || !parseUrl(camera.url).credentials.user.empty();
        Source made = makeSource(camera.url, has || failure ? own : given,
                                 raw.tag.empty() && !camera.tag.empty() ? camera.tag : tag);
        made.name = camera.name;
        made.failure = failure;
        if (camera.tunnel != ZR_TUNNEL_NONE && !raw.udp)
        {
            tunnel(made, camera.tunnel);
        }
        return made;
    };
    std::vector<Source> sources;
    if (!raw.file.empty())
    {
        sources =
            readSources(raw.file, given, tag, [&](const std::string &name) { return sourceOf(cameras.named(name)); });
    }
    else
    {
        std::transform(cameras.all().begin(), cameras.all().end(), std::back_inserter(sources), sourceOf);
    }
    if (sources.empty())
    {
        throw wrongUsage("there is neither a FILE nor a cameras file to watch");
    }
    const auto open = cameras.warnings(used);
    warnings.insert(warnings.end(), open.begin(), open.end());
    return sources;
}

void requireOrder(const Playback &playback)
{
    const auto from = parsePosition(playback.from);
    const auto to = parsePosition(playback.to);
    const bool known = from && to && from->clock == to->clock && speedFactor(playback.speedCode) > 0;
    if (known && to->seconds <= from->seconds)
    {
        throw wrongUsage("--to is not behind --from: that takes a negative --speed");
    }
}

/// What a camera's name stands for takes the URL's place.
void nameCamera(RawOptions &raw, const Cameras &cameras)
{
    raw.camera = cameras.named(raw.url);
    raw.camerasFile = cameras.file();
    raw.url = raw.camera->url;
    raw.tag = raw.tag.empty() ? raw.camera->tag : raw.tag;
}

/// @return the cameras file, if the command line needs it
std::optional<Cameras> findCameras(RawOptions &raw, Options &options)
{
    const bool named = Cameras::isName(raw.url);
    std::vector<std::string> &warnings = options.common.warnings;
    if (isReadByOthers(raw.passwordFile))
    {
        warnings.push_back(openSecret(raw.passwordFile));
    }
    if (!named && options.command != Command::Cameras && options.command != Command::Watch)
    {
        return std::nullopt;
    }
    const Cameras cameras(raw.camerasFile);
    std::vector<Camera> used;
    if (named)
    {
        nameCamera(raw, cameras);
        used = {*raw.camera};
    }
    else if (options.command == Command::Cameras)
    {
        used = cameras.all();
    }
    const auto open = cameras.warnings(used);
    warnings.insert(warnings.end(), open.begin(), open.end());
    return cameras;
}

/// The URLs' sources are known.
void understandTunnel(const RawOptions &raw, Options &options)
{
    if (raw.tunnel == ZR_TUNNEL_NONE)
    {
        return;
    }
    if (raw.udp || raw.multicast || options.check.multicast)
    {
        throw wrongUsage("--http carries the media, too: leave --udp and --multicast away");
    }
    tunnel(options.common.source, raw.tunnel);
    for (Source &source : options.watch.sources)
    {
        tunnel(source, raw.tunnel);
    }
}

std::string meantTag(const RawOptions &raw, const char *own)
{
    return raw.tag.empty() ? own : raw.tag;
}

/// What the command line says goes before the camera's.
tagZrTunnel meantTunnel(const RawOptions &raw, const Options &options)
{
    if (raw.http || raw.httpOne)
    {
        return raw.httpOne ? ZR_TUNNEL_HTTP_ONE : ZR_TUNNEL_HTTP;
    }
    const bool cannot = raw.udp || raw.multicast || options.check.multicast;
    return raw.camera && !cannot ? raw.camera->tunnel : ZR_TUNNEL_NONE;
}

Source understandPlay(RawOptions &raw, Options &options)
{
    CourseOptions &course = options.play.course;
    const bool force = options.common.force;
    course.segments.overwrite = force;
    requireFree(options.play.snapshot, force);
    requireFree(course.record, force);
    Source source = completeSource(raw, meantTag(raw, "onvif"));
    course.protocol = raw.tcp ? PROTOCOL_TCP : PROTOCOL_UDP;
    course.multicast = raw.multicast;
    course.fallBack = !raw.tcp && !raw.udp;
    if (!course.speed.empty())
    {
        course.playback.speedCode = speedCode(course.speed);
    }
    if (options.command == Command::Replay)
    {
        raw.replay.apply(course);
    }
    requireOrder(course.playback);
    return source;
}

Source understandDownload(const RawOptions &raw, Options &options)
{
    CourseOptions &course = options.download.course;
    course.segments.overwrite = options.common.force;
    requireFree(course.record, options.common.force || options.download.resume);
    requireOrder(course.playback);
    Source source = completeSource(raw, meantTag(raw, "onvif"));
    course.protocol = raw.udp ? PROTOCOL_UDP : PROTOCOL_TCP;
    course.fallBack = !raw.tcp && !raw.udp;
    if (raw.downloadTimes)
    {
        course.playback.download = DownloadSpeed{static_cast<ZR_ULONG>(std::ilogb(*raw.downloadTimes)), !raw.sampled};
        source.tag = meantTag(raw, source.credentials.user.empty() ? "plain" : "onvif");
    }
    return source;
}

} // namespace

void understand(RawOptions &raw, Options &options)
{
    const auto cameras = findCameras(raw, options);
    raw.tunnel = meantTunnel(raw, options);
    raw.tcp = raw.tcp || raw.tunnel != ZR_TUNNEL_NONE;
    const auto tagOr = [&](const char *own) { return meantTag(raw, own); };
    const auto source = [&](const std::string &tag) { return completeSource(raw, tag); };
    CommonOptions &common = options.common;
    switch (options.command)
    {
    case Command::Help:
    case Command::Describe:
        common.source = source(tagOr("onvif"));
        break;
    case Command::Check:
        requireFree(options.check.html, common.force);
        common.source = source(tagOr("onvif"));
        break;
    case Command::Play:
    case Command::Replay:
        common.source = understandPlay(raw, options);
        break;
    case Command::Download:
        common.source = understandDownload(raw, options);
        break;
    case Command::Tv:
        common.source = source(tagOr("plain"));
        options.tv.course.protocol = raw.tcp ? PROTOCOL_TCP : PROTOCOL_UDP;
        options.tv.course.fallBack = !raw.tcp;
        options.tv.wall = addressAndPort(raw.wall).value_or(tagTransportAddr{});
        if (common.source.tag.substr(0, common.source.tag.find('@')) == "onvif")
        {
            throw wrongUsage("an onvif source has no relation to a TV wall: leave --tag away");
        }
        break;
    case Command::Watch:
        options.watch.course.protocol = raw.udp ? PROTOCOL_UDP : PROTOCOL_TCP;
        options.watch.course.fallBack = !raw.tcp && !raw.udp;
        options.watch.sources = completeSources(raw, tagOr("onvif"), *cameras, common.warnings);
        break;
    case Command::Cameras:
        options.cameras.file = cameras->file();
        options.cameras.cameras = cameras->all();
        break;
    }
    understandTunnel(raw, options);
}

} // namespace zr::host
