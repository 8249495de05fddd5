#include "TessarinTimeline/TimelineCommand.h"

#include "TessarinTimeline/EventStream.h"
#include "TessarinTimeline/MltProject.h"
#include "TessarinTimeline/OtioDocument.h"
#include "TessarinTimeline/TimelinePicture.h"
#include "TessarinTimeline/platform/OutputFile.h"

#include <system_error>

namespace {

struct Output {
    std::filesystem::path path;
    std::string (*write)(const Timeline&);
};

std::vector<Output> outputsOf(const TimelineOptions& o) {
    std::vector<Output> outputs;
    if (o.mlt) {
        outputs.push_back({*o.mlt, MltProject::write});
    }
    if (o.otio) {
        outputs.push_back({*o.otio, OtioDocument::write});
    }
    if (o.svg) {
        outputs.push_back({*o.svg, TimelinePicture::write});
    }
    return outputs;
}

} // namespace

namespace TimelineCommand {

TimelineCommandLine parse(const std::vector<std::string>& args) {
    TimelineCommandLine cl;
    TimelineOptions o;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        std::optional<std::filesystem::path>* target = nullptr;
        if (arg == "--input") {
            target = &o.inputPath;
        } else if (arg == "--mlt") {
            target = &o.mlt;
        } else if (arg == "--otio") {
            target = &o.otio;
        } else if (arg == "--svg") {
            target = &o.svg;
        } else if (arg == "--stdin") {
            o.useStdin = true;
        } else if (arg == "--force") {
            o.force = true;
        } else {
            cl.messages.push_back("Unknown argument: " + arg);
        }
        if (target) {
            if (i + 1 == args.size() || args[i + 1].empty()) {
                cl.messages.push_back(arg + " requires a path");
                return cl;
            }
            *target = args[++i];
        }
    }
    const auto outputs = outputsOf(o);
    if ((!o.useStdin && !o.inputPath) || outputs.empty()) {
        return cl;
    }
    for (std::size_t a = 0; a < outputs.size(); ++a) {
        for (std::size_t b = a + 1; b < outputs.size(); ++b) {
            if (outputs[a].path.lexically_normal() == outputs[b].path.lexically_normal()) {
                cl.messages.push_back("One file cannot take two outputs: " +
                                      outputs[a].path.string());
                return cl;
            }
        }
    }
    cl.options = o;
    return cl;
}

int run(const TimelineOptions& options, std::string_view events,
        const std::function<void(const std::string&)>& say) {
    const std::string source = options.useStdin ? "standard input" : options.inputPath->string();
    auto read = EventStream::readTimeline(events);
    if (auto* fault = std::get_if<StreamFault>(&read)) {
        say("tessarin-timeline: " + source + ": " + fault->message + "; nothing written");
        return 1;
    }
    const auto& timeline = std::get<Timeline>(read);

    const auto outputs = outputsOf(options);
    if (!options.force) {
        bool refused = false;
        for (const auto& out : outputs) {
            std::error_code ec;
            if (std::filesystem::exists(std::filesystem::symlink_status(out.path, ec))) {
                say("tessarin-timeline: " + out.path.string() +
                    " already exists; --force replaces it");
                refused = true;
            }
        }
        if (refused) {
            say("tessarin-timeline: nothing written");
            return 1;
        }
    }
    for (const auto& out : outputs) {
        if (auto failure = OutputFile::writeWhole(out.path, out.write(timeline), options.force)) {
            say("tessarin-timeline: " + *failure);
            return 1;
        }
        say("Wrote " + out.path.string());
    }
    return 0;
}

} // namespace TimelineCommand
