#include "elements.h"

ZR_ULONG own::getText(const tagAOIMsg *message, ZR_ULONG id, size_t lead, std::string &text)
{
    std::string_view value;
    const ZR_ULONG found = findElement(message, id, value);
    if (found != ok)
        return found;
    if (value.size() <= lead || value.back() != '\0')
        return malformed;
    text = value.data() + lead;
    return ok;
}

std::string own::textOf(const tagAOIMsg &message, ZR_ULONG id)
{
    std::string text;
    getText(&message, id, 0, text);
    return text;
}

void own::addText(tagAOIMsg *message, ZR_ULONG id, size_t lead, const std::string &text)
{
    addElement(message, id, std::string(lead, '\0') + text + '\0');
}
