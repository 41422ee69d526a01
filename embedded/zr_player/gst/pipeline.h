/// @file
/// The elements that make a file of RTP packets.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gst/gst.h>

#include "media_library.h"

namespace zr::media {

struct Unref
{
    void operator()(void *object) const { gst_object_unref(object); }
    void operator()(GstCaps *caps) const { gst_caps_unref(caps); }
    void operator()(GstMessage *message) const { gst_message_unref(message); }
    void operator()(GstSample *sample) const { gst_sample_unref(sample); }
};
template <typename Object>
using GstPtr = std::unique_ptr<Object, Unref>;

/// What depayloads and parses an encoding; null for one that no file is made of.
const char *chainOf(const std::string &encoding);

/// The RTP caps of a format, its fmtp parameters included (RFC 4566, 6).
GstPtr<GstCaps> capsOf(const ZrMediaFormat &format);

/// A pipeline whose elements of a track are named source0, order0 (puts packets in order) and parsed0 (brings frames),
/// and so on; frames0 takes those of a recording, "pictures" what is shown.
/// @param problem  receives what is wrong, for the log
/// @return null when an element is missing
GstPtr<GstElement> makePipeline(ZrMediaKind kind, const std::string &file, const std::vector<ZrMediaFormat> &tracks,
                                std::string &problem);

} // namespace zr::media
