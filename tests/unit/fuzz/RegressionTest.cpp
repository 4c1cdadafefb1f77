// Every input that once broke a fuzz target (fuzz/regressions/<target>/<file>) goes through that
// target's function again, one test a file: the parser at fault must now take it without crashing,
// aborting on a target's own check or (in the sanitizer build) touching memory it does not own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzTarget.h"

namespace {

namespace fs = std::filesystem;

struct Regression {
    std::string target;
    fs::path file;
};
void PrintTo(const Regression& r, std::ostream* out) { *out << r.target << "/" << r.file.filename().string(); }

std::vector<Regression> regressions() {
    std::vector<Regression> all;
    std::error_code ignored;
    for (const auto& target : fs::directory_iterator(TW_FUZZ_REGRESSIONS_DIR, ignored))
        for (const auto& file : fs::directory_iterator(target.path(), ignored))
            all.push_back({target.path().filename().string(), file.path()});
    std::sort(all.begin(), all.end(), [](const Regression& a, const Regression& b) { return a.file < b.file; });
    return all;
}

class FuzzRegression : public testing::TestWithParam<Regression> {};

TEST_P(FuzzRegression, GoesThroughItsTargetAgain) {
    const Regression& regression = GetParam();
    const auto& targets = tw::fuzz::targets();
    const auto target = targets.find(regression.target);
    ASSERT_NE(target, targets.end()) << "no fuzz target named " << regression.target;

    std::ifstream in(regression.file, std::ios::binary);
    ASSERT_TRUE(in) << regression.file;
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(target->second(bytes.data(), bytes.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(Inputs, FuzzRegression, testing::ValuesIn(regressions()),
                         [](const testing::TestParamInfo<Regression>& info) {
                             std::string name = info.param.target + "_" + info.param.file.filename().string();
                             std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
                             return name;
                         });

TEST(FuzzRegressions, EveryTargetIsRegisteredUnderItsOwnName) {
    // One name a file of fuzz/Targets.cmake: two files under one name would hide one of them.
    EXPECT_EQ(tw::fuzz::targets().size(), static_cast<size_t>(TW_FUZZ_TARGET_COUNT));
    EXPECT_FALSE(regressions().empty());
}

}  // namespace
