#include <algorithm>

#include "mapping_parts.h"
#include "rtsp_text.h"

namespace zr::dispatch {

namespace {

struct StaticType
{
    unsigned number;
    const char *rtpmap;
};

/// RFC 3551, tables 4 and 5.
constexpr StaticType staticTypes[] = {
    {0, "PCMU/8000"},   {3, "GSM/8000"},   {4, "G723/8000"},   {5, "DVI4/8000"},    {6, "DVI4/16000"},
    {7, "LPC/8000"},    {8, "PCMA/8000"},  {9, "G722/8000"},   {10, "L16/44100/2"}, {11, "L16/44100"},
    {12, "QCELP/8000"}, {13, "CN/8000"},   {14, "MPA/90000"},  {15, "G728/8000"},   {16, "DVI4/11025"},
    {17, "DVI4/22050"}, {18, "G729/8000"}, {25, "CelB/90000"}, {26, "JPEG/90000"},  {28, "nv/90000"},
    {31, "H261/90000"}, {32, "MPV/90000"}, {33, "MP2T/90000"}, {34, "H263/90000"},
};

const StaticType *findStaticType(std::string_view number)
{
    const auto value = rtsp::parseNumber(number, 127);
    const auto found = std::find_if(std::begin(staticTypes), std::end(staticTypes),
                                    [value](const StaticType &type) { return type.number == value; });
    return found == std::end(staticTypes) ? nullptr : found;
}

constexpr char controlAttribute[] = "a=control:";

} // namespace

std::string_view takeLine(std::string_view &text)
{
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end == std::string_view::npos ? end : end + 1);
    text.remove_prefix(line.size());
    return line;
}

