/// The operations of hosts and of the plug-in, by port identifier.

#include <exception>
#include <map>
#include <unordered_map>

#include "platform_log.h"
#include "port.h"
#include "zr_player.h"

namespace {

using zr::media::MediaPort;

struct Entry
{
    ZR_ULONG aoiPortId = 0;
    std::shared_ptr<MediaPort> port; ///< null while it is being opened
};

struct Registry
{
    std::mutex mutex; ///< guards what follows; nothing is called under it
    std::map<ZR_ULONG, Entry> table;
    std::unordered_map<ZR_ULONG, ZR_ULONG> byAoiPort; ///< every SETUP asks, of thousands of ports

    /// Under the mutex.
    void erase(std::map<ZR_ULONG, Entry>::iterator entry)
    {
        byAoiPort.erase(entry->second.aoiPortId);
        table.erase(entry);
    }
};

/// Never destroyed: a port that a host left open must not be closed after the log is gone.
Registry &registry()
{
    static Registry *const instance = new Registry;
    return *instance;
}

std::shared_ptr<MediaPort> find(ZR_ULONG portId)
{
    Registry &ports = registry();
    const std::lock_guard<std::mutex> lock(ports.mutex);
    const auto found = ports.table.find(portId);
    return found == ports.table.end() ? nullptr : found->second.port;
}

ZR_ULONG refuse(ZR_ULONG code, const char *operation, ZR_ULONG portId, const char *why)
{
    ZR_PLATFORM_LOG(WARNING, code, Player, "media port %u: %s refused: %s", portId, operation, why);
    return code;
}

/// Runs an operation of an open port; nothing is thrown out.
template <typename Operation>
ZR_ULONG withPort(const char *name, ZR_ULONG portId, Operation operation)
{
    try
    {
        const std::shared_ptr<MediaPort> port = find(portId);
        return port == nullptr ? refuse(ZR_MEDIA_UNKNOWN_PORT, name, portId, "it is not open") : operation(*port);
    }
    catch (const std::exception &error)
    {
        return refuse(ZR_MEDIA_FAILED, name, portId, error.what());
    }
}

/// Takes the identifiers, so that two openers do not get them both.
bool reserve(ZR_ULONG portId, ZR_ULONG aoiPortId)
{
    Registry &ports = registry();
    const std::lock_guard<std::mutex> lock(ports.mutex);
    if (ports.table.count(portId) != 0 || ports.byAoiPort.count(aoiPortId) != 0)
    {
        return false;
    }
    ports.table[portId].aoiPortId = aoiPortId;
    try
    {
        ports.byAoiPort[aoiPortId] = portId;
    }
    catch (...)
    {
        ports.table.erase(portId);
        throw;
    }
    return true;
}

/// Fills a reserved place, or gives it back when there is no port.
void settle(ZR_ULONG portId, const std::shared_ptr<MediaPort> &port)
{
    Registry &ports = registry();
    const std::lock_guard<std::mutex> lock(ports.mutex);
    if (port == nullptr)
    {
        ports.erase(ports.table.find(portId));
    }
    else
    {
        ports.table[portId].port = port;
    }
}

/// Takes an open port out of the table.
std::shared_ptr<MediaPort> take(ZR_ULONG portId)
{
    Registry &ports = registry();
    const std::lock_guard<std::mutex> lock(ports.mutex);
    const auto found = ports.table.find(portId);
    if (found == ports.table.end() || found->second.port == nullptr)
    {
        return nullptr;
    }
    std::shared_ptr<MediaPort> port = std::move(found->second.port);
    ports.erase(found);
    return port;
}

} // namespace

std::shared_ptr<zr::media::Port> zr::media::findByAoiPort(ZR_ULONG aoiPortId)
{
    Registry &ports = registry();
    const std::lock_guard<std::mutex> lock(ports.mutex);
    const auto found = ports.byAoiPort.find(aoiPortId);
    return found == ports.byAoiPort.end() ? nullptr : ports.table.at(found->second).port;
}

int PlayerInputOnvifRtpInfo(ZR_ULONG ulPortID, const unsigned char *pucPacket, ZR_ULONG ulLen)
{
    if (find(ulPortID) == nullptr)
    {
        return 0;
    }
    return static_cast<int>(withPort("stream information", ulPortID, [=](MediaPort &port) {
        return pucPacket == nullptr ? refuse(ZR_MEDIA_INVALID, "stream information", ulPortID, "null")
                                    : port.handOff(pucPacket, ulLen);
    }));
}

ZR_ULONG ZR_MediaPortOpen(ZR_ULONG ulPortID, ZR_ULONG ulAOIPortID, const char *pszLocalIP, ZR_USHORT *pusPort)
{
    if (pszLocalIP == nullptr || pusPort == nullptr)
    {
        return refuse(ZR_MEDIA_INVALID, "open", ulPortID, "no address, or no place for its port");
    }
    if (!reserve(ulPortID, ulAOIPortID))
    {
        return refuse(ZR_MEDIA_PORT_IN_USE, "open", ulPortID, "it, or its AOI port identifier, is in use");
    }
    std::shared_ptr<MediaPort> port;
    ZR_ULONG code = ZR_MEDIA_FAILED;
    try
    {
        code = MediaPort::open(ulPortID, pszLocalIP, port);
    }
    catch (const std::exception &error)
    {
        refuse(code, "open", ulPortID, error.what());
    }
    settle(ulPortID, port);
    if (port != nullptr)
    {
        *pusPort = port->firstPort();
    }
    return code;
}

