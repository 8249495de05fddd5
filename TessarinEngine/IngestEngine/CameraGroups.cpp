#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/IngestEngine/Helpers.h"

#include <map>

using namespace IngestHelpers;

namespace {

// Cameras skip numbers for deleted or failed clips; a larger jump is another card's numbering.
constexpr std::int64_t kLargestNumberGap = 32;

bool continues(const TrackSource& prev, const TrackSource& cur) {
    if (prev.clips.empty() || cur.clips.empty()) {
        return false;
    }
    const auto last = IngestEngine::clipNumericKey(prev.clips.back().url);
    const auto first = IngestEngine::clipNumericKey(cur.clips.front().url);
    return last && first && last->prefix == first->prefix && first->num > last->num &&
           first->num - last->num <= kLargestNumberGap;
}

CameraGroupProposal proposalOf(const std::vector<TrackSource>& sources,
                               const std::vector<std::size_t>& cluster,
                               const std::string& session) {
    CameraGroupProposal p;
    p.session = session;
    for (auto si : cluster) {
        p.trackIDs.push_back(sources[si].id);
        p.trackNames.push_back(sources[si].name);
        p.clipCount += static_cast<int>(sources[si].clips.size());
    }
    const auto& first = sources[cluster.front()];
    const auto key =
        first.clips.empty() ? std::nullopt : IngestEngine::clipNumericKey(first.clips.front().url);
    p.filenamePrefix = key ? key->prefix : "?";
    for (std::size_t k = 0; k + 1 < cluster.size(); ++k) {
        const auto& a = sources[cluster[k]];
        const auto& b = sources[cluster[k + 1]];
        if (a.clips.empty() || b.clips.empty()) {
            continue;
        }
        if (!p.sequenceHint.empty()) {
            p.sequenceHint += ", ";
        }
        p.sequenceHint += baseName(a.clips.back().url) + " → " + baseName(b.clips.front().url);
    }
    return p;
}

} // namespace

std::vector<CameraGroupProposal>
IngestEngine::detectCameraGroups(const std::vector<TrackSource>& sources) {
    std::vector<std::string> sessions;
    std::map<std::string, std::vector<std::size_t>> bySession;
    for (std::size_t si = 0; si < sources.size(); ++si) {
        if (sources[si].type != SourceType::video) {
            continue;
        }
        auto [it, fresh] = bySession.try_emplace(sources[si].session);
        if (fresh) {
            sessions.push_back(sources[si].session);
        }
        it->second.push_back(si);
    }

    std::vector<CameraGroupProposal> proposals;
    for (const auto& session : sessions) {
        auto indices = bySession[session];
        if (indices.size() < 2) {
            continue;
        }
        std::vector<std::optional<OrderKey>> firstClip;
        for (auto si : indices) {
            firstClip.push_back(sources[si].clips.empty()
                                    ? std::nullopt
                                    : std::optional<OrderKey>(sources[si].clips.front().url));
        }
        std::vector<std::size_t> order(indices.size());
        std::iota(order.begin(), order.end(), std::size_t{0});
        std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            if (firstClip[a] && firstClip[b]) {
                return firstClip[a]->before(*firstClip[b]);
            }
            return indices[a] < indices[b];
        });

        std::vector<std::size_t> cluster;
        auto flushCluster = [&] {
            if (cluster.size() >= 2) {
                proposals.push_back(proposalOf(sources, cluster, session));
            }
            cluster.clear();
        };
        for (auto k : order) {
            const std::size_t cur = indices[k];
            if (!cluster.empty() && !continues(sources[cluster.back()], sources[cur])) {
                flushCluster();
            }
            cluster.push_back(cur);
        }
        flushCluster();
    }
    return proposals;
}

std::vector<TrackSource>
IngestEngine::applyCameraGroups(std::vector<TrackSource> sources,
                                const std::vector<CameraGroupProposal>& proposals,
                                const std::set<Uuid>& accepted) {
    int counter = 0;
    for (const auto& p : proposals) {
        if (!accepted.contains(p.id)) {
            continue;
        }
        std::vector<std::size_t> members;
        for (const auto& id : p.trackIDs) {
            for (std::size_t si = 0; si < sources.size(); ++si) {
                if (sources[si].id == id) {
                    members.push_back(si);
                    break;
                }
            }
        }
        if (members.size() < 2) {
            continue;
        }
        const std::string label = "cam-" + std::to_string(counter++);
        for (auto si : members) {
            sources[si].cameraGroup = label;
        }
        std::string names;
        for (const auto& name : p.trackNames) {
            names += (names.empty() ? "" : ", ") + name;
        }
        EngineLog::log("[Ingest] camera group '" + label + "': " + names + " (" +
                       std::to_string(p.clipCount) + " clips, prefix=" + p.filenamePrefix + ")");
    }
    return sources;
}

std::vector<TrackSource> IngestEngine::assignCameraGroups(std::vector<TrackSource> sources) {
    const auto proposals = detectCameraGroups(sources);
    std::set<Uuid> accepted;
    for (const auto& p : proposals) {
        accepted.insert(p.id);
    }
    return applyCameraGroups(std::move(sources), proposals, accepted);
}
