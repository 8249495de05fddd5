#include "TessarinEngine/EnvelopeCache.h"
#include "tests/support/MediaFixtures.h"
#include "tests/support/RiffWriter.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using TestSupport::runEngine;
using TestSupport::TempDir;

namespace {

struct Snapshot {
    struct Item {
        char kind = 'f';
        std::uintmax_t size = 0;
        std::int64_t mtimeNs = 0;
        std::uint64_t checksum = 0;
        bool operator==(const Item&) const = default;
    };
    std::map<std::string, Item> items;
};

std::uint64_t fnv1a(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::uint64_t h = 1469598103934665603ULL;
    char buf[65536];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        for (std::streamsize i = 0; i < in.gcount(); ++i) {
            h = (h ^ static_cast<unsigned char>(buf[i])) * 1099511628211ULL;
        }
    }
    return h;
}

// Every entry below a folder with its kind, size, modification time and content checksum.
Snapshot snapshot(const std::filesystem::path& root) {
    Snapshot s;
    for (auto it = std::filesystem::recursive_directory_iterator(root);
         it != std::filesystem::recursive_directory_iterator(); ++it) {
        struct stat st {};
        ::lstat(it->path().c_str(), &st);
        Snapshot::Item item;
        item.kind = S_ISDIR(st.st_mode) ? 'd' : S_ISFIFO(st.st_mode) ? 'p' : 'f';
        item.size = S_ISREG(st.st_mode) ? static_cast<std::uintmax_t>(st.st_size) : 0;
        item.mtimeNs = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
        if (S_ISREG(st.st_mode)) {
            item.checksum = fnv1a(it->path());
        }
        s.items[std::filesystem::relative(it->path(), root).string()] = item;
    }
    return s;
}

std::map<std::string, nlohmann::json> resultsByPath(const TestSupport::EngineRun& run) {
    std::map<std::string, nlohmann::json> out;
    for (const auto& r : run.ofType("result")) {
        out[r["path"].get<std::string>()] = r;
    }
    return out;
}

// A small generated shoot: two cameras and a recorder in three folders, with request.json.
void makeShoot(const std::filesystem::path& dir) {
    auto r = TestSupport::makeShoot(dir, "small");
    ASSERT_EQ(r.exitCode, 0) << r.err;
}

