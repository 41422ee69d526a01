#include "writer.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <stdexcept>

#include <gst/app/gstappsrc.h>

namespace zr::media {

namespace {

/// Of a track, some seconds of video.
constexpr uint64_t maxWaiting = 16U << 20U;
/// The date is one of the first elements.
constexpr size_t headBytes = 4096;
/// Matroska counts from 2001.
constexpr int64_t matroskaEpoch = 978307200;
constexpr int64_t second = 1000000000;
constexpr const char *sendersClock = "by the sender's clock (RTCP)";

/// The element DateUTC (RFC 9559, 5.1.2.11): its identifier, its size, its value.
std::array<char, 11> dateElement(int64_t unixTime)
{
    std::array<char, 11> bytes = {0x44, 0x61, static_cast<char>(0x88)};
    auto value = static_cast<uint64_t>(unixTime) - static_cast<uint64_t>(matroskaEpoch * second);
    for (size_t i = bytes.size(); i > 3; --i)
    {
        bytes.at(i - 1) = static_cast<char>(value & 0xFFU);
        value >>= 8U;
    }
    return bytes;
}

using Head = std::vector<char>;

Head headOf(std::istream &stream)
{
    Head head(headBytes);
    stream.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(stream.gcount()));
    stream.clear(); // a short file ends within it
    return head;
}

/// The muxer writes the date with the head, before any sender may have told its clock. Where it is not found, it stays.
void replaceDate(const std::string &file, int64_t before, int64_t after)
{
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    const Head head = headOf(stream);
    const auto old = dateElement(before);
    const auto found = std::search(head.begin(), head.end(), old.begin(), old.end());
    if (found == head.end())
    {
        return;
    }
    const auto made = dateElement(after);
    stream.seekp(found - head.begin());
    stream.write(made.data(), made.size());
}

} // namespace

bool codedAlike(const GstCaps *one, const GstCaps *other)
{
    const GstStructure *a = gst_caps_get_structure(one, 0);
    const GstStructure *b = gst_caps_get_structure(other, 0);
    for (const char *field : {"codec_data", "width", "height", "rate", "channels", "bitrate"})
    {
        const GValue *left = gst_structure_get_value(a, field);
        const GValue *right = gst_structure_get_value(b, field);
        if ((left == nullptr) != (right == nullptr) ||
            (left != nullptr && gst_value_compare(left, right) != GST_VALUE_EQUAL))
        {
            return false;
        }
    }
    return gst_structure_has_name(a, gst_structure_get_name(b)) != FALSE;
}

int64_t dateOf(const std::string &file)
{
    std::ifstream stream(file, std::ios::binary);
    const Head head = headOf(stream);
    const auto like = dateElement(0);
    const auto found = std::search(head.begin(), head.end(), like.begin(), like.begin() + 3);
    if (head.end() - found < static_cast<std::ptrdiff_t>(like.size()))
    {
        return 0;
    }
    uint64_t value = 0;
    std::for_each(found + 3, found + static_cast<std::ptrdiff_t>(like.size()),
                  [&value](char byte) { value = value << 8U | static_cast<uint8_t>(byte); });
    return static_cast<int64_t>(value + static_cast<uint64_t>(matroskaEpoch * second));
}

std::string commentOn(int64_t date, bool bySender)
{
    GDateTime *seconds = g_date_time_new_from_unix_utc(date / second);
    gchar *text = g_date_time_format(seconds, "%Y-%m-%dT%H:%M:%S");
    const std::string milliseconds = std::to_string(1000 + date % second / 1000000).substr(1);
    std::string comment = std::string("begins at ") + text + "." + milliseconds + "Z " +
                          (bySender ? sendersClock : "by the receiver's clock");
    g_free(text);
    g_date_time_unref(seconds);
    return comment;
}

bool isBySender(const std::string &comment)
{
    return comment.find(sendersClock) != std::string::npos;
}

std::string errorOf(GstMessage *message)
{
    GError *error = nullptr;
    gchar *detail = nullptr;
    gst_message_parse_error(message, &error, &detail);
    std::string text = std::string(error->message) + " (" + (detail == nullptr ? "no detail" : detail) + ")";
    g_error_free(error);
    g_free(detail);
    return text;
}

Writer::Writer(const std::string &file, const std::vector<Track> &tracks, bool mayBlock)
    : m_file(file)
{
    std::string text = "matroskamux name=mux offset-to-zero=true ! filesink name=file";
    std::map<std::string, unsigned> counts;
    for (size_t i = 0; i < tracks.size(); ++i)
    {
        text += " appsrc name=source" + std::to_string(i) +
                " format=time max-bytes=" + std::to_string(mayBlock ? maxWaiting : 0) +
                " block=" + (mayBlock ? "true" : "false") + " ! mux." + tracks[i].media + "_" +
                std::to_string(counts[tracks[i].media]++);
    }
    m_pipeline.reset(gst_parse_launch(text.c_str(), nullptr));
    if (m_pipeline == nullptr)
    {
        throw std::runtime_error("there is no writer of Matroska files");
    }
    const auto element = [this](const std::string &name) {
        return GstPtr<GstElement>(gst_bin_get_by_name(GST_BIN(m_pipeline.get()), name.c_str()));
    };
    g_object_set(element("file").get(), "location", file.c_str(), nullptr);
    m_muxer = element("mux");
    for (size_t i = 0; i < tracks.size(); ++i)
    {
        m_sources.push_back(element("source" + std::to_string(i)));
        gst_app_src_set_caps(GST_APP_SRC(m_sources.back().get()), tracks[i].caps.get());
    }
}

Writer::~Writer()
{
    gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
}

void Writer::start()
{
    gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
}

void Writer::setDate(int64_t unixTime)
{
    m_newDate = unixTime;
    if (m_date == 0)
    {
        m_date = unixTime / second * second; // as the muxer writes it
        GDateTime *date = g_date_time_new_from_unix_utc(unixTime / second);
        g_object_set(m_muxer.get(), "creation-time", date, nullptr);
        g_date_time_unref(date);
    }
}

void Writer::setComment(const std::string &text)
{
    gst_tag_setter_add_tags(GST_TAG_SETTER(m_muxer.get()), GST_TAG_MERGE_REPLACE, GST_TAG_COMMENT, text.c_str(),
                            nullptr);
}

void Writer::write(size_t track, GstBuffer *frame)
{
    gst_app_src_push_buffer(GST_APP_SRC(m_sources[track].get()), frame);
}

void Writer::end(size_t track)
{
    gst_app_src_end_of_stream(GST_APP_SRC(m_sources[track].get()));
}

uint64_t Writer::waiting() const
{
    uint64_t sum = 0;
    for (const auto &source : m_sources)
    {
        const uint64_t level = gst_app_src_get_current_level_bytes(GST_APP_SRC(source.get()));
        if (level == 0)
        {
            return 0;
        }
        sum += level;
    }
    return sum;
}

bool Writer::isWhole(GstClockTime within)
{
    const GstPtr<GstBus> bus(gst_element_get_bus(m_pipeline.get()));
    const GstPtr<GstMessage> message(
        m_whole ? nullptr
                : gst_bus_timed_pop_filtered(bus.get(), within,
                                             static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    if (message != nullptr && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR)
    {
        throw std::runtime_error(errorOf(message.get()));
    }
    m_whole = m_whole || message != nullptr;
    return m_whole;
}

void Writer::close()
{
    gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    if (m_newDate != m_date && m_date != 0)
    {
        replaceDate(m_file, m_date, m_newDate);
    }
}

} // namespace zr::media
