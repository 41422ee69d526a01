/// The files of a recording.

#include <algorithm>
#include <cerrno>
#include <utility>

#include "media_file.h"
#include "new_file.h"
#include "platform_log.h"

namespace zr::media {

namespace {

constexpr ZR_ULONG maxFiles = 99999;

static_assert(int{ZR_MEDIA_PART_END} == int{ZR_RECORDING_ENDED} &&
              int{ZR_MEDIA_PART_LENGTH} == int{ZR_RECORDING_LENGTH} &&
              int{ZR_MEDIA_PART_SIZE} == int{ZR_RECORDING_SIZE} &&
              int{ZR_MEDIA_PART_CHANGED} == int{ZR_RECORDING_CHANGED});

const char *reasonOf(ZrMediaPartEnd why)
{
    return why == ZR_MEDIA_PART_LENGTH ? "it was long enough"
           : why == ZR_MEDIA_PART_SIZE ? "it was large enough"
                                       : "what comes now is coded otherwise, or of other tracks";
}

} // namespace

/// Its name is the recording's at first, later a numbered one. The disk may take its time: meanwhile packets are
/// offered.
const char *MediaFile::nextFile(void *user, ZrMediaPartEnd why, uint64_t begin)
{
    auto &file = *static_cast<MediaFile *>(user);
    const std::string before = std::exchange(file.m_name, file.m_file);
    const bool first = ++file.m_number == 1;
    if (!first)
    {
        const int error = file.m_number > maxFiles ? EFBIG
                                                   : createNumbered(file.m_file, file.m_plan.overwrite, maxFiles,
                                                                    file.m_number, file.m_name);
        if (error != 0)
        {
            file.unwritable(file.m_name, error);
            return nullptr;
        }
        ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: recording: '%s' goes on in '%s': %s", file.m_portId,
                        before.c_str(), file.m_name.c_str(), reasonOf(why));
    }
    const std::lock_guard<std::mutex> lock(file.m_mutex);
    file.m_begin = first ? begin : file.m_begin;
    file.m_numbers[file.m_name] = file.m_number;
    return file.m_name.c_str();
}

void MediaFile::fileIsWhole(void *user, const ZrMediaPart *part)
{
    auto &file = *static_cast<MediaFile *>(user);
    ZrRecordingFile told{};
    told.pszFile = part->pszFile;
    told.ulEnd = part->enEnd == ZR_MEDIA_PART_END && file.m_goesOn ? ZR_MEDIA_PART_CHANGED : part->enEnd;
    told.ullMediaMs = part->ullLength / 1000000;
    told.ullBytes = part->ullBytes;
    told.ullUnixUs = static_cast<uint64_t>(std::max<int64_t>(part->llUnix, 0)) / 1000;
    told.ulSenderClock = part->iSenderClock != 0 ? 1 : 0;
    {
        const std::lock_guard<std::mutex> lock(file.m_mutex);
        const auto numbered = file.m_numbers.find(part->pszFile);
        told.ulNumber = numbered->second;
        file.m_numbers.erase(numbered);
    }
    ZR_PLATFORM_LOG(INFO, 0, Player, "media port %u: recording: '%s' is whole", file.m_portId, part->pszFile);
    if (file.m_plan.call != nullptr)
    {
        file.m_plan.call(&told, file.m_plan.user);
    }
}

/// Of the file's own thread.
void MediaFile::writeMetadata(const Packet &packet)
{
    if (m_metadata == nullptr)
    {
        m_metadata = std::make_unique<MetadataFile>(m_file, m_plan.overwrite, m_metadataRate,
                                                    [this](bool error, const std::string &text) {
                                                        writeLog(this, error ? 1 : 0, ("metadata: " + text).c_str());
                                                    });
    }
    m_metadata->take(packet.bytes, packet.arrival);
}

/// Whether the first file has begun, the metadata's times are to know.
void MediaFile::dateMetadata(const std::optional<uint64_t> &begin, const std::optional<SenderClock> &clock)
{
    if (m_metadata == nullptr)
    {
        return;
    }
    if (clock)
    {
        m_metadata->setClock(*clock);
    }
    if (begin && m_first && !std::exchange(m_metadataDated, true))
    {
        m_metadata->setBegin(*m_first, *begin);
    }
}

} // namespace zr::media
