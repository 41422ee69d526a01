/// @file
/// What goes over the wire, told to a host that asks for it (ZR_TraceSet).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "zr_platform.h"

namespace zr::dispatch {

/// Whether somebody wants to know. Apart from the trace, so that it costs one load while nobody does.
inline std::atomic<bool> traceIsOn{false};

/// What is told of one connection. On the loop's turn. Nothing waits here, and nothing is called: a thread of the
/// trace's own takes it from there. What there is no memory for is not told.
class WireTap
{
public:
    /// @param session  the identifier of the session's object
    explicit WireTap(ZR_ULONG session)
        : m_session(session)
    {
    }

    ZR_ULONG session() const { return m_session; }
    /// Where the parser is to keep what messages look like; null: nobody wants to see it.
    std::string *raw() { return isOn() ? keptRaw() : nullptr; }

    void connected(const std::string &address, unsigned port, const std::string &tls)
    {
        if (isOn())
            note(ZR_TRACE_CONNECTED, address + ":" + std::to_string(port) + (tls.empty() ? "" : ", " + tls));
    }
    void closed(const std::string &reason) { tell(ZR_TRACE_CLOSED, reason); }
    void sent(std::string_view message) { tell(ZR_TRACE_SENT, message); }
    /// What no parser has kept: a head of HTTP.
    void heard(tagZrTraceKind kind, std::string_view head) { tell(kind, head); }
    /// The message, or what came of it, is what the parser has kept.
    void received(tagZrTraceKind kind = ZR_TRACE_RECEIVED)
    {
        if (isOn())
            noteRaw(kind);
    }
    void frameReceived(size_t size)
    {
        if (isOn())
            countFrame(false, size);
    }
    void frameSent(size_t size)
    {
        if (isOn())
            countFrame(true, size);
    }

private:
    struct Counts
    {
        std::string raw;
        uint64_t framesReceived = 0;
        uint64_t framesSent = 0;
        uint64_t frameBytes = 0;
    };

    static bool isOn() { return traceIsOn.load(std::memory_order_relaxed); }
    void tell(tagZrTraceKind kind, std::string_view text)
    {
        if (isOn())
            note(kind, text);
    }
    Counts &counts();
    std::string *keptRaw() noexcept;
    void note(tagZrTraceKind kind, std::string_view text) noexcept;
    void noteRaw(tagZrTraceKind kind) noexcept;
    void countFrame(bool sent, size_t size) noexcept;

    const ZR_ULONG m_session;
    std::unique_ptr<Counts> m_counts; ///< since the last that was told; none before the first
};

} // namespace zr::dispatch
