/// @file
/// What the dispatcher's operations return and log when they refuse or give up.
#pragma once

#include "zr_types.h"

namespace zr::dispatch {

enum : ZR_ULONG
{
    codeInvalidArgument = 2,
    codeNoResources = 3,
    codeNotStarted = 20001,    ///< before ZR_MSGDISP_Init or after the last ZR_MSGDISP_Destroy
    codeInUse = 20002,         ///< the registration identifier is taken
    codeNotRegistered = 20003, ///< no such registration identifier
    codeNoRoute = 20004,       ///< the UA pair has no address
    codeAmbiguousRoute = 20005,
    codeTooManyRequests = 20006,
    codeTimedOut = 20007,
    codeConnection = 20008, ///< the connection failed, was lost, or was closed by a limit
    codeProtocol = 20009,   ///< the server sent what has no place here
    codeDropped = 20010,
};

/// RTSP statuses that the platform gives itself, or judges (RFC 2326, 11; RFC 9110, 15).
enum : ZR_ULONG
{
    statusOk = 200,
    statusBadRequest = 400,
    statusUnauthorized = 401,
    statusForbidden = 403,
    statusMethodNotAllowed = 405,
    statusUnsupportedMediaType = 415,
    statusSessionNotFound = 454,
    statusUnsupportedTransport = 461,
    statusNotImplemented = 501,
    statusBadGateway = 502,
    statusServiceUnavailable = 503,
};

} // namespace zr::dispatch
