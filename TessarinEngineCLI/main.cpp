#include "TessarinEngine/BRAWAudio.h"
#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngine/platform/Files.h"
#include "TessarinEngineCLI/Events.h"
#include "TessarinEngineCLI/Pipeline.h"
#include "TessarinEngineCLI/Request.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace {

std::optional<std::string> readAll(std::istream& in) {
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) {
        return std::nullopt;
    }
    return buffer.str();
}

std::optional<std::string> readFile(const std::string& path) {
    if (!Files::isRegularFile(path)) {
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    return readAll(in);
}

} // namespace

int main(int argc, char** argv) {
    EngineLog::sink() = Events::eprint;
    EnvelopeCache::setCacheDir(Files::userCacheDirectory() / "TessarinEngineCLI");
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EnvelopeCache::prune(now);

    const auto cl = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    for (const auto& message : cl.messages) {
        Events::eprint(message);
    }
    switch (cl.action) {
    case CommandLine::Action::brawStatus:
        std::fputs((BRAWAudio::availabilityNote() + "\n").c_str(), stdout);
        std::fflush(stdout);
        return BRAWAudio::isAvailable() ? 0 : 3;
    case CommandLine::Action::missingPath:
        return 1;
    case CommandLine::Action::usage:
        Events::eprint(std::string(kUsageText));
        return 1;
    case CommandLine::Action::run:
        break;
    }

    std::optional<std::string> bytes;
    if (cl.useStdin) {
        std::ios::sync_with_stdio(false);
        bytes = readAll(std::cin);
    } else {
        bytes = readFile(*cl.inputPath);
        if (!bytes) {
            Events::eprint(std::string(kUsageText));
            return 1;
        }
    }

    auto request = bytes ? decodeRequest(*bytes) : std::nullopt;
    if (!request) {
        Events::emit(ErrorEvent{std::nullopt, "Could not parse request JSON"});
        return 1;
    }
    return Pipeline::runPipeline(*request, Events::emit) ? 0 : 1;
}
