#include "TessarinEngine/EnvelopeCache.h"

#include "tests/support/TestSupport.h"

#include <bit>
#include <cmath>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

using TestSupport::TempDir;

namespace {

void setTimes(const std::filesystem::path& file, double accessed, double modified) {
    auto ts = [](double t) {
        return timespec{static_cast<time_t>(std::floor(t)),
                        static_cast<long>((t - std::floor(t)) * 1e9)};
    };
    const timespec both[2] = {ts(accessed), ts(modified)};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), both, 0), 0);
}

std::vector<std::uint8_t> bytesOf(std::initializer_list<std::uint32_t> words) {
    std::vector<std::uint8_t> out;
    for (auto w : words) {
        for (int i = 0; i < 4; ++i) {
            out.push_back(static_cast<std::uint8_t>(w >> (8 * i)));
        }
    }
    return out;
}

std::uint32_t bitsOf(float f) {
    return std::bit_cast<std::uint32_t>(f);
}

// Points the cache at a folder of its own for one test and restores it afterwards.
struct CacheFolder {
    std::filesystem::path previous = EnvelopeCache::cacheDir();
    explicit CacheFolder(const std::filesystem::path& dir) { EnvelopeCache::setCacheDir(dir); }
    ~CacheFolder() { EnvelopeCache::setCacheDir(previous); }
};

constexpr double kNow = 1800000000.0;
constexpr double kWeek = 604800.0;

} // namespace

TEST(EnvelopeCache, KeyIsDjb2OfPathSizeAndWholeSecondMtime) {
    TempDir dir;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    // Worked out by hand: djb2 over "probe.wav|3|1700000000", the time cut to whole seconds.
    TestSupport::writeText("probe.wav", "abc");
    setTimes("probe.wav", 1700000000.9, 1700000000.9);
    EXPECT_EQ(EnvelopeCache::cacheKey("probe.wav"), "7073f114bdfcf10c");
    EXPECT_FALSE(EnvelopeCache::cacheKey("missing.wav"));
    std::filesystem::current_path(previous);
}

TEST(EnvelopeCache, FeatureFilesRoundTripAndMatchTheLayout) {
    TempDir dir;
    CacheFolder folder(dir / "cache" / "nested");
    TestSupport::writeText(dir / "clip.wav", "media");
    EXPECT_FALSE(EnvelopeCache::loadBands(dir / "clip.wav")); // no entry yet
    SpectralBands::Feature f({{1.5f, -2.0f}, {0.25f, 3.0f}}, 2);
    EnvelopeCache::saveBands(dir / "clip.wav", f);

    const auto key = *EnvelopeCache::cacheKey(dir / "clip.wav");
    std::ifstream in(dir / "cache" / "nested" / (key + ".bands"), std::ios::binary);
    std::vector<std::uint8_t> onDisk((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(onDisk, bytesOf({6, 2, 2, bitsOf(1.5f), bitsOf(-2.0f), bitsOf(0.25f), bitsOf(3.0f)}));
    EXPECT_EQ(EnvelopeCache::loadBands(dir / "clip.wav"), f);

    EXPECT_EQ(EnvelopeCache::serialize({}, {0.5f, 2.0f}),
              bytesOf({4, 0, 2, bitsOf(0.5f), bitsOf(2.0f)}));
    EXPECT_EQ(EnvelopeCache::serialize({1.0f}, {}), bytesOf({4, 1, bitsOf(1.0f), 0}));
}

TEST(EnvelopeCache, DamagedOrForeignFilesAreMisses) {
    struct Case {
        const char* what;
        std::vector<std::uint8_t> bytes;
        bool hit;
    };
    const Case cases[] = {
        {"short header", bytesOf({6, 8}), false},
        {"older version", bytesOf({5, 1, 1, 0}), false},
        {"truncated band", bytesOf({6, 2, 2, 0, 0, 0}), false},
        {"frames beyond int", bytesOf({6, 1, 0x80000000, 0}), false},
        // Thousands of empty bands would pass the size test and cost memory for nothing.
        {"many bands of no frames", bytesOf({6, 2000, 0}), false},
        {"no bands", bytesOf({6, 0, 7}), true},
        {"trailing bytes ignored", bytesOf({6, 1, 2, bitsOf(1.0f), bitsOf(2.0f), 99}), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(EnvelopeCache::decodeBands(c.bytes).has_value(), c.hit);
    }
    EXPECT_EQ(EnvelopeCache::decodeBands(bytesOf({6, 0, 7}))->frames, 7);
}

TEST(EnvelopeCache, UnwritableFolderCostsNothingButTheEntry) {
    TempDir dir;
    TestSupport::writeText(dir / "blocker", "a regular file");
    CacheFolder folder(dir / "blocker" / "cache"); // below a file: cannot be made
    TestSupport::writeText(dir / "clip.wav", "media");
    EnvelopeCache::saveBands(dir / "clip.wav", SpectralBands::Feature({{1.0f}}, 1));
    EnvelopeCache::saveEnvelope(dir / "clip.wav", {1.0f});
    EXPECT_FALSE(EnvelopeCache::loadBands(dir / "clip.wav"));
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 0);
}

TEST(EnvelopeCache, PruneDropsEntriesUnusedForAWeekThenLeastRecentlyUsedBeyondTwoGibibytes) {
    TempDir dir;
    CacheFolder folder(dir.path());
    // Sparse files: the sizes without the bytes. Last use is the access time, whatever the
    // modification time says.
    auto make = [&](const char* name, std::int64_t size, double used, double modified = kNow) {
        TestSupport::writeText(dir / name, "");
        std::filesystem::resize_file(dir / name, std::uintmax_t(size));
        setTimes(dir / name, used, modified);
    };
    const std::int64_t gib = 1LL << 30;
    make("old", 3, kNow - kWeek - 1);
    make("older", 5, kNow - 3 * kWeek);
    make("a", gib, kNow - kWeek, kNow - 3 * kWeek); // used right at the cutoff
    make("b", gib, kNow - 50);
    TestSupport::LogCapture log;
    auto r = EnvelopeCache::prune(kNow);
    EXPECT_EQ(r.removed, 2);
    EXPECT_EQ(r.bytesFreed, 8);
    EXPECT_FALSE(std::filesystem::exists(dir / "old") || std::filesystem::exists(dir / "older"));
    EXPECT_TRUE(std::filesystem::exists(dir / "a")) << "exactly 2 GiB stays";

    make("c", 1, kNow - 10);
    r = EnvelopeCache::prune(kNow);
    EXPECT_EQ(r.removed, 1);
    EXPECT_EQ(r.bytesFreed, gib);
    EXPECT_FALSE(std::filesystem::exists(dir / "a"));
    EXPECT_TRUE(std::filesystem::exists(dir / "b") && std::filesystem::exists(dir / "c"));
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "[Cache] pruned 2 entries (0 MB) \u2014 older than 7 days or over "
                               "the 2 GB ceiling",
                               "[Cache] pruned 1 entry (1024 MB) \u2014 older than 7 days or over "
                               "the 2 GB ceiling"}));
}
