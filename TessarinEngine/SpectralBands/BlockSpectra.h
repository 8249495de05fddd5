#pragma once

#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/platform/Fft.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

// What the feature computation, the band search and the table of kept reference spectra share.
// Private to SpectralBands.
namespace SpectralBands {

constexpr double kFrameRate = 25.0;
constexpr std::size_t kBandCount = 8;
constexpr int kMinFrames = 5;
// Below these a band, or a search range, is too flat to normalise.
constexpr float kFlatRms = 1e-9f;
constexpr double kFlatSpread = 1e-6;

// A reference cut into overlapping blocks for overlap-save correlation against clips of up to
// size - hop + 1 frames: block j holds `size` frames of the reference from (j - 1) * hop on (zeros
// outside the reference). Correlated circularly with such a clip, block j gives the exact lags
// (j - 1) * hop ... j * hop - 1. Made once, by whichever caller gets there first; read-only
// afterwards.
struct BlockSpectra {
    std::once_flag made;
    std::size_t blocks = 0;
    // Split form for the multiply-accumulate loop: per band, block j's real parts start at
    // 2 j stride and its imaginary parts at (2 j + 1) stride.
    std::size_t stride = 0;
    std::vector<std::vector<float>> blockSpectra;
    // Per band, the (real) spectrum of its autocorrelation at lags -(size - hop) ... size - hop,
    // laid out on the circle of one block. With it a clip band's correlation energy over all lags
    // is one dot product with the clip's power spectrum.
    std::vector<std::vector<float>> autocorrelationSpectra;
};

struct BlockLayout {
    std::size_t size;
    std::size_t hop;
};

// Blocks of at least twice the clip, so that the clip's autocorrelation fits one without wrapping
// round. The hop is as long as the clip allows, in sixteenths of a block, so that clips of similar
// lengths share one layout of a reference.
BlockLayout blockLayoutFor(int clipFrames);

// How many blocks a reference of `refFrames` frames takes at `hop`.
std::size_t blockCount(int refFrames, std::size_t hop);

// What the block spectra of such a reference cost the table.
std::size_t blockSpectraBytes(std::size_t bandCount, BlockLayout layout, int refFrames);

// Fills `out` for `ref`: what a caller does once, under BlockSpectra::made.
void makeBlockSpectra(BlockSpectra& out, const Feature& ref, BlockLayout layout,
                      const Fft::Setup& setup);

// The kept block spectra of `ref` in `layout`, shared with the table; they may still need making
// (see BlockSpectra::made). Nothing when `bytes` more would not fit in the table's budget.
std::shared_ptr<BlockSpectra> keptBlockSpectra(const Feature& ref, BlockLayout layout,
                                               std::size_t bytes);

} // namespace SpectralBands