ZR_ULONG ZR_MediaPortSetDescription(ZR_ULONG ulPortID, const char *pszSdp)
{
    return withPort("description", ulPortID, [=](MediaPort &port) {
        return pszSdp == nullptr ? refuse(ZR_MEDIA_INVALID, "description", ulPortID, "null")
                                 : port.setDescription(pszSdp);
    });
}

ZR_ULONG ZR_MediaPortRecord(ZR_ULONG ulPortID, const char *pszFile)
{
    return withPort("recording", ulPortID, [=](MediaPort &port) {
        return pszFile == nullptr ? port.endRecording() : port.record(pszFile, {});
    });
}

ZR_ULONG ZR_MediaPortRecordFiles(ZR_ULONG ulPortID, const char *pszFile, const ZrRecordingOptions *pstOptions)
{
    return withPort("recording", ulPortID, [=](MediaPort &port) {
        if (pszFile == nullptr || pstOptions == nullptr)
        {
            return refuse(ZR_MEDIA_INVALID, "recording", ulPortID, "null");
        }
        zr::media::RecordingPlan plan;
        plan.partLength = std::chrono::milliseconds(pstOptions->ulLengthMs);
        plan.partBytes = pstOptions->ullBytes;
        plan.overwrite = pstOptions->ulOverwrite != 0;
        plan.call = pstOptions->pfnWhole;
        plan.user = pstOptions->pvUser;
        return port.record(pszFile, plan);
    });
}

ZR_ULONG ZR_MediaPortRecording(ZR_ULONG ulPortID)
{
    return withPort("recording", ulPortID, [](MediaPort &port) { return port.recording(); });
}

ZR_ULONG ZR_MediaPortSnapshot(ZR_ULONG ulPortID, const char *pszFile, ZR_ULONG ulTimeoutMs)
{
    return withPort("picture", ulPortID, [=](MediaPort &port) {
        return pszFile == nullptr ? refuse(ZR_MEDIA_INVALID, "picture", ulPortID, "no file")
                                  : port.snapshot(pszFile, std::chrono::milliseconds(ulTimeoutMs));
    });
}

ZR_ULONG ZR_MediaPortShow(ZR_ULONG ulPortID, ZR_ULONG ulHow, ZR_PICTURE_CALLBACK pfnCallback, void *pvUser)
{
    return withPort("show", ulPortID, [=](MediaPort &port) {
        if (ulHow == ZR_SHOW_NOTHING)
        {
            return port.endShow();
        }
        if (pfnCallback == nullptr || ulHow > ZR_SHOW_WINDOW)
        {
            return refuse(ZR_MEDIA_INVALID, "show", ulPortID, "no callback, or not known how");
        }
        return port.show(ulHow == ZR_SHOW_WINDOW ? ZR_MEDIA_KIND_WINDOW : ZR_MEDIA_KIND_SHOW, {pfnCallback, pvUser});
    });
}

ZR_ULONG ZR_MediaPortStatistics(ZR_ULONG ulPortID, ZrMediaStatistics *pstOut)
{
    return withPort("statistics", ulPortID, [=](MediaPort &port) -> ZR_ULONG {
        if (pstOut == nullptr)
        {
            return refuse(ZR_MEDIA_INVALID, "statistics", ulPortID, "null");
        }
        port.statistics(*pstOut);
        return 0;
    });
}

ZR_ULONG ZR_MediaPortReplay(ZR_ULONG ulPortID, ZrReplayFacts *pstOut)
{
    return withPort("replay", ulPortID, [=](MediaPort &port) {
        return pstOut == nullptr ? refuse(ZR_MEDIA_INVALID, "replay", ulPortID, "null") : port.replay(*pstOut);
    });
}

ZR_ULONG ZR_MediaPortTrackStatistics(ZR_ULONG ulPortID, ZR_ULONG ulTrack, ZrTrackStatistics *pstOut)
{
    return withPort("statistics", ulPortID, [=](MediaPort &port) -> ZR_ULONG {
        if (pstOut == nullptr)
        {
            return refuse(ZR_MEDIA_INVALID, "statistics", ulPortID, "null");
        }
        return port.trackStatistics(ulTrack, *pstOut) ? 0U : ZR_ULONG{ZR_MEDIA_NO_TRACK};
    });
}

ZR_ULONG ZR_MediaPortClose(ZR_ULONG ulPortID)
{
    const std::shared_ptr<MediaPort> port = take(ulPortID);
    if (port == nullptr)
    {
        return refuse(ZR_MEDIA_UNKNOWN_PORT, "close", ulPortID, "it is not open");
    }
    port->close();
    return 0;
}
