#include "recording.h"

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <gst/gst.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zr::device {
namespace {

struct Unref
{
    void operator()(GstElement *pipeline) const
    {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
    void operator()(GstBus *bus) const { gst_object_unref(bus); }
    void operator()(GstMessage *message) const { gst_message_unref(message); }
    void operator()(GError *error) const { g_error_free(error); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

void run(const std::string &description)
{
    GError *raw = nullptr;
    const Owned<GstElement> pipeline(gst_parse_launch(description.c_str(), &raw));
    const Owned<GError> unparsed(raw);
    if (!pipeline || unparsed)
    {
        throw std::runtime_error(unparsed ? unparsed->message : "no pipeline");
    }
    const Owned<GstBus> bus(gst_element_get_bus(pipeline.get()));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const Owned<GstMessage> end(gst_bus_timed_pop_filtered(
        bus.get(), 120 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (!end)
    {
        throw std::runtime_error("it took more than two minutes");
    }
    if (GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_ERROR)
    {
        gst_message_parse_error(end.get(), &raw, nullptr);
        const Owned<GError> failed(raw);
        throw std::runtime_error(failed->message);
    }
}

} // namespace

Recording::Recording(const Picture &picture, int seconds)
    : m_file(memfd_create("zr_rtsp_device recording", MFD_CLOEXEC))
    , m_path("/proc/self/fd/" + std::to_string(m_file))
{
    if (m_file < 0)
    {
        throw std::system_error(errno, std::generic_category(), "no memory file for the recording");
    }
    try
    {
        run(recordingPipeline(picture, seconds, m_path));
    }
    catch (const std::exception &failed)
    {
        close(m_file);
        throw std::runtime_error(std::string("the recording could not be made: ") + failed.what());
    }
}

Recording::~Recording()
{
    close(m_file);
}

} // namespace zr::device
