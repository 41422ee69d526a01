// A host outside of the project: linked to the plug-in, or (LOADED) with no more than its headers and dlopen.

#include <cstdio>
#include <string>

#include "zr_rtsp/zr_rtsp.h"

#ifdef LOADED
#include <dlfcn.h>

template <typename Function>
Function *entry(void *library, const char *name, Function *)
{
    return reinterpret_cast<Function *>(dlsym(library, name));
}
#endif

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    const std::string url = std::string("rtsp://127.0.0.1:") + argv[1];
#ifdef LOADED
    void *const library = dlopen(argv[2], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
    {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto init = entry(library, "init", static_cast<decltype(::init) *>(nullptr));
    const auto destroy = entry(library, "destroy", static_cast<decltype(::destroy) *>(nullptr));
    const auto create = entry(library, "createMediaCtrlInter", static_cast<decltype(createMediaCtrlInter) *>(nullptr));
    const auto remove = entry(library, "deleteMediaCtrlInter", static_cast<decltype(deleteMediaCtrlInter) *>(nullptr));
#else
    const auto create = &createMediaCtrlInter;
    const auto remove = &deleteMediaCtrlInter;
#endif
    const ZR_ULONG started = init(0, 0, nullptr, nullptr);
    CIMediaCtrl *session =
        create(1, "consumer", "device", "127.0.0.1", 0, "127.0.0.1", static_cast<ZR_USHORT>(std::stoul(argv[1])), 1);
    session->setDecoderDesc("onvif");
    const ZR_ULONG missing = session->describe(url + "/missing");
    const ZR_ULONG described = session->describe(url + "/video");
    const ZR_ULONG setUp = session->setup(url + "/video/stream=0", PROTOCOL_TCP);
    const ZR_ULONG played = session->play("", "");
    session->tearDown();
    const ZR_ULONG deleted = remove(&session);
    destroy();
    std::printf("init %u, missing %u, describe %u, setup %u, play %u, delete %u\n", started, missing, described, setUp,
                played, deleted);
}
