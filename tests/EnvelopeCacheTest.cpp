#include "TessarinEngine/EnvelopeCache.h"

#include "tests/support/TestSupport.h"

#include <bit>
#include <chrono>
#include <cmath>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <set>
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

constexpr double kNow = 1800000000.0;
constexpr double kWeek = 604800.0;

} // namespace

TEST(EnvelopeCache, KeyIsFnv1aOfPathSizeAndNanosecondMtimeAndNeverShared) {
    TempDir dir;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    auto setModified = [](const char* file, std::int64_t seconds, long nanoseconds) {
        const timespec both[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, file, both, 0), 0);
    };
    // Worked out by hand: FNV-1a over "probe.wav|3|1700000000900000000".
    TestSupport::writeText("probe.wav", "abc");
    setModified("probe.wav", 1700000000, 900000000);
    EXPECT_EQ(EnvelopeCache::cacheKey("probe.wav"), "aa81bd52a9b3c92f");
    EXPECT_FALSE(EnvelopeCache::cacheKey("missing.wav"));
    // Names whose characters a multiply-and-add hash trades off against each other, with equal
    // sizes and times, and one file rewritten within the same second.
    TestSupport::writeText("Ab.wav", "abc");
    TestSupport::writeText("BA.wav", "xyz");
    setModified("Ab.wav", 1700000000, 0);
    setModified("BA.wav", 1700000000, 0);
    const auto before = EnvelopeCache::cacheKey("Ab.wav");
    EXPECT_NE(before, EnvelopeCache::cacheKey("BA.wav"));
    setModified("Ab.wav", 1700000000, 1);
    EXPECT_NE(before, EnvelopeCache::cacheKey("Ab.wav"));
    std::filesystem::current_path(previous);
}

TEST(EnvelopeCache, FeatureFilesRoundTripAndMatchTheLayout) {
    TempDir dir;
    TestSupport::ScopedCacheFolder folder(dir / "cache" / "nested");
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
    TestSupport::ScopedCacheFolder folder(dir / "blocker" /
                                          "cache"); // below a file: cannot be made
    TestSupport::writeText(dir / "clip.wav", "media");
    EnvelopeCache::saveBands(dir / "clip.wav", SpectralBands::Feature({{1.0f}}, 1));
    EnvelopeCache::saveEnvelope(dir / "clip.wav", {1.0f});
    EXPECT_FALSE(EnvelopeCache::loadBands(dir / "clip.wav"));
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 0);
}

TEST(EnvelopeCache, PruneDropsEntriesUnusedForAWeekThenLeastRecentlyUsedBeyondTwoGibibytes) {
    TempDir dir;
    TestSupport::ScopedCacheFolder folder(dir.path());
    // Sparse files: the sizes without the bytes. Last use is the access time, whatever the
    // modification time says.
    auto make = [&](const char* name, std::int64_t size, double used, double modified = kNow) {
        TestSupport::writeText(dir / name, "");
        std::filesystem::resize_file(dir / name, std::uintmax_t(size));
        setTimes(dir / name, used, modified);
    };
    const std::int64_t gib = 1LL << 30;
    const char* old = "00000000000000aa";
    const char* older = "00000000000000ab.bands";
    const char* a = "00000000000000ac.bands";
    const char* b = "00000000000000ad";
    const char* c = "00000000000000ae.bands";
    make(old, 3, kNow - kWeek - 1);
    make(older, 5, kNow - 3 * kWeek);
    make(a, gib, kNow - kWeek, kNow - 3 * kWeek); // used right at the cutoff
    make(b, gib, kNow - 50);

    auto r = EnvelopeCache::prune(kNow);
    EXPECT_EQ(r.removed, 2);
    EXPECT_EQ(r.bytesFreed, 8);
    EXPECT_FALSE(std::filesystem::exists(dir / old) || std::filesystem::exists(dir / older));
    EXPECT_TRUE(std::filesystem::exists(dir / a)) << "exactly 2 GiB stays";

    make(c, 1, kNow - 10);
    r = EnvelopeCache::prune(kNow);
    EXPECT_EQ(r.removed, 1);
    EXPECT_EQ(r.bytesFreed, gib);
    EXPECT_FALSE(std::filesystem::exists(dir / a));
    EXPECT_TRUE(std::filesystem::exists(dir / b) && std::filesystem::exists(dir / c));
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 0);
}

