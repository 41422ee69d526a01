#include "plugin.h"

#include <filesystem>

#include <dlfcn.h>

#include "failure.h"

namespace zr::host {
namespace {

Failure notLoaded(const std::string &why)
{
    return {ExitCode::Internal, "loading the plug-in", 0, why, "name its file with --plugin"};
}

std::string dlerrorText()
{
    const char *text = dlerror(); // NOLINT(concurrency-mt-unsafe): glibc keeps it per thread
    return text == nullptr ? "unknown error" : text;
}

// libraries stand where a build or an installation puts them, seen from the program
std::string findPlugin()
{
    std::error_code ignored;
    const auto programs = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    for (const auto &folder : {programs, programs / ".." / "lib"})
    {
        const auto file = folder / ZR_PLUGIN_FILE;
        if (std::filesystem::exists(file, ignored))
        {
            return file.string();
        }
    }
    return ZR_PLUGIN_FILE;
}

template <typename Function>
void find(void *library, const char *name, Function &function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function == nullptr)
    {
        throw notLoaded(std::string("it has no ") + name);
    }
}

} // namespace

Plugin::Plugin(const std::string &path)
    : m_library(dlopen((path.empty() ? findPlugin() : path).c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (m_library == nullptr)
    {
        throw notLoaded(dlerrorText());
    }
    try
    {
        resolve();
    }
    catch (...)
    {
        dlclose(m_library);
        throw;
    }
}

void Plugin::resolve()
{
    find(m_library, "init", m_init);
    find(m_library, "destroy", m_destroy);
    find(m_library, "createMediaCtrlInter", create);
    find(m_library, "deleteMediaCtrlInter", remove);
    const ZR_ULONG result = m_init(0, 0, nullptr, nullptr);
    if (result != 0)
    {
        throw requestFailed("starting the plug-in", result);
    }
}

Plugin::~Plugin()
{
    m_destroy();
    dlclose(m_library);
}

} // namespace zr::host