std::string_view withoutEnd(std::string_view line)
{
    if (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    return line.substr(0, line.find('\r'));
}

std::optional<std::string_view> controlOf(std::string_view line)
{
    if (!rtsp::hasPrefix(line, controlAttribute))
        return std::nullopt;
    return rtsp::trimmed(withoutEnd(line.substr(sizeof controlAttribute - 1)));
}

namespace {

/// Reads a description line by line, completes each section when it ends, and copies what lies between.
class RtpmapWriter
{
public:
    explicit RtpmapWriter(std::string_view sdp)
        : m_sdp(sdp)
    {
        m_out.reserve(sdp.size() + usuallyAdded);
    }

    std::string write()
    {
        for (std::string_view rest = m_sdp; !rest.empty();)
        {
            m_lineAt = m_sdp.size() - rest.size();
            add(takeLine(rest));
        }
        m_lineAt = m_sdp.size();
        end();
        m_out.append(m_sdp.substr(m_copied));
        return std::move(m_out);
    }

private:
    void add(std::string_view line)
    {
        constexpr char attribute[] = "a=rtpmap:";
        if (rtsp::hasPrefix(line, "m="))
        {
            end();
            beginSection(line);
        }
        else if (m_attributes == std::string::npos && rtsp::hasPrefix(line, "a="))
            m_attributes = m_lineAt;
        if (m_type != nullptr && rtsp::hasPrefix(line, attribute))
        {
            const std::string_view value = rtsp::trimmed(withoutEnd(line.substr(sizeof attribute - 1)));
            if (rtsp::parseNumber(value.substr(0, rtsp::firstOf(" \t", value)), 127) == m_type->number)
                m_type = nullptr;
        }
    }

    /// Ends the section: what it lacks goes before its other attributes, for the reader takes the first.
    void end()
    {
        if (m_type == nullptr)
            return;
        const size_t place = std::min(m_attributes, m_lineAt);
        m_out.append(m_sdp.substr(m_copied, place - m_copied));
        m_copied = place;
        if (m_out.back() != '\n') // only the last line of all has no end
            m_out += m_lineEnd;
        m_out.append("a=rtpmap:").append(std::to_string(m_type->number)).append(" ").append(m_type->rtpmap);
        m_out.append(m_lineEnd);
        m_type = nullptr;
    }

    void beginSection(std::string_view line)
    {
        std::string_view text = withoutEnd(line);
        std::string_view payload;
        for (int word = 0; word < 4; ++word) // m=<media> <port> <protocol> <payload type> ...
        {
            const size_t blank = std::min(text.find(' '), text.size());
            payload = text.substr(0, blank);
            text.remove_prefix(std::min(blank + 1, text.size()));
        }
        m_type = findStaticType(payload);
        m_lineEnd = line.find('\r') == std::string_view::npos ? "\n" : "\r\n";
        m_attributes = std::string::npos;
    }

    static constexpr size_t usuallyAdded = 64; // here, and by completeControl

    const std::string_view m_sdp;
    size_t m_lineAt = 0; ///< where the line begins
    size_t m_copied = 0; ///< up to here it is in m_out
    std::string m_out;
    const StaticType *m_type = nullptr; ///< of the section, as long as no rtpmap of it was seen
    const char *m_lineEnd = "\r\n";
    size_t m_attributes = 0; ///< where the section's first attribute begins
};

} // namespace

std::optional<std::string_view> readDescription(const rtsp::Message &response)
{
    if (const std::string *header = response.find("Content-Type"))
    {
        std::string_view type = *header;
        if (!rtsp::sameText(rtsp::takePiece(type, ';'), "application/sdp"))
            return std::nullopt;
    }
    // some devices count a terminating zero; whatever follows one, readers of C strings would not see
    const std::string_view text = std::string_view(response.body).substr(0, response.body.find('\0'));
    const size_t begin = text.find_first_not_of("\r\n \t");
    if (begin == std::string_view::npos ||
        (text.substr(begin, 2) != "v=" && text.find("\nm=") == std::string_view::npos))
        return std::nullopt;
    return text;
}

std::string completeRtpmaps(std::string_view sdp)
{
    return RtpmapWriter(sdp).write();
}

std::string completeControl(std::string sdp, const std::string &base)
{
    size_t sections = 0;
    std::string_view session;
    for (std::string_view rest = sdp; !rest.empty();)
    {
        const std::string_view line = takeLine(rest);
        const auto control = controlOf(line);
        if (control && sections > 0)
            return sdp;
        if (control)
            session = *control;
        else if (rtsp::hasPrefix(line, "m="))
            ++sections;
    }
    const bool isBase = session.empty() || session == "*";
    const auto url = isBase ? base : resolveUrl(base.back() == '/' ? base : base + '/', session);
    if (sections != 1 || !url)
        return sdp;
    const char *const lineEnd = sdp.find('\r') == std::string::npos ? "\n" : "\r\n";
    if (sdp.back() != '\n')
        sdp += lineEnd;
    return sdp.append(controlAttribute).append(*url).append(lineEnd);
}

std::string descriptionProblem(std::string_view sdp)
{
    struct Attribute
    {
        std::string_view name;
        const char *end;
        size_t longest; ///< characters that the plug-in has room for
    };
    constexpr Attribute attributes[] = {{"a=rtpmap:", "\r\n/;", 31}, {controlAttribute, "\r\n", 511}};
    constexpr std::string_view video = "m=video";
    const size_t section = sdp.find(video);
    if (section == std::string_view::npos)
        return "the description names no video";
    for (const Attribute &attribute : attributes)
    {
        const size_t begin = sdp.find(attribute.name, section + video.size());
        if (begin == std::string_view::npos)
            return "the description's video has no " + std::string(attribute.name);
        const std::string_view value = sdp.substr(begin + attribute.name.size());
        if (rtsp::firstOf(attribute.end, value) > attribute.longest)
            return "the description's video has more than " + std::to_string(attribute.longest) + " characters in " +
                   std::string(attribute.name);
    }
    return {};
}

bool hasRelativeControls(std::string_view sdp)
{
    while (!sdp.empty())
    {
        const auto control = controlOf(takeLine(sdp));
        if (control && !control->empty() && *control != "*" && control->find("://") == std::string_view::npos)
            return true;
    }
    return false;
}

} // namespace zr::dispatch
