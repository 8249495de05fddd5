// A helper of the accuracy benchmark, not a timing: what the audio alone allows. For each pair of
// clips that truly share audio it searches the shorter clip's band features, whole, against the
// longer one's over every offset, and reports the best peak, which the benchmark compares with the
// true offset. No placement rule takes part.
//
// Reads {"pairs": [{"a": path, "b": path, "minOverlap": seconds, "lo": s, "hi": s}, ...]} on
// standard input (lo and hi, optional, bound a's start relative to b's) and writes one JSON object
// per pair on standard output: {"a", "b", "offset", "score"}, where offset is a's start relative to
// b's (null when nothing was found or a clip has no features).

#include "TessarinEngine/AudioExtractor.h"
#include "TessarinEngine/SpectralBands.h"

#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

using nlohmann::json;

namespace {

const SpectralBands::Feature* featureOf(const std::string& path,
                                        std::map<std::string, SpectralBands::Feature>& features) {
    auto it = features.find(path);
    if (it == features.end()) {
        SpectralBands::Feature feature;
        try {
            feature = SpectralBands::compute(AudioExtractor::extract(path, 0, {}).samples);
        } catch (const std::exception& e) {
            std::cerr << path << ": " << e.what() << "\n";
        }
        it = features.emplace(path, feature).first;
    }
    return it->second.frames >= 5 ? &it->second : nullptr;
}

} // namespace

int main() {
    const json request = json::parse(std::cin);
    std::map<std::string, SpectralBands::Feature> features;
    constexpr double kOpen = std::numeric_limits<double>::infinity();
    for (const auto& pair : request.at("pairs")) {
        const std::string a = pair.at("a");
        const std::string b = pair.at("b");
        json out = {{"a", a}, {"b", b}, {"offset", nullptr}, {"score", nullptr}};
        const auto* fa = featureOf(a, features);
        const auto* fb = featureOf(b, features);
        // The reference must be strictly longer than the clip searched in it.
        if (fa != nullptr && fb != nullptr && fa->frames != fb->frames) {
            const bool aInB = fa->frames < fb->frames;
            const double lo = pair.value("lo", -kOpen);
            const double hi = pair.value("hi", kOpen);
            const auto found =
                SpectralBands::peaks(aInB ? *fa : *fb, aInB ? *fb : *fa, aInB ? lo : -hi,
                                     aInB ? hi : -lo, pair.value("minOverlap", 5.0), 1, 0.5);
            if (!found.empty()) {
                out["offset"] = aInB ? found[0].offsetSeconds : -found[0].offsetSeconds;
                out["score"] = found[0].score;
            }
        }
        std::cout << out.dump() << "\n";
    }
    return 0;
}