TEST(EnvelopeCache, WhatIsNotOurOwnFileIsAMissNeverWrittenThroughNorPruned) {
    TempDir dir;
    const auto cache = dir / "cache";
    TestSupport::ScopedCacheFolder folder(cache);
    TestSupport::writeText(dir / "clip.wav", "media");
    TestSupport::writeText(dir / "victim.wav", "a user's recording");
    const SpectralBands::Feature f({{1.5f, -2.0f}}, 2);
    const auto featureBytes = EnvelopeCache::encodeBands(f);
    TestSupport::writeText(dir / "feature.bands",
                           std::string(featureBytes.begin(), featureBytes.end()));
    const auto key = *EnvelopeCache::cacheKey(dir / "clip.wav");
    auto contents = [](const std::filesystem::path& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    };

    // What sits under both of the entry's names before the run reads and writes it.
    const std::pair<const char*, std::function<void(const std::filesystem::path&)>> cases[] = {
        {"link to a feature file",
         [&](const auto& at) {
             std::filesystem::create_symlink(dir / "feature.bands", at);
         }},
        {"folder",
         [](const auto& at) {
             std::filesystem::create_directory(at);
         }},
    };
    for (const auto& [what, plant] : cases) {
        SCOPED_TRACE(what);
        std::filesystem::remove_all(cache);
        std::filesystem::create_directories(cache);
        const auto bandsName = cache / (key + ".bands");
        plant(bandsName);
        plant(cache / key);
        EXPECT_FALSE(EnvelopeCache::loadBands(dir / "clip.wav"));
        EnvelopeCache::saveBands(dir / "clip.wav", f);
        EnvelopeCache::saveEnvelope(dir / "clip.wav", {0.5f});

        EXPECT_EQ(contents(dir / "feature.bands"),
                  std::string(featureBytes.begin(), featureBytes.end()));
        // The write replaced what was there, except a folder, which stays a miss; either way no
        // temporary file is left.
        const bool isFolder = std::string(what) == "folder";
        EXPECT_EQ(EnvelopeCache::loadBands(dir / "clip.wav").has_value(), !isFolder);
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(cache)) {
            names.insert(entry.path().filename().string());
            EXPECT_FALSE(entry.is_symlink() || entry.is_fifo()) << entry.path();
        }
        EXPECT_EQ(names, (std::set<std::string>{key, key + ".bands"}));
    }

    // The prune removes an old entry and an old temporary file, and leaves the user's note, a
    // link under an entry's name and what it points to.
    std::filesystem::remove_all(cache);
    std::filesystem::create_directories(cache);
    const double month = kNow - 30 * 86400.0;
    TestSupport::writeText(cache / "notes.txt", "mine");
    TestSupport::writeText(cache / "00000000000000aa.bands", "old entry");
    TestSupport::writeText(cache / "00000000000000ab.bands.tmp-x1Y2z3", "old partial write");
    std::filesystem::create_symlink(dir / "victim.wav", cache / "00000000000000ac.bands");
    for (const char* name :
         {"notes.txt", "00000000000000aa.bands", "00000000000000ab.bands.tmp-x1Y2z3"}) {
        setTimes(cache / name, month, month);
    }
    setTimes(dir / "victim.wav", month, month);
    const timespec linkTimes[2] = {{static_cast<time_t>(month), 0},
                                   {static_cast<time_t>(month), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (cache / "00000000000000ac.bands").c_str(), linkTimes,
                        AT_SYMLINK_NOFOLLOW),
              0);
    TestSupport::LogCapture log;
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 2);
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(cache)) {
        left.insert(entry.path().filename().string());
    }
    EXPECT_EQ(left, (std::set<std::string>{"notes.txt", "00000000000000ac.bands"}));
    EXPECT_EQ(contents(dir / "victim.wav"), "a user's recording");
}
