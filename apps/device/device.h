/// @file
/// The demo device: an RTSP server that behaves as a camera with a recorder.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pipelines.h"

namespace zr::device {

enum class Authentication
{
    Basic, ///< RFC 2617, section 2
    Digest ///< RFC 2617, section 3, MD5
};

struct DeviceOptions
{
    std::string address = "127.0.0.1"; ///< numeric, of this machine
    int port = 0;                      ///< 0: a free one
    std::string user;                  ///< empty: everybody may come in
    std::string password;
    Authentication authentication = Authentication::Digest;
    std::string certificate;   ///< PEM file, its issuers behind it; empty: plain RTSP, else RTSP over TLS alone
    std::string key;           ///< its private key, PEM
    int sessionTimeout = 60;   ///< seconds without a sign of life until a session ends, 5 s more at most
    int recordingSeconds = 24; ///< length of /vod
    std::string replayFrom;    ///< when it was recorded, YYYYMMDDThhmmssZ, for /replay; empty: that is not served
    Picture picture;
};

/// Serves /live (video and audio), /video (video alone) and /vod (a seekable recording); if asked to also /replay, the
/// video of that recording as an ONVIF recorder replays it.
///
/// /live and /video are one pipeline each that all clients share; /vod is one for each client, who has a position of
/// its own. /video exists because a live mount of two streams refuses its second PLAY when only one was set up.
///
/// All of it runs on the thread that calls run, and on threads of the server library.
class Device
{
public:
    /// Makes the recording and listens.
    /// @throws std::runtime_error  what failed: the certificate, the recording, its time or the address, and why
    explicit Device(const DeviceOptions &options);
    ~Device();

    /// The URLs it serves, without credentials.
    std::vector<std::string> urls() const;

    /// Serves until SIGINT or SIGTERM, then closes every connection.
    void run();

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};

} // namespace zr::device
