#include "TessarinEngineCLI/Request.h"

#include <limits>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

// An integer token of the JSON text within 64 signed bits. "1.0" and "1e2" are written as
// numbers with a fraction or an exponent and are no integer tokens; the parser keeps larger
// integers as unsigned or floating values.
std::optional<std::int64_t> integerValue(const json& v) {
    if (v.is_number_unsigned()) {
        const auto u = v.get<std::uint64_t>();
        if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(u);
    }
    if (v.is_number_integer()) {
        return v.get<std::int64_t>();
    }
    return std::nullopt;
}

std::optional<std::string> requiredString(const json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

} // namespace

std::optional<Request> decodeRequest(std::string_view bytes) {
    json root = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (root.is_discarded() || !root.is_object()) {
        return std::nullopt;
    }
    Request request;

    auto version = root.find("version");
    if (version == root.end()) {
        return std::nullopt;
    }
    auto v = integerValue(*version);
    if (!v) {
        return std::nullopt;
    }
    request.version = *v;

    auto items = root.find("items");
    if (items == root.end() || !items->is_array()) {
        return std::nullopt;
    }
    for (const auto& item : *items) {
        if (!item.is_object()) {
            return std::nullopt;
        }
        auto path = requiredString(item, "path");
        auto hint = requiredString(item, "dropHint");
        if (!path || !hint) {
            return std::nullopt;
        }
        request.items.push_back({std::move(*path), std::move(*hint)});
    }

    auto carry = root.find("carryState");
    if (carry != root.end() && !carry->is_null()) {
        if (!carry->is_object()) {
            return std::nullopt;
        }
        auto sessions = carry->find("completeShootSessions");
        if (sessions != carry->end() && !sessions->is_null()) {
            if (!sessions->is_array()) {
                return std::nullopt;
            }
            for (const auto& s : *sessions) {
                if (!s.is_string()) {
                    return std::nullopt;
                }
                request.completeShootSessions.push_back(s.get<std::string>());
            }
        }
    }
    return request;
}

std::optional<RequestItem> resolveItem(const RequestItem& item,
                                       const std::filesystem::path& workingDirectory) {
    if (item.path.find('\0') != std::string::npos ||
        item.dropHint.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    // As a file URL made from a relative path: below the working directory, with "." and empty
    // components dropped ("" and "." name the directory itself).
    auto resolve = [&](const std::string& text) {
        const std::filesystem::path path(text);
        if (path.is_absolute()) {
            return text;
        }
        std::filesystem::path out;
        for (const auto& part : workingDirectory / path) {
            if (!part.empty() && part != ".") {
                out /= part;
            }
        }
        return out.string();
    };
    return RequestItem{resolve(item.path), resolve(item.dropHint)};
}

CommandLine parseCommandLine(const std::vector<std::string>& args) {
    CommandLine cl;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto& arg = args[i];
        if (arg == "--input") {
            if (i + 1 >= args.size()) {
                cl.messages.push_back("--input requires a path");
                cl.action = CommandLine::Action::missingPath;
                return cl;
            }
            cl.inputPath = args[++i];
        } else if (arg == "--stdin") {
            cl.useStdin = true;
        } else if (arg == "--refine") {
            cl.refine = true;
        } else if (arg == "--braw-status") {
            cl.action = CommandLine::Action::brawStatus;
            return cl;
        } else {
            cl.messages.push_back("Unknown argument: " + arg);
        }
    }
    cl.action =
        (cl.useStdin || cl.inputPath) ? CommandLine::Action::run : CommandLine::Action::usage;
    return cl;
}
