#include "TessarinEngine/platform/Files.h"
#include "TessarinEngineCLI/Events.h"
#include "TessarinTimeline/TimelineCommand.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

int main(int argc, char** argv) {
    const auto cl = TimelineCommand::parse(std::vector<std::string>(argv + 1, argv + argc));
    for (const auto& message : cl.messages) {
        Events::eprint(message);
    }
    if (!cl.options) {
        Events::eprint(std::string(TimelineCommand::kUsageText));
        return 1;
    }
    const auto& options = *cl.options;

    std::optional<std::string> events;
    if (options.useStdin) {
        std::ios::sync_with_stdio(false);
        events = Files::readAll(std::cin);
    } else if (std::error_code ec; !std::filesystem::is_directory(*options.inputPath, ec)) {
        // Any file that opens for reading will do, pipes included.
        std::ifstream in(*options.inputPath, std::ios::binary);
        if (in) {
            events = Files::readAll(in);
        }
    }
    if (!events) {
        Events::eprint("tessarin-timeline: cannot read " + (options.useStdin
                                                                ? std::string("standard input")
                                                                : options.inputPath->string()));
        return 1;
    }
    return TimelineCommand::run(options, *events, Events::eprint);
}
