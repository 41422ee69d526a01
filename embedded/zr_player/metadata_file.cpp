#include "metadata_file.h"

#include <array>
#include <ctime>
#include <utility>

#include <nlohmann/json.hpp>

#include "error_text.h"
#include "new_file.h"

namespace zr::media {

namespace {

constexpr size_t maxDocument = 1U << 20U;
constexpr size_t maxWaiting = 4U << 20U;
constexpr size_t maxEarly = 32;
constexpr int32_t farOff = 1000; ///< numbers; the source went on from elsewhere
constexpr ZR_ULONG maxNumber = 999;
/// A bad line must not fill the log.
constexpr unsigned maxLines = 10;

/// Such as "2026-11-23T14:00:00.125Z".
std::string dateText(int64_t unixNs)
{
    const std::time_t seconds = unixNs / 1000000000;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string milliseconds = std::to_string(1000 + unixNs % 1000000000 / 1000000);
    return std::string(text.data(), length) + "." + milliseconds.substr(1) + "Z";
}

/// A packet that begins so begins a document, whatever is missing before.
bool beginsDocument(const std::string &text)
{
    const std::string begin = text.substr(0, 256);
    return begin.rfind("<?xml", 0) == 0 || (begin[0] == '<' && begin.find("MetadataStream") != std::string::npos);
}

std::string nameBeside(const std::string &recording)
{
    const size_t folder = recording.rfind('/') == std::string::npos ? 0 : recording.rfind('/') + 1;
    const size_t dot = recording.rfind('.');
    return (dot == std::string::npos || dot <= folder ? recording : recording.substr(0, dot)) + ".metadata.jsonl";
}

int64_t inNanoseconds(TimePoint::duration duration)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

/// What the wall clock of this machine showed then.
int64_t unixOf(TimePoint arrival)
{
    const auto wall = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(wall).count() - inNanoseconds(Clock::now() - arrival);
}

} // namespace

MetadataFile::MetadataFile(const std::string &recording, bool overwrite, uint32_t clockRate, Log log)
    : m_recording(recording)
    , m_overwrite(overwrite)
    , m_clockRate(clockRate)
    , m_log(std::move(log))
    , m_timeline(clockRate)
{
}

void MetadataFile::take(const std::vector<uint8_t> &packet, TimePoint arrival)
{
    const auto read = readRtp(packet.data(), packet.size());
    if (!read || m_failed)
    {
        return;
    }
    const auto distance = static_cast<int16_t>(read->sequence - static_cast<uint16_t>(m_next));
    const bool goesOn = distance < 0 && m_late && read->sequence == static_cast<uint16_t>(*m_late + 1);
    if (m_ssrc != read->ssrc || distance > farOff || distance < -farOff || goesOn)
    {
        release(true);
        m_broken = true; // it may begin within a document
        m_ssrc = read->ssrc;
        m_next = read->sequence + 0x10000U;
    }
    else if (distance < 0)
    {
        m_late = read->sequence;
        return;
    }
    m_late.reset();
    const uint32_t number = m_next + static_cast<uint16_t>(read->sequence - static_cast<uint16_t>(m_next));
    m_early.insert({number,
                    {read->ssrc, read->timestamp, read->marker, arrival,
                     std::string(packet.begin() + static_cast<std::ptrdiff_t>(read->payload),
                                 packet.begin() + static_cast<std::ptrdiff_t>(read->payload + read->payloadSize))}});
    release(false);
}

/// Takes what is in its order, or was waited for long enough.
void MetadataFile::release(bool all)
{
    while (!m_early.empty() && (all || m_early.begin()->first == m_next || m_early.size() > maxEarly))
    {
        const auto first = m_early.begin();
        m_broken = m_broken || first->first != m_next;
        m_next = first->first + 1;
        Piece piece = std::move(first->second);
        m_early.erase(first);
        append(std::move(piece));
    }
}

void MetadataFile::append(Piece &&piece)
{
    if (m_broken && !piece.text.empty() && beginsDocument(piece.text))
    {
        m_broken = false;
        m_document = {};
    }
    if (m_document.text.empty())
    {
        m_document = {piece.ssrc, piece.timestamp, piece.arrival, {}};
    }
    const bool fits = m_document.text.size() + piece.text.size() <= maxDocument;
    if (!fits && !m_broken)
    {
        refuse("it is larger than 1 MiB");
    }
    else if (fits && m_broken && piece.last)
    {
        refuse("a part of it is missing");
    }
    m_broken = m_broken || !fits;
    m_document.text += m_broken ? "" : piece.text;
    if (!piece.last)
    {
        return;
    }
    Document whole = std::exchange(m_document, {});
    if (std::exchange(m_broken, false) || whole.text.empty())
    {
        return;
    }
    if (m_first)
    {
        write(whole);
    }
    else if (m_waitingBytes + whole.text.size() + sizeof whole <= maxWaiting)
    {
        m_waitingBytes += whole.text.size() + sizeof whole;
        m_waiting.push_back(std::move(whole));
    }
    else
    {
        refuse("the recording does not begin");
    }
}

void MetadataFile::refuse(const std::string &why)
{
    if (++m_refused <= maxLines)
    {
        m_log(true, "a document is left out: " + why +
                        (m_refused == maxLines ? "; further ones are left out without a word" : ""));
    }
}

void MetadataFile::setBegin(TimePoint first, uint64_t begin)
{
    m_first = first;
    m_begin = begin;
    for (const Document &document : std::exchange(m_waiting, {}))
    {
        write(document);
    }
}

bool MetadataFile::makeFile()
{
    std::string name;
    ZR_ULONG number = 0;
    const int error = createNumbered(nameBeside(m_recording), m_overwrite, maxNumber, number, name);
    m_failed = error != 0;
    if (m_failed)
    {
        m_log(true, "cannot write '" + name + "': " + errorText(error));
        return false;
    }
    m_file.open(name, std::ios::binary);
    m_log(false, "writing '" + name + "'");
    return true;
}

void MetadataFile::write(const Document &document)
{
    if (m_failed || (!m_file.is_open() && !makeFile()))
    {
        return;
    }
    const bool bySender = m_clock && m_clock->ssrc == document.ssrc && m_clock->unixNs > 0;
    const auto ticks = bySender ? static_cast<int32_t>(document.timestamp - m_clock->timestamp) : 0;
    const int64_t date =
        bySender ? m_clock->unixNs + int64_t{ticks} * 1000000000 / m_clockRate : unixOf(document.arrival);
    const int64_t sinceFirst = std::max<int64_t>(inNanoseconds(document.arrival - *m_first), 0);
    const uint64_t time = m_timeline.map(document.ssrc, document.timestamp, static_cast<uint64_t>(sinceFirst));
    const int64_t milliseconds = (static_cast<int64_t>(time) - static_cast<int64_t>(m_begin)) / 1000000;
    const nlohmann::ordered_json line{{"seconds", static_cast<double>(milliseconds) / 1000},
                                      {"utc", dateText(date)},
                                      {"clock", bySender ? "sender" : "receiver"},
                                      {"xml", document.text}};
    m_file << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n' << std::flush;
    m_failed = !m_file;
    if (m_failed)
    {
        m_log(true, "the disk takes no more");
    }
}

void MetadataFile::finish()
{
    release(true);
}

} // namespace zr::media
