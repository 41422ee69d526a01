/// @file
/// The plug-in, loaded as a host does that was not built with it.
#pragma once

#include <string>

#include "zr_rtsp/zr_rtsp.h"

namespace zr::host {

/// Loads and starts the plug-in; ends it when destroyed. The objects made by it must be deleted before.
class Plugin
{
public:
    /// @param path  the library; empty: beside the program, in ../lib, or where the system looks for libraries
    /// @throws Failure  when it cannot be loaded, is no such plug-in, or does not start
    explicit Plugin(const std::string &path);
    ~Plugin();
    Plugin(const Plugin &) = delete;
    Plugin &operator=(const Plugin &) = delete;

    decltype(&::createMediaCtrlInter) create = nullptr;
    decltype(&::deleteMediaCtrlInter) remove = nullptr;

private:
    void resolve();

    void *m_library;
    decltype(&::init) m_init = nullptr;
    decltype(&::destroy) m_destroy = nullptr;
};

} // namespace zr::host
