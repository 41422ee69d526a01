// What runs a target: libFuzzer, or the main function below, which runs the inputs in a folder once.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "fuzz.h"
#include "log_line.h"
#include "zr_common.h"

/// What is logged is written out and thrown away: no text of the far side may begin a line of its own.
void CZRWriteLog::writeLog(tagZrLogLevel /*enLevel*/, ZR_ULONG ulCode, ZR_ULONG ulModule, const char *pszFile,
                           int iLine, const char *pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    const std::string line = zr::common::formatLogLine(ulCode, ulModule, pszFile, iLine, pszFormat, arguments);
    va_end(arguments);
    assert(line.find_first_of("\r\n") == std::string::npos);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace zr::fuzz;
    static const std::map<std::string, void (*)(Input)> targets = {
        {"parser", parser},       {"answer", answer},    {"sdp", sdp},
        {"elements", elements},   {"tunnel", tunnel},    {"url", url},
        {"challenge", challenge}, {"hand_off", handOff}, {"media", media},
        {"metadata", metadata},   {"masking", masking}};
    static const char *const name = std::getenv("ZR_FUZZ_TARGET");
    static const auto target = targets.find(name == nullptr ? "" : name);
    assert(target != targets.end() && "ZR_FUZZ_TARGET names a target");
    target->second({{reinterpret_cast<const char *>(data), size}});
    return 0;
}

#ifndef ZR_LIBFUZZER
int main(int argc, char **argv)
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : ""))
    {
        std::fprintf(stderr, "%s\n", entry.path().c_str());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        count += 1 + LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    return count > 0 ? 0 : 1;
}
#endif
