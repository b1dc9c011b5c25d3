// kelipc version: the version kelipc was compiled as and the version of the libKelIpc it has loaded.

#include <KelIpcDefine.h>
#include <KelIpcVersion.h>

#include <cstdio>
#include <cstring>

#include "Commands.h"

int VersionMain(int argc, char** argv) {
    if (argc == 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
        std::printf(
            "usage: kelipc version\n       kelipc --version\n\n"
            "Prints the version of kelipc and of the libKelIpc it runs with; they differ when the program\n"
            "finds another library than the one it was built with.\n\n"
            "options:\n  %-22s %s\n\nexit codes: 0 success, 1 failure, 2 usage error\n",
            "--help", "this text");
        return kExitOk;
    }
    if (argc > 1) {
        std::fprintf(stderr, "kelipc version: unexpected argument '%s'; see kelipc version --help\n",
                     argv[1]);
        return kExitUsage;
    }
    std::printf("kelipc %s\nlibKelIpc %s\n", KELIPC_VERSION_STRING, KelIpcVersion());
    return kExitOk;
}
