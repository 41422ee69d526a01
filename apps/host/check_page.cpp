#include "check_page.h"

#include <ctime>
#include <fstream>

#include "base64.h"
#include "masking.h"

namespace zr::host {
namespace {

constexpr const char *head = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width">
<title>Check of a stream</title><style>
body { font: 15px/1.4 sans-serif; margin: 2em auto; max-width: 60em; padding: 0 1em; color: #222 }
table { border-collapse: collapse; width: 100% } td { border-top: 1px solid #ddd; padding: .35em .6em; vertical-align: top }
td:first-child { font-weight: bold; width: 5em } .ok { color: #17803d } .failed { color: #c0201c } .skipped { color: #8a6d00 }
small { color: #555; display: block } img { max-width: 100%; margin-top: 1em }
pre { background: #f6f6f4; padding: 1em; overflow-x: auto; font-size: 12px } .sent { color: #1a4f9c }
.event { color: #8a6d00 } h1 { overflow-wrap: anywhere; font-size: 1.5em }
</style></head><body>
)";

std::string escaped(const std::string &text)
{
    std::string safe;
    for (const char c : text)
    {
        switch (c)
        {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        default:
            safe += c;
        }
    }
    return safe;
}

std::string nowText()
{
    const std::time_t now = std::time(nullptr);
    std::tm day{};
    localtime_r(&now, &day);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &day);
    return text;
}

} // namespace

void writePage(const std::string &file, const CheckPage &told)
{
    const auto safe = [](const std::string &text) { return escaped(shown(text)); };
    std::string page = head;
    page += "<h1>" + safe(told.source.url.text) + "</h1>\n<p>" + nowText() + ": <b>" + safe(told.verdict) +
            "</b></p>\n<table>\n";
    for (const Row &row : told.table.rows())
    {
        const std::string name = word(row.verdict);
        page.append("<tr><td class=\"").append(name).append("\">").append(name).append("</td><td>");
        page.append(safe(row.step)).append("</td><td>").append(safe(row.text));
        if (!row.advice.empty())
        {
            page.append("<small>try: ").append(safe(row.advice)).append("</small>");
        }
        page.append("</td></tr>\n");
    }
    page += "</table>\n";
    page += told.picture.empty()
                ? "<p>No picture.</p>\n"
                : "<img alt=\"The picture\" src=\"data:image/png;base64," + toBase64(told.picture) + "\">\n";
    page += "<h2>On the wire</h2>\n<p>&gt; was sent, &lt; received; credentials are shown as ***.</p>\n<pre>";
    for (const Trace::Lines &lines : told.transcript)
    {
        const char *kind = lines.kind == ZR_TRACE_SENT       ? "sent"
                           : lines.kind == ZR_TRACE_RECEIVED ? "received"
                                                             : "event";
        page.append("<span class=\"").append(kind).append("\">").append(safe(lines.text)).append("</span>\n");
    }
    page += "</pre>\n</body></html>\n";
    std::ofstream out(file, std::ios::binary);
    out << page;
    if (!out.flush())
    {
        throw Failure(ExitCode::Output, "writing the report", 0, file + " could not be written", "check the folder");
    }
}

} // namespace zr::host
