#include "TessarinEngine/BRAWAudio.h"
#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngine/platform/Files.h"
#include "TessarinEngineCLI/Events.h"
#include "TessarinEngineCLI/Pipeline.h"
#include "TessarinEngineCLI/Request.h"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace {

int runRequest(const CommandLine& cl) {
    std::optional<std::string> bytes;
    if (cl.useStdin) {
        std::ios::sync_with_stdio(false);
        bytes = Files::readAll(std::cin);
    } else {
        bytes = Files::readToEnd(*cl.inputPath);
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
    return Pipeline::runPipeline(*request, Events::emit, {cl.refine}) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    // A launcher may start us with standard output closed; the first cache file opened would
    // then take its number and receive the events.
    Files::openStandardDescriptors();
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

    try {
        return runRequest(cl);
    } catch (const Events::WriteFailed& e) {
        // Nothing can reach the front end any more; a run that ends here must not look finished.
        Events::eprint(std::string("Could not write events: ") + e.what());
        return 1;
    }
}
