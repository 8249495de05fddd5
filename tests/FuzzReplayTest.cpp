#include "fuzz/Targets.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <vector>

// Every saved fuzz input, found cases among them, runs through its parser as an ordinary test.
TEST(FuzzReplay, SavedCorpusRunsCleanly) {
    int inputs = 0;
    for (auto* t = FuzzTargets::begin(); t != FuzzTargets::end(); ++t) {
        const auto dir = std::filesystem::path(TESSARIN_FUZZ_CORPUS_DIR) / std::string(t->name);
        ASSERT_TRUE(std::filesystem::is_directory(dir)) << "no saved corpus for " << t->name;
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            SCOPED_TRACE(entry.path().string());
            std::ifstream in(entry.path(), std::ios::binary);
            std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
            t->run(bytes.data(), bytes.size());
            ++inputs;
        }
    }
    EXPECT_GT(inputs, 0);
}
