// kelipc version: the version kelipc was compiled as and the version of the libKelIpc it has loaded.

#include <KelIpcDefine.h>
#include <KelIpcVersion.h>
#include <CLI/CLI.hpp>

#include <cstdio>

#include "common/Commands.h"

int PrintVersions() {
    std::printf("kelipc %s\nlibKelIpc %s\n", KELIPC_VERSION_STRING, KelIpcVersion());
    return kExitOk;
}

CommandRun SetupVersion(CLI::App& command) {
    command.footer(
        "Prints the version of kelipc and of the libKelIpc it runs with (also 'kelipc --version'); they\n"
        "differ when the program finds another library than the one it was built with.");
    return PrintVersions;
}
