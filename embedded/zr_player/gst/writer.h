/// @file
/// A Matroska file that takes frames.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pipeline.h"

namespace zr::media {

/// Two tracks can be one when they are coded alike, with the same parameter sets.
bool codedAlike(const GstCaps *one, const GstCaps *other);

/// Frames of a track are written by one thread at a time, those of different tracks by any.
class Writer
{
public:
    struct Track
    {
        std::string media; ///< "video", "audio"
        GstPtr<GstCaps> caps;
    };

    /// @param file      exists and is overwritten
    /// @param mayBlock  a track that is some MB ahead of the disk, or of another track, waits in write()
    /// @throws std::runtime_error
    Writer(const std::string &file, const std::vector<Track> &tracks, bool mayBlock);
    /// Leaves the file as it is; who waits in write() goes on.
    ~Writer();
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    /// Before the first frame.
    void start();
    /// The wall-clock time at which the file begins (DateUTC), in nanoseconds since 1970: before start(), and again,
    /// when it is known better, before close().
    void setDate(int64_t unixTime);
    /// A remark that readers show; before the last track ends.
    void setComment(const std::string &text);

    /// @param frame  taken over
    void write(size_t track, GstBuffer *frame);
    /// Nothing more comes of a track. Any thread.
    void end(size_t track);
    /// Bytes that wait for the disk: all tracks have some, or there are none.
    uint64_t waiting() const;

    /// @param within  0: does not wait
    /// @return whether the file is whole; false: not yet
    /// @throws std::runtime_error  it cannot be
    bool isWhole(GstClockTime within);
    /// Closes the file, which is whole.
    void close();

private:
    const std::string m_file;
    GstPtr<GstElement> m_pipeline;
    GstPtr<GstElement> m_muxer;
    std::vector<GstPtr<GstElement>> m_sources;
    int64_t m_date = 0; ///< as it stands in the file; 0: none was set
    int64_t m_newDate = 0;
    bool m_whole = false;
};

/// The wall-clock time at which a file begins, nanoseconds since 1970; 0: it does not say.
int64_t dateOf(const std::string &file);

/// What is remarked of that, and read from it.
std::string commentOn(int64_t date, bool bySender);
bool isBySender(const std::string &comment);

/// What went wrong, for the log.
std::string errorOf(GstMessage *message);

} // namespace zr::media
