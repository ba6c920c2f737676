#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "tests/LogTest"

namespace {

using testsupport::LogCapture;
using Lines = std::vector<std::string>;

// Every test runs without the environment switches and leaves the process-wide switches as it found them.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"VELMAR_LOG_ENABLED", "VELMAR_LOG_PRIORITY", "VELMAR_LOG_OPTIONS"}) {
            unsetenv(name);
        }
    }
    void TearDown() override {
        SetUp();
        velmar::Log::m_InitDone.store(initDone);
        velmar::Log::m_LoggingEnabled.store(enabled);
        velmar::Log::m_GlobalPriority.store(priority);
        velmar::Log::m_GlobalOptions.store(options);
    }

    const bool initDone = velmar::Log::m_InitDone.load();
    const bool enabled = velmar::Log::m_LoggingEnabled.load();
    const int32_t priority = velmar::Log::m_GlobalPriority.load();
    const uint64_t options = velmar::Log::m_GlobalOptions.load();
};

TEST_F(LogTest, SwitchesFilterStatementsBeforeTagOrMessageIsEvaluated) {
    LogCapture log(velmar::Info);
    int tagBuilt = 0;
    int messageBuilt = 0;
    for (int p = velmar::Verbose; p <= velmar::Error; ++p) {
        VELMAR_LOG(static_cast<velmar::LogPriority>(p), (++tagBuilt, "FilterTag"), "priority " << (++messageBuilt, p));
    }
    // Switched off: nothing is evaluated, yet the first statement still initialises.
    velmar::Log::m_InitDone.store(false);
    velmar::Log::m_LoggingEnabled.store(false);
    VELMAR_LOG(velmar::Error, (++tagBuilt, "Off"), "off " << ++messageBuilt);
    EXPECT_TRUE(velmar::Log::m_InitDone.load());
    EXPECT_EQ(tagBuilt, 3);
    EXPECT_EQ(messageBuilt, 3);
    // Option bit 24 suppresses reporting and no other bit does.
    velmar::Log::m_LoggingEnabled.store(true);
    velmar::Log::m_GlobalOptions.store(velmar::Log::kSuppressReportBit);
    VELMAR_LOG(velmar::Error, "Opt", "hidden");
    velmar::Log::m_GlobalOptions.store(~velmar::Log::kSuppressReportBit);
    VELMAR_LOG(velmar::Error, "Opt", "shown");
    EXPECT_EQ(log.messages(), (Lines{"priority 2", "priority 3", "priority 4", "shown"}));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(log.lines()[i].priority, velmar::Info + i);
    }
}

TEST_F(LogTest, EveryNGateOpensOnCallsOneSixtyOneAndHundredTwentyOne) {
    LogCapture log(velmar::Info);
    // The counter is shared by the whole process: align on an open call and count it as call 1.
    int misses = 0;
    while (!velmar::Log::IsLogEnabledEveryN(60)) {
        ASSERT_LT(++misses, 60) << "the gate stayed closed for 60 calls";
    }
    std::vector<int> open{1};
    for (int call = 2; call <= 180; ++call) {
        if (velmar::Log::IsLogEnabledEveryN(60)) {
            open.push_back(call);
        }
    }
    EXPECT_EQ(open, (std::vector<int>{1, 61, 121}));

    // Statements stopped by the priority filter never reach the gate, so they do not shift it.
    for (int i = 0; i < 1000; ++i) {
        VELMAR_LOG_EVERY_N(60, velmar::Verbose, "Gate", "filtered " << i);
    }
    for (int i = 1; i <= 180; ++i) {
        VELMAR_LOG_EVERY_N(60, velmar::Info, "Gate", "passing " << i);
    }
    EXPECT_EQ(log.messages(), (Lines{"passing 1", "passing 61", "passing 121"}));
}

TEST_F(LogTest, SinkReceivesTagSourceBareFunctionAndLine) {
    LogCapture priority(velmar::Verbose);
    std::vector<std::string> seen;
    velmar::Log::setSink([&](const velmar::LogEntry& e) {
        std::ostringstream out;
        out << e.priority << '|' << e.tag << '|' << e.file << '|' << e.function << '|' << e.line << '|' << e.message;
        seen.push_back(out.str());
    });
    const std::string prefix = "Sink";
    const int line = __LINE__ + 1;
    VELMAR_LOG(velmar::Warning, prefix + "Tag", "n=" << 7 << " ok=" << true << " off=" << false << " f=" << 2.5f);
    velmar::Log::setSink(nullptr);
    EXPECT_EQ(seen, (Lines{"3|SinkTag|tests/LogTest|TestBody|" + std::to_string(line) + "|n=7 ok=true off=false f=2.5"}));
}

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 200;

void logFromWorker(int thread) {
    for (int i = 0; i < kLinesPerThread; ++i) {
        VELMAR_LOG(velmar::Warning, "StderrTag",
                   "thread " << thread << " line " << i << " " << std::string(200 + (i % 40) * 25, 'x'));
    }
}

TEST_F(LogTest, ConcurrentReportsToStderrWriteWholeFormattedLines) {
    LogCapture priority(velmar::Info);
    velmar::Log::setSink(nullptr);  // the platform output, here stderr
    testsupport::TempDir dir;
    const std::string path = dir.file("stderr.txt");
    std::fflush(stderr);
    const int savedFd = dup(STDERR_FILENO);
    const int fileFd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(savedFd, 0);
    ASSERT_GE(fileFd, 0);
    ASSERT_EQ(dup2(fileFd, STDERR_FILENO), STDERR_FILENO);
    close(fileFd);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(logFromWorker, t);
    }
    for (std::thread& t : threads) {
        t.join();
    }
    std::fflush(stderr);
    dup2(savedFd, STDERR_FILENO);
    close(savedFd);

    const std::string text = testsupport::readFile(path);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    const std::regex format(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} W StderrTag logFromWorker:\d+ thread (\d) line (\d+) (x+))");
    std::set<std::pair<int, int>> seen;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, format)) << "torn or malformed line: " << line.substr(0, 120);
        const int index = std::stoi(m[2]);
        EXPECT_EQ(m[3].length(), static_cast<size_t>(200 + (index % 40) * 25));
        EXPECT_TRUE(seen.emplace(std::stoi(m[1]), index).second) << line.substr(0, 60);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLinesPerThread));
}

TEST_F(LogTest, FirstStatementReadsTheEnvironmentBeforeItFilters) {
    LogCapture log(velmar::Verbose);
    setenv("VELMAR_LOG_PRIORITY", "4", 1);
    velmar::Log::m_InitDone.store(false);
    VELMAR_LOG(velmar::Warning, "Env", "warning");
    VELMAR_LOG(velmar::Error, "Env", "error");
    EXPECT_EQ(log.messages(), Lines{"error"});
}

}  // namespace
