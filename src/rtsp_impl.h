/// @file
/// What the module holds once for all objects.
#pragma once

#include <atomic>

#include "zr_msg_dispatch.h"

/// The message-dispatch interface; NULL until init succeeded. Written by init, read by every object.
extern std::atomic<CIAOIMsgDisp *> g_pAOIMsgDispInter;
