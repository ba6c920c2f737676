#include "ModelOutputFixture.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "TestSupport.h"

using modelfixture::ModelOutputFixture;

namespace {

std::string readError(const std::string& path) {
    try {
        modelfixture::readFixture(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no exception)";
}

}  // namespace

// Bytes above 0x7f hash the same whether char is signed (x86-64) or unsigned (arm64).
TEST(ModelOutputFixtureTest, FingerprintIsTheSizeAndFnv1aOfTheBytes) {
    testsupport::TempDir dir;
    const std::pair<std::string, uint64_t> cases[] = {
        {"", 0xcbf29ce484222325ull}, {"a", 0xaf63dc4c8601ec8cull}, {"\xff\x80TFL3", 0x8e7159cb0c9c6041ull}};
    for (const auto& [bytes, hash] : cases) {
        testsupport::writeFile(dir.file("model"), bytes);
        const modelfixture::ModelFingerprint print = modelfixture::fingerprintOf(dir.file("model"));
        EXPECT_EQ(print.bytes, bytes.size());
        EXPECT_EQ(print.fnv1a64, hash) << bytes;
    }
    EXPECT_THROW(modelfixture::fingerprintOf(dir.file("absent")), std::runtime_error);
}

TEST(ModelOutputFixtureTest, WrittenFixtureReadsBackExactlyAndBadOnesNameTheLine) {
    testsupport::TempDir dir;
    ModelOutputFixture written;
    written.model = {37616, 0xf0e1d2c3b4a59687ull};
    written.madeBy = "x86-64, CpuRef";
    written.cases.push_back({{0.0f, -1.5f, 1.0f / 3.0f}, {{std::numeric_limits<float>::denorm_min(), 1e30f}, {-7.25f}}});
    written.cases.push_back({{2.0f, 0.1f, -0.0f}, {{3.0f, 4.0f}, {5.0f}}});
    modelfixture::writeFixture(dir.file("fixture.txt"), written, "regenerate.sh");
    const ModelOutputFixture read = modelfixture::readFixture(dir.file("fixture.txt"));
    EXPECT_TRUE(read.model == written.model);
    EXPECT_EQ(read.madeBy, written.madeBy);
    ASSERT_EQ(read.cases.size(), 2u);
    for (size_t c = 0; c < 2; ++c) {
        EXPECT_EQ(read.cases[c].input, written.cases[c].input);
        EXPECT_EQ(read.cases[c].outputs, written.cases[c].outputs);
    }
    EXPECT_NE(testsupport::readFile(dir.file("fixture.txt")).find("regenerate.sh"), std::string::npos);

    const std::string header = "model_bytes 4\nmodel_fnv1a64 00ff\nmade_by x\ncases 1 1\n";
    const std::pair<std::string, std::string> bad[] = {
        {header + "input 1 2\n", ":5: ends before \"output0\""},
        {header + "input 1 x\noutput0 1\n", ":5: a value of \"input\" is not a number"},
        {header + "# note\n\noutput0 1\n", ":7: expected \"input\", found \"output0\""},
        {"model_bytes 4\nmodel_fnv1a64 00ff\nmade_by x\ncases 0 1\n", ":4: no cases or no outputs"},
    };
    for (const auto& [text, error] : bad) {
        testsupport::writeFile(dir.file("bad.txt"), text);
        EXPECT_EQ(readError(dir.file("bad.txt")), dir.file("bad.txt") + error);
    }
    EXPECT_EQ(readError(dir.file("absent.txt")), "cannot read " + dir.file("absent.txt"));
}
