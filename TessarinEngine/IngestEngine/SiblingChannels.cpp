#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/IngestEngine/Helpers.h"
#include "TessarinEngine/platform/Regex.h"

#include <cmath>
#include <map>

using namespace IngestHelpers;

namespace {

constexpr double kLengthTolerance = 0.1;
constexpr double kClockTolerance = 1.0;
// Below this a clock is a file date or a container guess, which copying can shift by far more
// than the tolerance; such clocks never rule a twin out.
constexpr ClockQuality kTrustedClock = ClockQuality::filename;

// The parts of a clip that decide whether another clip is its twin, prepared once.
struct ChannelFacts {
    std::string stem;
    std::string name;
    double duration = 0;
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
};

ChannelFacts factsOf(const ClipItem& clip) {
    return {IngestEngine::channelStem(clip.url), baseName(clip.url), clip.duration,
            clip.recordingDate, clip.clockQuality};
}

bool areTwins(const ChannelFacts& c, const ChannelFacts& x) {
    if (x.stem != c.stem || x.name == c.name) {
        return false;
    }
    if (std::abs(x.duration - c.duration) > kLengthTolerance) {
        return false;
    }
    if (!c.date || !x.date || c.quality < kTrustedClock || x.quality < kTrustedClock) {
        return true;
    }
    return std::abs(*x.date - *c.date) <= kClockTolerance;
}

std::optional<std::size_t> twinIn(const ChannelFacts& c, const std::vector<ChannelFacts>& track) {
    for (std::size_t i = 0; i < track.size(); ++i) {
        if (areTwins(c, track[i])) {
            return i;
        }
    }
    return std::nullopt;
}

// 90 % of `count`, rounded up, in whole numbers; at least 1.
std::size_t nineTenths(std::size_t count) {
    return std::max<std::size_t>((9 * count + 9) / 10, 1);
}

// What `channelStem` cut off the clip's name ("_Tr2"), or "" for a name it left whole.
std::string channelSuffix(const ChannelFacts& c) {
    return c.name.substr(c.stem.size());
}

} // namespace

std::string IngestEngine::channelStem(const std::filesystem::path& url) {
    static const Regex::Pattern channelSuffix("_[^_]+$");
    const std::string name = baseName(url);
    const auto match = channelSuffix.firstMatch(name);
    // The suffix runs to the end of the name, so its start follows from its length.
    if (!match || match->front().size() >= name.size()) {
        return name;
    }
    return name.substr(0, name.size() - match->front().size());
}

std::optional<std::size_t> IngestEngine::twin(const ClipItem& clip, const TrackSource& track) {
    std::vector<ChannelFacts> facts;
    facts.reserve(track.clips.size());
    for (const auto& x : track.clips) {
        facts.push_back(factsOf(x));
    }
    return twinIn(factsOf(clip), facts);
}

std::vector<TrackSource> IngestEngine::detectSiblingChannels(std::vector<TrackSource> sources) {
    std::vector<std::size_t> candidates;
    for (std::size_t si = 0; si < sources.size(); ++si) {
        const auto& t = sources[si];
        if (t.type == SourceType::audio && !t.siblingOf && !t.clips.empty()) {
            candidates.push_back(si);
        }
    }
    if (candidates.size() <= 1) {
        return sources;
    }

    std::map<std::size_t, std::vector<ChannelFacts>> facts;
    for (auto si : candidates) {
        for (const auto& clip : sources[si].clips) {
            facts[si].push_back(factsOf(clip));
        }
    }
    auto areChannels = [&](std::size_t i, std::size_t j) {
        if (sources[i].session != sources[j].session) {
            return false;
        }
        const std::size_t need = nineTenths(std::max(facts[i].size(), facts[j].size()));
        std::size_t count = 0;
        for (const auto& c : facts[j]) {
            if (twinIn(c, facts[i])) {
                ++count;
            }
        }
        return count >= need;
    };

    // Union-find over positions in `candidates`.
    std::vector<std::size_t> parent(candidates.size());
    std::iota(parent.begin(), parent.end(), std::size_t{0});
    auto find = [&](std::size_t i) {
        std::size_t root = i;
        while (parent[root] != root) {
            root = parent[root];
        }
        while (parent[i] != root) {
            i = std::exchange(parent[i], root);
        }
        return root;
    };
    for (std::size_t a = 0; a < candidates.size(); ++a) {
        for (std::size_t b = a + 1; b < candidates.size(); ++b) {
            const std::size_t ra = find(a);
            const std::size_t rb = find(b);
            if (ra != rb && areChannels(candidates[a], candidates[b])) {
                parent[rb] = ra;
            }
        }
    }

    std::vector<std::vector<std::size_t>> sets;
    std::map<std::size_t, std::size_t> setOfRoot;
    for (std::size_t a = 0; a < candidates.size(); ++a) {
        auto [it, fresh] = setOfRoot.try_emplace(find(a), sets.size());
        if (fresh) {
            sets.emplace_back();
        }
        sets[it->second].push_back(candidates[a]);
    }

    for (const auto& members : sets) {
        if (members.size() < 2) {
            continue;
        }
        std::size_t lead = members.front();
        for (std::size_t k = 1; k < members.size(); ++k) {
            const auto& m = sources[members[k]];
            const auto& l = sources[lead];
            if (m.clips.size() > l.clips.size() ||
                (m.clips.size() == l.clips.size() && Collation::compare(m.name, l.name) < 0)) {
                lead = members[k];
            }
        }
        for (auto si : members) {
            if (si == lead) {
                continue;
            }
            auto& member = sources[si];
            member.siblingOf = sources[lead].id;
            int twins = 0;
            for (std::size_t ci = 0; ci < member.clips.size(); ++ci) {
                if (auto x = twinIn(facts[si][ci], facts[lead])) {
                    member.clips[ci].siblingLeaderID = sources[lead].clips[*x].id;
                    ++twins;
                }
            }
            EngineLog::log("[Ingest] '" + member.name + "' is a channel of '" + sources[lead].name +
                           "': " + std::to_string(twins) + "/" +
                           std::to_string(member.clips.size()) +
                           " clips share stem, length and clock — will follow it instead of "
                           "matching");
        }
    }
    return sources;
}