void copyPrefix(const std::filesystem::path& from, const std::filesystem::path& to, double share) {
    std::ifstream in(from, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    bytes.resize(static_cast<std::size_t>(static_cast<double>(bytes.size()) * share));
    TestSupport::writeText(to, bytes);
}

void copyFlipped(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::ifstream in(from, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    // Every 997th byte past the first kilobyte: headers mostly survive, content does not.
    for (std::size_t i = 1024; i < bytes.size(); i += 997) {
        bytes[i] = static_cast<char>(bytes[i] ^ 0x5A);
    }
    TestSupport::writeText(to, bytes);
}

} // namespace

TEST(Reliability, WritesNothingButItsCacheFolder) {
    TempDir dir;
    makeShoot(dir / "shoot");
    std::filesystem::create_directories(dir / "home");
    std::filesystem::create_directories(dir / "work");
    TestSupport::writeText(dir / "home" / ".profile", "# a user's file\n");
    const auto shootBefore = snapshot(dir / "shoot");
    const auto homeBefore = snapshot(dir / "home");
    const auto workBefore = snapshot(dir / "work");

    auto run =
        runEngine(dir / "shoot" / "request.json",
                  {"HOME=" + (dir / "home").string(), "XDG_CACHE_HOME=" + (dir / "xdg").string()},
                  dir / "work");
    EXPECT_EQ(run.exitCode, 0) << run.log;
    EXPECT_EQ(run.ofType("done").size(), 1u);

    EXPECT_EQ(snapshot(dir / "shoot").items, shootBefore.items);
    EXPECT_EQ(snapshot(dir / "home").items, homeBefore.items);
    EXPECT_EQ(snapshot(dir / "work").items, workBefore.items);
    // The cache is the one place written: one feature file per clip.
    int bandsFiles = 0;
    for (const auto& [name, item] : snapshot(dir / "xdg").items) {
        EXPECT_EQ(name.rfind("TessarinEngineCLI", 0), 0u) << name;
        if (name.ends_with(".bands")) {
            ++bandsFiles;
        }
    }
    EXPECT_EQ(bandsFiles, static_cast<int>(run.ofType("result").size()));
}

TEST(Reliability, CacheThatCannotBeMadeCostsOnlyTheDecode) {
    TempDir dir;
    makeShoot(dir / "shoot");
    TestSupport::writeText(dir / "blocker", "a regular file where the cache folder would go");
    const auto request = dir / "shoot" / "request.json";
    auto normal = runEngine(request, {"XDG_CACHE_HOME=" + (dir / "xdg").string()});
    auto blocked = runEngine(request, {"XDG_CACHE_HOME=" + (dir / "blocker").string()});
    EXPECT_EQ(blocked.exitCode, 0) << blocked.log;
    EXPECT_TRUE(blocked.ofType("error").empty());
    auto a = resultsByPath(normal);
    auto b = resultsByPath(blocked);
    ASSERT_EQ(a.size(), b.size());
    for (const auto& [path, r] : a) {
        SCOPED_TRACE(path);
        EXPECT_NEAR(r["startOffset"].get<double>(), b[path]["startOffset"].get<double>(), 1e-9);
        EXPECT_EQ(r["syncStatus"], b[path]["syncStatus"]);
    }
}

TEST(Reliability, BrokenFilesCostOneErrorEachAndMoveNothingElse) {
    TempDir dir;
    makeShoot(dir / "shoot");
    const auto shoot = dir / "shoot";
    const auto broken = shoot / "Broken";
    std::filesystem::create_directories(broken);
    copyPrefix(shoot / "CamA" / "A001.MOV", broken / "truncated.MOV", 0.3);
    copyPrefix(shoot / "Sound" / "T001.WAV", broken / "truncated.WAV", 0.4);
    copyFlipped(shoot / "CamB" / "C0001.MOV", broken / "flipped.MOV");
    copyFlipped(shoot / "Sound" / "T002.WAV", broken / "flipped.WAV");
    TestSupport::writeText(broken / "empty.MOV", "");
    std::filesystem::copy_file(shoot / "CamA" / "A002.MOV", broken / "misnamed.WAV");
    std::filesystem::create_directories(broken / "folder.MOV");
    ASSERT_EQ(mkfifo((broken / "pipe.WAV").c_str(), 0644), 0);
    // Playlists saved as media: one names the FIFO, one a good file of the shoot.
    TestSupport::writeText(broken / "list.WAV", "ffconcat version 1.0\nfile pipe.WAV\n");
    TestSupport::writeText(broken / "playlist.MOV",
                           "#EXTM3U\n#EXT-X-TARGETDURATION:30\n#EXTINF:30.0,\n" +
                               (shoot / "Sound" / "T001.WAV").string() + "\n#EXT-X-ENDLIST\n");
    // A silent recording, its bext chunk behind 8 MB of samples, cut off and written back again
    // and again for as long as the run reads it.
    const auto shrinkingBytes =
        RiffWriter::wave({RiffWriter::fmt(1, 48000, 16), RiffWriter::silence(1, 16, 4000000),
                          RiffWriter::bext({"", "Recorder", "2023-07-01", "14:25:30", 0})});
    MediaFixtures::writeBytes(broken / "shrinking.WAV", shrinkingBytes);
    std::vector<std::string> brokenPaths = {"truncated.MOV", "truncated.WAV", "flipped.MOV",
                                            "flipped.WAV",   "empty.MOV",     "misnamed.WAV",
                                            "folder.MOV",    "pipe.WAV",      "ghost.MOV",
                                            "list.WAV",      "playlist.MOV",  "shrinking.WAV"};
    const bool root = geteuid() == 0;
    if (!root) {
        TestSupport::writeText(broken / "locked.WAV", "RIFF");
        ::chmod((broken / "locked.WAV").c_str(), 0);
        brokenPaths.push_back("locked.WAV");
    }

    auto request = nlohmann::json::parse(std::ifstream(shoot / "request.json"));
    const auto goodRequest = request;
    for (const auto& name : brokenPaths) {
        request["items"].push_back(
            {{"path", (broken / name).string()}, {"dropHint", broken.string()}});
    }
    TestSupport::writeText(dir / "broken.json", request.dump());
    TestSupport::writeText(dir / "good.json", goodRequest.dump());

    // The broken run's cache holds a link under a good recording's entry names, pointing out of
    // the cache, and a FIFO under a good camera clip's.
    const auto cache = dir / "xdg2" / "TessarinEngineCLI";
    std::filesystem::create_directories(cache);
    TestSupport::writeText(dir / "victim.txt", "a user's file");
    const auto recording = *EnvelopeCache::cacheKey(shoot / "Sound" / "T001.WAV");
    std::filesystem::create_symlink(dir / "victim.txt", cache / (recording + ".bands"));
    std::filesystem::create_symlink(dir / "victim.txt", cache / recording);
    const auto clip = *EnvelopeCache::cacheKey(shoot / "CamA" / "A001.MOV");
    ASSERT_EQ(mkfifo((cache / (clip + ".bands")).c_str(), 0644), 0);

    auto before = snapshot(shoot);
    auto good = runEngine(dir / "good.json", {"XDG_CACHE_HOME=" + (dir / "xdg1").string()});
    std::atomic<bool> done = false;
    std::jthread cutter([&] {
        const int fd = ::open((broken / "shrinking.WAV").c_str(), O_WRONLY | O_CLOEXEC);
        while (!done) {
            EXPECT_EQ(::ftruncate(fd, 4096), 0);
            EXPECT_EQ(
                ::pwrite(fd, shrinkingBytes.data() + 4096, shrinkingBytes.size() - 4096, 4096),
                static_cast<ssize_t>(shrinkingBytes.size() - 4096));
        }
        ::close(fd);
    });
    auto bad = runEngine(dir / "broken.json", {"XDG_CACHE_HOME=" + (dir / "xdg2").string()});
    done = true;
    cutter.join();
    ASSERT_EQ(good.exitCode, 0) << good.log;
    EXPECT_EQ(bad.exitCode, 0) << bad.log;
    EXPECT_EQ(bad.ofType("done").size(), 1u);
    // Only the test itself rewrote the shrinking file.
    auto after = snapshot(shoot);
    after.items.erase("Broken/shrinking.WAV");
    before.items.erase("Broken/shrinking.WAV");
    EXPECT_EQ(after.items, before.items);
    std::ifstream victim(dir / "victim.txt");
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(victim)), {}), "a user's file");
    for (const auto& name : {recording + ".bands", recording, clip + ".bands"}) {
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(cache / name)))
            << name;
    }

    std::map<std::string, int> errorsPerPath;
    for (const auto& e : bad.ofType("error")) {
        ASSERT_TRUE(e.contains("path")) << e.dump();
        ++errorsPerPath[e["path"].get<std::string>()];
    }
    for (const auto& [path, count] : errorsPerPath) {
        EXPECT_EQ(count, 1) << path;
        EXPECT_EQ(path.rfind(broken.string(), 0), 0u) << "error for a good file: " << path;
    }
    // Files that hold no readable media say so once each; none is lost from the results.
    for (const char* unreadable : {"empty.MOV", "folder.MOV", "pipe.WAV", "ghost.MOV",
                                   "truncated.MOV", "list.WAV", "playlist.MOV"}) {
        EXPECT_EQ(errorsPerPath[(broken / unreadable).string()], 1) << unreadable;
    }
    auto goodResults = resultsByPath(good);
    auto badResults = resultsByPath(bad);
    for (const auto& [path, r] : badResults) {
        EXPECT_EQ(r["audioUsability"], "ok") << path;
    }

    // The good clips keep their places relative to each other, and their verdicts.
    ASSERT_FALSE(goodResults.empty());
    const auto anchor = goodResults.begin()->first;
    ASSERT_TRUE(badResults.count(anchor));
    const double shift = badResults[anchor]["startOffset"].get<double>() -
                         goodResults[anchor]["startOffset"].get<double>();
    for (const auto& [path, r] : goodResults) {
        SCOPED_TRACE(path);
        ASSERT_TRUE(badResults.count(path));
        EXPECT_NEAR(badResults[path]["startOffset"].get<double>() - shift,
                    r["startOffset"].get<double>(), 0.04);
        EXPECT_EQ(badResults[path]["syncStatus"], r["syncStatus"]);
    }
    if (root) {
        GTEST_LOG_(INFO) << "no unreadable file in the broken drop: running as root, every file "
                            "can be read";
    }
}
