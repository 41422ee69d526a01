#include "pipelines.h"

#include <gst/gst.h>

namespace zr::device {
namespace {

bool hasElement(const char *name)
{
    GstElementFactory *factory = gst_element_factory_find(name);
    if (factory == nullptr)
    {
        return false;
    }
    gst_object_unref(factory);
    return true;
}

// The overlays come with Pango; without them the picture lacks its text and nothing else.
std::string overlay(const char *element, const std::string &properties)
{
    return hasElement(element)
               ? std::string(" ! ") + element + " " + properties + " font-desc=\"Monospace 24\" shaded-background=true"
               : std::string();
}

std::string rawVideo(const Picture &picture)
{
    return " ! video/x-raw,format=I420,width=" + std::to_string(picture.width) +
           ",height=" + std::to_string(picture.height) + ",framerate=" + std::to_string(picture.framesPerSecond) + "/1";
}

// One thread: a sliced picture saves a few milliseconds that nobody sees here, and costs a second core.
std::string encoder(const Picture &picture)
{
    return " ! x264enc speed-preset=ultrafast tune=zerolatency threads=1 bitrate=1000 key-int-max=" +
           std::to_string(picture.framesPerSecond);
}

constexpr const char *rawAudio = " ! audio/x-raw,rate=8000,channels=1";

} // namespace

std::string livePipeline(const Picture &picture, bool audio)
{
    std::string text = "( videotestsrc is-live=true pattern=" + picture.pattern + rawVideo(picture) +
                       overlay("clockoverlay", "time-format=\"%Y-%m-%d %H:%M:%S\" halignment=center valignment=top") +
                       encoder(picture) + " ! rtph264pay name=pay0 pt=96 config-interval=-1";
    if (audio)
    {
        text += std::string(" audiotestsrc is-live=true wave=ticks") + rawAudio +
                " ! mulawenc"
                " ! rtppcmupay name=pay1 pt=0 max-ptime=20000000";
    }
    return text + " )";
}

std::string recordingPipeline(const Picture &picture, int seconds, const std::string &file)
{
    constexpr int samplesPerBuffer = 160; // 20 ms, what most cameras send in a packet
    return "videotestsrc num-buffers=" + std::to_string(seconds * picture.framesPerSecond) +
           " pattern=" + picture.pattern + rawVideo(picture) +
           overlay("timeoverlay", "halignment=center valignment=top") + encoder(picture) +
           " ! h264parse ! queue ! matroskamux name=mux ! filesink location=" + file +
           " audiotestsrc wave=ticks samplesperbuffer=" + std::to_string(samplesPerBuffer) +
           " num-buffers=" + std::to_string(seconds * 8000 / samplesPerBuffer) + rawAudio + " ! alawenc ! queue ! mux.";
}

std::string playbackPipeline(const std::string &file)
{
    return "( filesrc location=" + file +
           " ! matroskademux name=demux"
           " demux.video_0 ! queue ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1"
           " demux.audio_0 ! queue ! rtppcmapay name=pay1 pt=8 max-ptime=20000000 )";
}

std::string replayPipeline(const std::string &file, uint64_t begin)
{
    // whole groups of pictures backwards too, as recorders send them
    return "( filesrc location=" + file +
           " ! matroskademux name=demux demux.video_0 ! queue ! h264parse ! rtph264pay pt=96 config-interval=-1"
           " ! rtponviftimestamp name=pay0 set-e-bit=true set-t-bit=true drop-out-of-segment=false ntp-offset=" +
           std::to_string(begin * GST_SECOND) + " )";
}

} // namespace zr::device
