#include "TessarinEngine/EnvelopeCache.h"

#include "tests/support/TestSupport.h"

#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using TestSupport::TempDir;

namespace {

void setTimes(const std::filesystem::path& file, double accessed, double modified) {
    auto ts = [](double t) {
        timespec s{};
        s.tv_sec = static_cast<time_t>(std::floor(t));
        s.tv_nsec = static_cast<long>((t - std::floor(t)) * 1e9);
        return s;
    };
    timespec both[2] = {ts(accessed), ts(modified)};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), both, 0), 0);
}

// A file of the given size without writing its bytes.
void makeSparse(const std::filesystem::path& file, std::int64_t size) {
    int fd = ::open(file.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    ::close(fd);
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
    std::uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

// Points the cache at a folder of its own for one test and restores it afterwards.
class CacheFolder {
public:
    explicit CacheFolder(std::filesystem::path dir) : previous_(EnvelopeCache::cacheDir()) {
        EnvelopeCache::setCacheDir(std::move(dir));
    }
    ~CacheFolder() { EnvelopeCache::setCacheDir(previous_); }

private:
    std::filesystem::path previous_;
};

constexpr double kNow = 1800000000.0;
constexpr double kWeek = 604800.0;

} // namespace

TEST(EnvelopeCache, KeyIsDjb2OfPathSizeAndWholeSecondMtime) {
    TempDir dir;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    TestSupport::writeText("probe.wav", "");
    setTimes("probe.wav", 1700000000.9, 1700000000.9);
    // Worked out by hand: djb2 over "probe.wav|0|1700000000".
    EXPECT_EQ(EnvelopeCache::cacheKey("probe.wav"), "6e5941bf2b22d8e9");
    TestSupport::writeText("probe.wav", "abc");
    setTimes("probe.wav", 1700000000.0, 1700000000.0);
    EXPECT_EQ(EnvelopeCache::cacheKey("probe.wav"), "7073f114bdfcf10c");
    std::filesystem::current_path(previous);
}

TEST(EnvelopeCache, KeyChangesWithPathSizeAndTouchButNotWithinTheSecond) {
    TempDir dir;
    TestSupport::writeText(dir / "a.wav", "1234");
    TestSupport::writeText(dir / "b.wav", "1234");
    setTimes(dir / "a.wav", 1700000000.1, 1700000000.1);
    setTimes(dir / "b.wav", 1700000000.1, 1700000000.1);
    auto a = EnvelopeCache::cacheKey(dir / "a.wav");
    ASSERT_TRUE(a);
    EXPECT_EQ(a->size(), 16u);
    EXPECT_EQ(a->find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(a, EnvelopeCache::cacheKey(dir / "b.wav"));
    setTimes(dir / "a.wav", 1700000000.8, 1700000000.8);
    EXPECT_EQ(a, EnvelopeCache::cacheKey(dir / "a.wav"));
    setTimes(dir / "a.wav", 1700000001.0, 1700000001.0);
    EXPECT_NE(a, EnvelopeCache::cacheKey(dir / "a.wav"));
    setTimes(dir / "a.wav", 1700000000.1, 1700000000.1);
    TestSupport::writeText(dir / "a.wav", "12345");
    setTimes(dir / "a.wav", 1700000000.1, 1700000000.1);
    EXPECT_NE(a, EnvelopeCache::cacheKey(dir / "a.wav"));
    EXPECT_FALSE(EnvelopeCache::cacheKey(dir / "missing.wav"));
}

TEST(EnvelopeCache, FeatureFilesRoundTripAndMatchTheLayout) {
    TempDir dir;
    CacheFolder folder(dir / "cache" / "nested");
    TestSupport::writeText(dir / "clip.wav", "media");
    SpectralBands::Feature f({{1.5f, -2.0f}, {0.25f, 3.0f}}, 2);
    EnvelopeCache::saveBands(dir / "clip.wav", f);

    auto key = *EnvelopeCache::cacheKey(dir / "clip.wav");
    std::ifstream in(dir / "cache" / "nested" / (key + ".bands"), std::ios::binary);
    std::vector<std::uint8_t> onDisk((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(onDisk, bytesOf({6, 2, 2, bitsOf(1.5f), bitsOf(-2.0f), bitsOf(0.25f), bitsOf(3.0f)}));

    auto loaded = EnvelopeCache::loadBands(dir / "clip.wav");
    ASSERT_TRUE(loaded);
    EXPECT_EQ(*loaded, f);

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
    auto withTail = bytesOf({6, 1, 2, bitsOf(1.0f), bitsOf(2.0f), 99});
    const Case cases[] = {
        {"empty", {}, false},
        {"short header", bytesOf({6, 8}), false},
        {"older version", bytesOf({5, 1, 1, 0}), false},
        {"truncated band", bytesOf({6, 2, 2, 0, 0, 0}), false},
        {"huge counts", bytesOf({6, 0xFFFFFFFF, 0xFFFFFFFF, 0}), false},
        {"no bands", bytesOf({6, 0, 7}), true},
        {"trailing bytes ignored", withTail, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto f = EnvelopeCache::decodeBands(c.bytes);
        EXPECT_EQ(f.has_value(), c.hit);
    }
    auto noBands = EnvelopeCache::decodeBands(bytesOf({6, 0, 7}));
    EXPECT_EQ(noBands->bandCount(), 0u);
    EXPECT_EQ(noBands->frames, 7);

    TempDir dir;
    CacheFolder folder(dir.path());
    TestSupport::writeText(dir / "clip.wav", "media");
    EXPECT_FALSE(EnvelopeCache::loadBands(dir / "clip.wav")); // no entry yet
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

TEST(EnvelopeCache, PruneRemovesEntriesOlderThanAWeek) {
    TempDir dir;
    CacheFolder folder(dir.path());
    TestSupport::writeText(dir / "old", "12345");
    TestSupport::writeText(dir / "atCutoff", "1");
    TestSupport::writeText(dir / "fresh", "1");
    setTimes(dir / "old", kNow - kWeek - 1, kNow);
    setTimes(dir / "atCutoff", kNow - kWeek, kNow - 3 * kWeek);
    setTimes(dir / "fresh", kNow - 10, kNow - 10);

    TestSupport::LogCapture log;
    auto r = EnvelopeCache::prune(kNow);
    EXPECT_EQ(r.removed, 1);
    EXPECT_EQ(r.bytesFreed, 5);
    EXPECT_FALSE(std::filesystem::exists(dir / "old"));
    EXPECT_TRUE(std::filesystem::exists(dir / "atCutoff"));
    EXPECT_TRUE(std::filesystem::exists(dir / "fresh"));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], "[Cache] pruned 1 entry (0 MB) \u2014 older than 7 days or over the "
                              "2 GB ceiling");

    // Nothing left to prune: nothing logged.
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 0);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(EnvelopeCache, PruneKeepsTwoGibibytesAndDropsLeastRecentlyUsedBeyond) {
    TempDir dir;
    CacheFolder folder(dir.path());
    const std::int64_t gib = 1LL << 30;
    makeSparse(dir / "a", gib);
    makeSparse(dir / "b", gib);
    setTimes(dir / "a", kNow - 100, kNow - 100);
    setTimes(dir / "b", kNow - 50, kNow - 50);
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 0); // exactly 2 GiB stays

    makeSparse(dir / "c", 1);
    setTimes(dir / "c", kNow - 10, kNow - 10);
    setTimes(dir / "a", kNow - 100, kNow - 100);
    setTimes(dir / "b", kNow - 50, kNow - 50);
    TestSupport::LogCapture log;
    auto r = EnvelopeCache::prune(kNow);
    EXPECT_EQ(r.removed, 1);
    EXPECT_EQ(r.bytesFreed, gib);
    EXPECT_FALSE(std::filesystem::exists(dir / "a"));
    EXPECT_TRUE(std::filesystem::exists(dir / "b"));
    EXPECT_TRUE(std::filesystem::exists(dir / "c"));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("pruned 1 entry (1024 MB)"), std::string::npos);
}

TEST(EnvelopeCache, PruneCountsEntriesInThePlural) {
    TempDir dir;
    CacheFolder folder(dir.path());
    for (const char* name : {"x", "y"}) {
        TestSupport::writeText(dir / name, "1");
        setTimes(dir / name, kNow - 2 * kWeek, kNow - 2 * kWeek);
    }
    TestSupport::LogCapture log;
    EXPECT_EQ(EnvelopeCache::prune(kNow).removed, 2);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("pruned 2 entries"), std::string::npos);
}
