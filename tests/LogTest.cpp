#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
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
using testsupport::TempDir;

// Sets or clears environment variables for its lifetime.
class EnvGuard {
public:
    void set(const char* name, const char* value) {
        remember(name);
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~EnvGuard() {
        for (const auto& [name, value] : saved) {
            if (value.first) {
                setenv(name.c_str(), value.second.c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
    }

private:
    void remember(const char* name) {
        if (saved.count(name) == 0) {
            const char* old = std::getenv(name);
            saved[name] = {old != nullptr, old != nullptr ? old : ""};
        }
    }
    std::map<std::string, std::pair<bool, std::string>> saved;
};

// Every test leaves the process-wide switches as it found them.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        env.set("VELMAR_LOG_ENABLED", nullptr);
        env.set("VELMAR_LOG_PRIORITY", nullptr);
        env.set("VELMAR_LOG_OPTIONS", nullptr);
    }
    void TearDown() override {
        velmar::Log::m_InitDone.store(initDone);
        velmar::Log::m_LoggingEnabled.store(enabled);
        velmar::Log::m_GlobalPriority.store(priority);
        velmar::Log::m_GlobalOptions.store(options);
    }

    EnvGuard env;
    const bool initDone = velmar::Log::m_InitDone.load();
    const bool enabled = velmar::Log::m_LoggingEnabled.load();
    const int32_t priority = velmar::Log::m_GlobalPriority.load();
    const uint64_t options = velmar::Log::m_GlobalOptions.load();
};

TEST_F(LogTest, PriorityFilterSkipsLowStatementsWithoutEvaluatingThem) {
    LogCapture log(velmar::Info);
    int tagBuilt = 0;
    int messageBuilt = 0;
    auto tag = [&] {
        ++tagBuilt;
        return std::string("FilterTag");
    };
    auto piece = [&](int p) {
        ++messageBuilt;
        return p;
    };
    for (int p = velmar::Verbose; p <= velmar::Error; ++p) {
        VELMAR_LOG(static_cast<velmar::LogPriority>(p), tag(), "priority " << piece(p));
    }
    EXPECT_EQ(tagBuilt, 3);
    EXPECT_EQ(messageBuilt, 3);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].priority, velmar::Info + i);
        EXPECT_EQ(lines[i].message, "priority " + std::to_string(velmar::Info + i));
    }
}

TEST_F(LogTest, DisabledLoggingReportsNothingButStillInitialises) {
    LogCapture log(velmar::Verbose);
    velmar::Log::m_InitDone.store(false);
    velmar::Log::m_LoggingEnabled.store(false);
    int evaluated = 0;
    VELMAR_LOG(velmar::Error, "Off", "never " << ++evaluated);
    EXPECT_TRUE(velmar::Log::m_InitDone.load());
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(LogTest, OptionBit24SuppressesReportingAndNoOtherBitDoes) {
    LogCapture log(velmar::Verbose);
    velmar::Log::m_GlobalOptions.store(uint64_t{1} << 24);
    VELMAR_LOG(velmar::Error, "Opt", "hidden");
    velmar::Log::m_GlobalOptions.store(~(uint64_t{1} << 24));
    VELMAR_LOG(velmar::Error, "Opt", "shown");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"shown"});
}

TEST_F(LogTest, EveryNGateEmitsOnceEverySixtyPassingStatements) {
    LogCapture log(velmar::Info);
    // The counter is shared by the whole process: align on an emitted call first.
    int misses = 0;
    while (!velmar::Log::IsLogEnabledEveryN(60)) {
        ASSERT_LT(++misses, 60) << "the gate stayed closed for 60 calls";
    }
    std::vector<int> open;
    for (int call = 1; call <= 180; ++call) {
        if (velmar::Log::IsLogEnabledEveryN(60)) {
            open.push_back(call);
        }
    }
    EXPECT_EQ(open, (std::vector<int>{60, 120, 180}));

    // Statements stopped by the priority filter never reach the gate, so they do not shift it.
    for (int i = 0; i < 1000; ++i) {
        VELMAR_LOG_EVERY_N(60, velmar::Verbose, "Gate", "filtered " << i);
    }
    for (int i = 1; i <= 121; ++i) {
        VELMAR_LOG_EVERY_N(60, velmar::Info, "Gate", "passing " << i);
    }
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"passing 60", "passing 120"}));
}

