/// @file
/// The route registry: where the far side of a pair of user agents (UAs) is reached.
#pragma once

#include <string>

#include "zr_types.h"

/// Any thread.
class ZR_PLATFORM_API CRouteMgr
{
public:
    /// Registers the address of a UA pair; the same pair and address are counted.
    /// @return 0, else a code
    static ZR_ULONG addUAAddr(const std::string &strSrcUaID, const std::string &strDstUaID, const std::string &strIP,
                              ZR_USHORT usPort);
    /// Takes one registration of the pair back.
    /// @return 0; a code when the pair is not registered
    static ZR_ULONG deleteUAAddr(const std::string &strSrcUaID, const std::string &strDstUaID);
};
