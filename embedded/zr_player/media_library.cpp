#include "media_library.h"

#include <mutex>
#include <string>

#include <dlfcn.h>

#include "media_file.h"
#include "platform_log.h"

namespace zr::media {

namespace {

constexpr const char *libraryName = ZR_MEDIA_LIBRARY_FILE;
constexpr int flags = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;

void writeLog(void *, int error, const char *text)
{
    if (error != 0)
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_UNAVAILABLE, Player, "%s", text);
    }
    else
    {
        ZR_PLATFORM_LOG(INFO, 0, Player, "%s", text);
    }
}

/// Looks beside this library first (or, where the platform is part of a program, in the folder of its libraries), then
/// where the loader looks. Never unloaded: GLib's types cannot be.
void *openLibrary(std::string &problem)
{
    Dl_info self{};
    void *handle = nullptr;
    if (dladdr(reinterpret_cast<const void *>(&openLibrary), &self) != 0 && self.dli_fname != nullptr)
    {
        const std::string path = self.dli_fname;
        const std::string folder = path.substr(0, path.rfind('/') + 1);
        for (const char *place : {"", "../lib/"})
        {
            handle =
                handle != nullptr || folder.empty() ? handle : dlopen((folder + place + libraryName).c_str(), flags);
        }
    }
    if (handle == nullptr)
    {
        handle = dlopen(libraryName, flags);
    }
    if (handle == nullptr)
    {
        const char *reason = dlerror(); // NOLINT(concurrency-mt-unsafe): glibc keeps it by thread
        problem = reason == nullptr ? libraryName : reason;
    }
    return handle;
}

} // namespace

const ZrMediaLibrary *mediaLibrary()
{
    static std::mutex mutex; // loads it once; the load itself is under it
    static const ZrMediaLibrary *library = nullptr;
    const std::lock_guard<std::mutex> lock(mutex);
    if (library != nullptr)
    {
        return library;
    }
    std::string problem;
    void *const handle = openLibrary(problem);
    const auto entry =
        handle == nullptr ? nullptr : reinterpret_cast<ZrMediaLibraryEntry>(dlsym(handle, ZR_MEDIA_LIBRARY_ENTRY));
    const ZrMediaLibrary *found = entry == nullptr ? nullptr : entry(&writeLog);
    if (found == nullptr || found->ulVersion != ZR_MEDIA_LIBRARY_VERSION)
    {
        ZR_PLATFORM_LOG(ERROR, ZR_MEDIA_UNAVAILABLE, Player, "no recordings and pictures: %s",
                        handle == nullptr  ? problem.c_str()
                        : found == nullptr ? "the media library cannot work here"
                                           : "the media library is of another version");
        return nullptr;
    }
    library = found;
    return library;
}

} // namespace zr::media