void reportFromHelper(int& line) {
    const std::string prefix = "Sink";
    line = __LINE__ + 1;
    VELMAR_LOG(velmar::Warning, prefix + "Tag", "n=" << 7 << " ok=" << true << " off=" << false << " f=" << 2.5f);
}

TEST_F(LogTest, SinkReceivesTagSourceBareFunctionAndLine) {
    velmar::Log::init();
    velmar::Log::m_LoggingEnabled.store(true);
    velmar::Log::m_GlobalPriority.store(velmar::Verbose);
    std::vector<std::string> seen;
    velmar::Log::setSink([&](const velmar::LogEntry& e) {
        std::ostringstream out;
        out << e.priority << '|' << e.tag << '|' << e.file << '|' << e.function << '|' << e.line << '|' << e.message;
        seen.push_back(out.str());
    });
    int line = 0;
    reportFromHelper(line);
    velmar::Log::setSink(nullptr);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], "3|SinkTag|tests/LogTest|reportFromHelper|" + std::to_string(line) +
                           "|n=7 ok=true off=false f=2.5");
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
    velmar::Log::init();
    velmar::Log::m_LoggingEnabled.store(true);
    velmar::Log::m_GlobalPriority.store(velmar::Info);
    velmar::Log::m_GlobalOptions.store(0);
    velmar::Log::setSink(nullptr);

    TempDir dir;
    const std::string path = dir.file("stderr.txt");
    std::fflush(stderr);
    const int savedFd = dup(STDERR_FILENO);
    ASSERT_GE(savedFd, 0);
    const int fileFd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fileFd, 0);
    ASSERT_EQ(dup2(fileFd, STDERR_FILENO), STDERR_FILENO);
    close(fileFd);
    {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back(logFromWorker, t);
        }
        for (std::thread& t : threads) {
            t.join();
        }
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
        const int thread = std::stoi(m[1]);
        const int index = std::stoi(m[2]);
        EXPECT_EQ(m[3].length(), static_cast<size_t>(200 + (index % 40) * 25));
        EXPECT_TRUE(seen.emplace(thread, index).second) << line.substr(0, 60);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLinesPerThread));
}

TEST_F(LogTest, InitReadsSwitchesFromEnvironment) {
    env.set("VELMAR_LOG_ENABLED", "0");
    env.set("VELMAR_LOG_PRIORITY", "3");
    env.set("VELMAR_LOG_OPTIONS", "0x1000000");
    velmar::Log::m_InitDone.store(false);
    velmar::Log::init();
    EXPECT_TRUE(velmar::Log::m_InitDone.load());
    EXPECT_FALSE(velmar::Log::m_LoggingEnabled.load());
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), 3);
    EXPECT_EQ(velmar::Log::m_GlobalOptions.load(), velmar::Log::kSuppressReportBit);

    // The first statement initialises before it filters: priority 4 from the environment applies.
    LogCapture log(velmar::Verbose);
    env.set("VELMAR_LOG_ENABLED", "1");
    env.set("VELMAR_LOG_PRIORITY", "4");
    env.set("VELMAR_LOG_OPTIONS", "0");
    velmar::Log::m_InitDone.store(false);
    VELMAR_LOG(velmar::Warning, "Env", "warning");
    VELMAR_LOG(velmar::Error, "Env", "error");
    EXPECT_TRUE(velmar::Log::m_LoggingEnabled.load());
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), 4);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"error"});
}

}  // namespace
