#include "TessarinEngine/SpectralBands/BlockSpectra.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <list>
#include <unordered_map>

namespace SpectralBands {

namespace {

constexpr std::size_t kDefaultCacheBudget = std::size_t{128} << 20;

// Beyond this many entries the table's upkeep would start to cost more than it saves.
constexpr std::size_t kMaxCacheEntries = 1024;

constexpr std::size_t kMinBlockSize = 2048;

std::size_t splitStride(std::size_t bins) {
    return (bins + 15) / 16 * 16;
}

// The references' block spectra, keyed by band storage and block layout, least recently used first
// out. An entry only watches its feature (weak ownership), so a dead feature's address cannot be
// mistaken for a new one's while the entry exists.
class SpectrumCache {
public:
    // The block spectra for `ref` in `layout`, shared with the table; they may still need
    // making (see BlockSpectra::made). Nothing when they would not fit in the budget.
    std::shared_ptr<BlockSpectra> find(const Feature& ref, BlockLayout layout, std::size_t bytes) {
        const Key key{ref.bands.get(), layout.size, layout.hop};
        std::lock_guard<std::mutex> guard(lock_);
        if (auto found = index_.find(key); found != index_.end()) {
            if (!found->second->owner.expired()) {
                recent_.splice(recent_.begin(), recent_, found->second);
                return found->second->spectra;
            }
            erase(found->second);
        }
        dropExpired();
        if (bytes > budget_) {
            return nullptr;
        }
        while (!recent_.empty() &&
               (bytes_ + bytes > budget_ || recent_.size() >= kMaxCacheEntries)) {
            erase(std::prev(recent_.end()));
        }
        auto spectra = std::make_shared<BlockSpectra>();
        recent_.push_front(Entry{key, ref.bands, spectra, bytes});
        index_.emplace(key, recent_.begin());
        bytes_ += bytes;
        return spectra;
    }

    SpectrumCacheUsage usage() {
        std::lock_guard<std::mutex> guard(lock_);
        dropExpired();
        return {recent_.size(), bytes_};
    }

    std::size_t setBudget(std::size_t bytes) {
        std::lock_guard<std::mutex> guard(lock_);
        const std::size_t previous = budget_;
        budget_ = bytes;
        while (!recent_.empty() && bytes_ > budget_) {
            erase(std::prev(recent_.end()));
        }
        return previous;
    }

private:
    struct Key {
        const Feature::Bands* bands;
        std::size_t blockSize;
        std::size_t hop;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const {
            return std::hash<const void*>()(k.bands) ^
                   ((k.blockSize * 31 + k.hop) * 0x9e3779b97f4a7c15ull);
        }
    };
    struct Entry {
        Key key;
        std::weak_ptr<const Feature::Bands> owner;
        std::shared_ptr<BlockSpectra> spectra;
        std::size_t bytes;
    };

    // Callers still using an erased entry's spectra keep them alive until they return.
    void erase(std::list<Entry>::iterator entry) {
        bytes_ -= entry->bytes;
        index_.erase(entry->key);
        recent_.erase(entry);
    }

    void dropExpired() {
        for (auto entry = recent_.begin(); entry != recent_.end();) {
            auto next = std::next(entry);
            if (entry->owner.expired()) {
                erase(entry);
            }
            entry = next;
        }
    }

