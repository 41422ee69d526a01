#include "pipeline.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <sstream>
#include <string_view>

namespace zr::media {

namespace {

struct Encoding
{
    const char *name;
    const char *chain; ///< the last element takes a name
};

constexpr Encoding encodings[] = {
    {"H264", "rtph264depay ! h264parse"},
    {"H265", "rtph265depay ! h265parse"},
    {"JPEG", "rtpjpegdepay"},
    {"PCMU", "rtppcmudepay"},
    {"PCMA", "rtppcmadepay"},
    {"G726", "rtpg726depay"},
    {"G726-16", "rtpg726depay"},
    {"G726-24", "rtpg726depay"},
    {"G726-32", "rtpg726depay"},
    {"G726-40", "rtpg726depay"},
    {"AAL2-G726-16", "rtpg726depay"},
    {"AAL2-G726-24", "rtpg726depay"},
    {"AAL2-G726-32", "rtpg726depay"},
    {"AAL2-G726-40", "rtpg726depay"},
    {"MPEG4-GENERIC", "rtpmp4gdepay ! aacparse"},
    {"MP4A-LATM", "rtpmp4adepay ! aacparse"},
};

/// A decoder that writes beyond its pictures' memory for sizes as ordinary as 640x360 and 160x120 (valgrind shows it,
/// in version 1.0.11): no picture is worth that. Another decoder of H.265, where there is one, is taken.
constexpr const char *refusedDecoder = "libde265dec";

/// Of decodebin's signal "autoplug-select": 0 tries the factory, 2 passes it over.
int selectDecoder(GstElement *, GstPad *, GstCaps *, GstElementFactory *factory, void *)
{
    return std::string_view(GST_OBJECT_NAME(factory)) == refusedDecoder ? 2 : 0;
}

/// What follows a track's frames. What is shown is shown as soon as it comes: the network has paced it already.
const char *endOf(ZrMediaKind kind)
{
    switch (kind)
    {
    case ZR_MEDIA_KIND_RECORDING:
        return "appsink sync=false async=false name=frames"; // and the track's number
    case ZR_MEDIA_KIND_PICTURE:
        return "decodebin name=decoder ! videoconvert ! pngenc snapshot=true ! filesink name=file";
    case ZR_MEDIA_KIND_SHOW:
        return "decodebin name=decoder ! videorate drop-only=true max-rate=12 ! videoscale ! videoconvert ! "
               "video/x-raw,format=RGB,width=[1,640],height=[1,480],pixel-aspect-ratio=1/1 ! "
               "appsink name=pictures max-buffers=1 drop=true sync=false";
    case ZR_MEDIA_KIND_WINDOW:
        return "decodebin name=decoder ! videoconvert ! videoscale ! autovideosink name=window sync=false";
    }
    return "";
}

/// What autovideosink tries is what may be a window of the desktop. The first three draw past it, and DirectFB's
/// threads crash the process where there is no device for it (seen in version 1.7.7); Wayland's say that they are ready
/// also where there is no compositor (seen in 1.22), and nothing is ever seen.
void leaveOutSinksWithoutWindow()
{
    std::vector<const char *> names = {"dfbvideosink", "kmssink", "fbdevsink"};
    if (g_getenv("WAYLAND_DISPLAY") == nullptr)
    {
        names.insert(names.end(), {"waylandsink", "gtkwaylandsink"});
    }
    for (const char *name : names)
    {
        if (GstPluginFeature *feature = gst_registry_lookup_feature(gst_registry_get(), name))
        {
            gst_plugin_feature_set_rank(feature, GST_RANK_NONE);
            gst_object_unref(feature);
        }
    }
}

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(' ');
    return first == std::string_view::npos ? text.substr(0, 0)
                                           : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// A field's name may hold letters, digits, "-" and "_"; the far side's text must not choose the caps' own fields.
bool usable(const std::string &name)
{
    static constexpr std::array<std::string_view, 6> own = {"media",         "payload",         "clock-rate",
                                                            "encoding-name", "encoding-params", "ssrc"};
    return !name.empty() && std::isalpha(static_cast<unsigned char>(name[0])) != 0 &&
           std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; }) &&
           std::find(own.begin(), own.end(), name) == own.end();
}

void addParameters(GstCaps *caps, std::string_view fmtp)
{
    while (!fmtp.empty())
    {
        const size_t end = std::min(fmtp.find(';'), fmtp.size());
        const std::string_view piece = trimmed(fmtp.substr(0, end));
        fmtp.remove_prefix(std::min(end + 1, fmtp.size()));
        const size_t equals = piece.find('=');
        std::string name(piece.substr(0, equals));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
        const std::string value(equals == std::string_view::npos ? "1" : piece.substr(equals + 1));
        if (usable(name) && g_utf8_validate(value.c_str(), -1, nullptr) != FALSE)
        {
            gst_caps_set_simple(caps, name.c_str(), G_TYPE_STRING, value.c_str(), nullptr);
        }
    }
}

} // namespace

const char *chainOf(const std::string &encoding)
{
    const auto *const found = std::find_if(std::begin(encodings), std::end(encodings),
                                           [&encoding](const Encoding &known) { return encoding == known.name; });
    return found == std::end(encodings) ? nullptr : found->chain;
}

GstPtr<GstCaps> capsOf(const ZrMediaFormat &format)
{
    GstPtr<GstCaps> caps(gst_caps_new_simple("application/x-rtp", "media", G_TYPE_STRING, format.pszMedia, "payload",
                                             G_TYPE_INT, static_cast<int>(format.ulPayloadType), "clock-rate",
                                             G_TYPE_INT, static_cast<int>(format.ulClockRate), "encoding-name",
                                             G_TYPE_STRING, format.pszEncoding, nullptr));
    if (format.pszParameters[0] != '\0' && g_utf8_validate(format.pszParameters, -1, nullptr) != FALSE)
    {
        gst_caps_set_simple(caps.get(), "encoding-params", G_TYPE_STRING, format.pszParameters, nullptr);
    }
    addParameters(caps.get(), format.pszFmtp);
    return caps;
}

GstPtr<GstElement> makePipeline(ZrMediaKind kind, const std::string &file, const std::vector<ZrMediaFormat> &tracks,
                                std::string &problem)
{
    if (kind == ZR_MEDIA_KIND_WINDOW)
    {
        leaveOutSinksWithoutWindow();
    }
    std::string text;
    const char *const end = endOf(kind);
    for (size_t i = 0; i < tracks.size(); ++i)
    {
        std::ostringstream track;
        track << " appsrc name=source" << i << " is-live=true format=time ! rtpjitterbuffer name=order" << i << " ! "
              << chainOf(tracks[i].pszEncoding) << " name=parsed" << i << " ! " << end;
        if (kind == ZR_MEDIA_KIND_RECORDING)
        {
            track << i;
        }
        text += track.str();
    }
    GError *error = nullptr;
    GstPtr<GstElement> pipeline(gst_parse_launch_full(text.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    if (error != nullptr)
    {
        problem = error->message;
        g_error_free(error);
        return nullptr;
    }
    if (const GstPtr<GstElement> sink{gst_bin_get_by_name(GST_BIN(pipeline.get()), "file")})
    {
        g_object_set(sink.get(), "location", file.c_str(), nullptr);
    }
    if (const GstPtr<GstElement> decoder{gst_bin_get_by_name(GST_BIN(pipeline.get()), "decoder")})
    {
        g_signal_connect(decoder.get(), "autoplug-select", G_CALLBACK(&selectDecoder), nullptr);
    }
    return pipeline;
}

} // namespace zr::media