std::vector<TrackSource> IngestEngine::splitChannelTracks(std::vector<TrackSource> sources) {
    std::vector<TrackSource> out;
    out.reserve(sources.size());
    for (auto& track : sources) {
        if (track.type != SourceType::audio || track.siblingOf || track.clips.size() < 2) {
            out.push_back(std::move(track));
            continue;
        }
        std::vector<ChannelFacts> facts;
        facts.reserve(track.clips.size());
        for (const auto& clip : track.clips) {
            facts.push_back(factsOf(clip));
        }
        // Clips with a twin, and the most channel files of one take. A clip's own entry never
        // counts: a file of the very same name is no twin.
        std::size_t twinned = 0;
        std::size_t channels = 1;
        for (const auto& c : facts) {
            const auto twins = static_cast<std::size_t>(std::count_if(
                facts.begin(), facts.end(), [&](const auto& x) { return areTwins(c, x); }));
            twinned += twins > 0 ? 1 : 0;
            channels = std::max(channels, twins + 1);
        }
        // Channel groups in natural order of their suffixes, so "_2" comes before "_10" and the
        // first group, which takes the clips without a suffix, is the lowest channel.
        std::map<std::string, std::vector<std::size_t>> bySuffix;
        for (std::size_t ci = 0; ci < facts.size(); ++ci) {
            const std::string suffix = channelSuffix(facts[ci]);
            if (!suffix.empty()) {
                bySuffix[Collation::sortKey(suffix)].push_back(ci);
            }
        }
        // The suffixes must name channels that recur from take to take. In "TASCAM_0001S12" the
        // take number is part of the suffix, and a track per file would tie nothing together.
        if (twinned < nineTenths(track.clips.size()) || bySuffix.size() < 2 ||
            bySuffix.size() > channels) {
            out.push_back(std::move(track));
            continue;
        }
        for (std::size_t ci = 0; ci < facts.size(); ++ci) {
            if (channelSuffix(facts[ci]).empty()) {
                bySuffix.begin()->second.push_back(ci);
            }
        }

        std::vector<std::string> names;
        for (const auto& t : out) {
            names.push_back(t.name);
        }
        for (const auto& t : sources) {
            if (&t != &track) {
                names.push_back(t.name);
            }
        }
        std::string summary;
        for (auto& [key, members] : bySuffix) {
            std::sort(members.begin(), members.end());
            // The group's own suffix is that of its first clip with one.
            const auto named = std::find_if(members.begin(), members.end(), [&](std::size_t ci) {
                return !channelSuffix(facts[ci]).empty();
            });
            TrackSource part;
            part.name = uniqueName(track.name + " " + channelSuffix(facts[*named]).substr(1),
                                   track.type, names);
            names.push_back(part.name);
            part.type = track.type;
            part.session = track.session;
            part.deviceName = track.deviceName;
            for (auto ci : members) {
                part.clips.push_back(track.clips[ci]);
            }
            summary +=
                (summary.empty() ? "" : ", ") + part.name + "=" + std::to_string(part.clips.size());
            out.push_back(recomputeOffsets(std::move(part)));
        }
        EngineLog::log(
            "[Ingest] channel-split '" + track.name + "': " + std::to_string(twinned) + "/" +
            std::to_string(track.clips.size()) +
            " clips have a channel twin in the track — one track per channel: " + summary);
    }
    return out;
}
