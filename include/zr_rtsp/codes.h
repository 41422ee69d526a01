/// @file
/// Status codes of the operations, states of a media-control object, and codes handed to observers.
#pragma once

#include "zr_types.h"

/// Results. A refused setup returns the server's RTSP status instead (RFC 2326, 11).
enum tagZrRtspStatus : ZR_ULONG
{
    ZR_RTSP_OK = 0,
    ZR_RTSP_FAILED = 1,
    ZR_RTSP_INVALID_PARAMETER = 2,
    ZR_RTSP_NO_MEMORY = 3,             ///< for an AOI message
    ZR_RTSP_NO_SOCKET = 4,             ///< for the hand-off of stream information
    ZR_RTSP_OBSERVER_ATTACHED = 10051, ///< already
    ZR_RTSP_OBSERVER_ABSENT = 10052,
    ZR_RTSP_LOCK_FAILED = 10109, ///< a lock could not be obtained, or an observer called what it may not
    ZR_RTSP_DISCARDED = 13002,
    ZR_RTSP_SIGNAL_FAILED = 13103,
    ZR_RTSP_SEND_FAILED = 13205,
    ZR_RTSP_REQUEST_SEND_FAILED = 13401, ///< DESCRIBE and PLAY
    ZR_RTSP_WRONG_STATE = 13402,
    ZR_RTSP_NO_SESSION = 13403,
    ZR_RTSP_SETUP_TIMEOUT = 13501, ///< logged; 13951 is returned
    ZR_RTSP_NO_ANSWER = 13503,     ///< DESCRIBE and PLAY
    ZR_RTSP_PLAY_REFUSED = 13504,
    ZR_RTSP_PAUSE_TIMEOUT = 13507, ///< logged; 13954 is returned
    ZR_RTSP_NO_DISPATCHER = 13601,
    ZR_RTSP_IE_UNREADABLE = 13803,
    ZR_RTSP_IE_NOT_ADDED = 13805,
    ZR_RTSP_SETUP_FAILED = 13951,
    ZR_RTSP_PLAY_FAILED = 13952,
    ZR_RTSP_PAUSE_FAILED = 13954,
    ZR_RTSP_DRAG_FAILED = 13955,
    ZR_RTSP_SPEED_PLAY_FAILED = 13956,
    ZR_RTSP_SPEED_CHANGE_FAILED = 13957, ///< also of a download
};

/// The protocol state of a media-control object; the numbers stand in its log lines.
enum tagMediaCtrlState : ZR_ULONG
{
    MEDIACTRL_STATE_IDLE = 0, ///< of a new object alone
    MEDIACTRL_STATE_SETUP_WAIT = 1,
    MEDIACTRL_STATE_SETUP_OK = 2,
    MEDIACTRL_STATE_SETUP_FAIL = 3,
    MEDIACTRL_STATE_PLAY_WAIT = 4,
    MEDIACTRL_STATE_PLAY_OK = 5,
    MEDIACTRL_STATE_PLAY_FAIL = 6,
    MEDIACTRL_STATE_PAUSE_WAIT = 10,
    MEDIACTRL_STATE_PAUSE_OK = 11,
    MEDIACTRL_STATE_PAUSE_FAIL = 12,
    MEDIACTRL_STATE_SUCCESS = 16, ///< described or set up
    MEDIACTRL_STATE_PLAY = 17,
    MEDIACTRL_STATE_PAUSE = 18,
};

/// What observers are told.
enum tagZrRtspNotice : ZR_ULONG
{
    ZR_RTSP_NOTICE_ENDED = 100,            ///< the server ended the session
    ZR_RTSP_NOTICE_END_OF_STREAM = 101,    ///< the end of the stream was reached
    ZR_RTSP_NOTICE_SERVER_RESOURCES = 102, ///< the server needs its resources, or was told to end the session
    ZR_RTSP_NOTICE_SILENT = 103,           ///< neither media nor answers for too long
    ZR_RTSP_NOTICE_CONNECTION_LOST = 104,  ///< of a session that had played
    ZR_RTSP_NOTICE_ONVIF_LOST = 105,       ///< the same, of an ONVIF session
    ZR_RTSP_NOTICE_ENDED_GUOBIAO = 106,    ///< as 100, for a "guobiao" session
};