    std::mutex lock_;
    std::list<Entry> recent_;
    std::unordered_map<Key, std::list<Entry>::iterator, KeyHash> index_;
    std::size_t bytes_ = 0;
    std::size_t budget_ = kDefaultCacheBudget;
};

SpectrumCache& spectrumCache() {
    static SpectrumCache cache;
    return cache;
}

} // namespace

// Blocks of at least twice the clip, so that the clip's autocorrelation fits one without wrapping
// round. The hop is as long as the clip allows, in sixteenths of a block, so that clips of similar
// lengths share one layout of a reference.
BlockLayout blockLayoutFor(int clipFrames) {
    const auto clip = static_cast<std::size_t>(clipFrames);
    const std::size_t size = std::max(kMinBlockSize, std::bit_ceil(2 * clip));
    const std::size_t step = size / 16;
    return {size, size / 2 + (size / 2 + 1 - clip) / step * step};
}

std::size_t blockCount(int refFrames, std::size_t hop) {
    return (static_cast<std::size_t>(refFrames) - 1) / hop + 2;
}

std::size_t blockSpectraBytes(std::size_t bandCount, BlockLayout layout, int refFrames) {
    const std::size_t bins = layout.size / 2 + 1;
    return bandCount * (blockCount(refFrames, layout.hop) * 2 * splitStride(bins) + bins) *
           sizeof(float);
}

void makeBlockSpectra(BlockSpectra& out, const Feature& ref, BlockLayout layout,
                      const Fft::Setup& setup) {
    const std::size_t size = layout.size;
    const std::size_t hop = layout.hop;
    const std::size_t reach = size - hop;
    const std::size_t bins = setup.spectrumSize();
    const std::size_t blocks = blockCount(ref.frames, hop);
    const std::size_t stride = splitStride(bins);
    const auto frames = static_cast<std::int64_t>(ref.frames);

    std::vector<std::vector<float>> blockSpectra;
    std::vector<std::vector<float>> autocorrelationSpectra;
    Fft::RealBuffer segment(size);
    Fft::ComplexBuffer whole(bins);
    Fft::ComplexBuffer head(bins);
    Fft::ComplexBuffer cross(bins);
    for (std::size_t i = 0; i < ref.bandCount(); ++i) {
        const auto& band = ref.band(i);
        // Loads `count` frames of the reference from `from` on, zeros outside it and after them.
        auto load = [&](std::int64_t from, std::size_t count) {
            std::fill(segment.begin(), segment.end(), 0.0f);
            const std::int64_t first = std::max<std::int64_t>(from, 0);
            const std::int64_t last = std::min(from + static_cast<std::int64_t>(count), frames);
            if (first < last) {
                std::copy(band.begin() + first, band.begin() + last,
                          segment.begin() + (first - from));
            }
        };
        std::vector<float> split(blocks * 2 * stride, 0.0f);
        std::fill(cross.begin(), cross.end(), std::complex<float>());
        for (std::size_t j = 0; j < blocks; ++j) {
            const auto from = (static_cast<std::int64_t>(j) - 1) * static_cast<std::int64_t>(hop);
            load(from, size);
            setup.forward(segment, whole);
            float* re = split.data() + 2 * j * stride;
            float* im = re + stride;
            for (std::size_t m = 0; m < bins; ++m) {
                re[m] = whole[m].real();
                im[m] = whole[m].imag();
            }
            // Each block against its own first hop sums, over all blocks, to the reference's
            // autocorrelation at lags 0 ... reach: every frame starts exactly one such product.
            if (from + static_cast<std::int64_t>(hop) <= 0) {
                continue;
            }
            load(from, hop);
            setup.forward(segment, head);
            for (std::size_t m = 0; m < bins; ++m) {
                const float wr = whole[m].real(), wi = whole[m].imag();
                const float hr = head[m].real(), hi = head[m].imag();
                cross[m] += std::complex<float>(wr * hr + wi * hi, wi * hr - wr * hi);
            }
        }
        setup.inverse(cross, segment);
        const float scale = 1.0f / static_cast<float>(size);
        for (std::size_t d = 0; d <= reach; ++d) {
            segment[d] *= scale;
        }
        for (std::size_t t = reach + 1; t < size - reach; ++t) {
            segment[t] = 0.0f;
        }
        for (std::size_t d = 1; d <= reach && d < size - reach; ++d) {
            segment[size - d] = segment[d];
        }
        setup.forward(segment, whole);
        std::vector<float> autocorrelation(bins);
        for (std::size_t m = 0; m < bins; ++m) {
            autocorrelation[m] = whole[m].real();
        }
        blockSpectra.push_back(std::move(split));
        autocorrelationSpectra.push_back(std::move(autocorrelation));
    }
    out.blocks = blocks;
    out.stride = stride;
    // Assigned whole at the end: if making them fails, the next caller starts from nothing.
    out.blockSpectra = std::move(blockSpectra);
    out.autocorrelationSpectra = std::move(autocorrelationSpectra);
}

// The innermost loops of the block search, on arrays that never overlap. Saying so lets the
// compiler vectorise them; they are kept out of line, since once inlined the promise is forgotten.

std::shared_ptr<BlockSpectra> keptBlockSpectra(const Feature& ref, BlockLayout layout,
                                               std::size_t bytes) {
    return spectrumCache().find(ref, layout, bytes);
}

SpectrumCacheUsage spectrumCacheUsage() {
    return spectrumCache().usage();
}

std::size_t setSpectrumCacheBudget(std::size_t bytes) {
    return spectrumCache().setBudget(bytes);
}

} // namespace SpectralBands
