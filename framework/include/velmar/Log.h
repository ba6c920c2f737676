// Logger of the velmar framework: a statement tests the global switches before it builds any text,
// then collects its message in a stream and reports it when the statement ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>

namespace velmar {

enum LogPriority : int32_t {
    Verbose = 0,
    Debug = 1,
    Info = 2,
    Warning = 3,
    Error = 4,
};

// One reported statement, as handed to an installed sink.
struct LogEntry {
    LogPriority priority;
    const std::string& tag;
    const char* file;
    const char* function;
    int32_t line;
    const std::string& message;
};

class Log {
public:
    // Bit of the option word that suppresses reporting.
    static constexpr uint64_t kSuppressReportBit = uint64_t{1} << 24;

    // Process-wide switches read by every statement. Atomic because statements run on several
    // threads while configuration may set the priority; loads are relaxed and cost a plain load.
    static std::atomic<bool> m_InitDone;
    static std::atomic<bool> m_LoggingEnabled;
    static std::atomic<int32_t> m_GlobalPriority;
    static std::atomic<uint64_t> m_GlobalOptions;

    Log(LogPriority priority, const std::string& tag, const char* file, const char* function, int line);
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    virtual ~Log();

    std::ostream& stream() { return m_Stream; }

    // Emits the collected message: the platform log on Android, one line on stderr elsewhere.
    void report();

    // Reads VELMAR_LOG_ENABLED, VELMAR_LOG_PRIORITY and VELMAR_LOG_OPTIONS; logging is on by default.
    static void init();

    // True for the 1st, (n+1)th, (2n+1)th ... call, counted over every call site of the process.
    static bool IsLogEnabledEveryN(int n) {
        static std::atomic<int32_t> log_occurrences{0};
        const int32_t old = log_occurrences.fetch_add(1);
        if (old >= n) {
            log_occurrences.fetch_sub(n);
        }
        return log_occurrences.load() == 1;
    }

    // Routes reported statements to a sink instead of the platform output (tests, tools);
    // an empty function restores the default output.
    using Sink = std::function<void(const LogEntry&)>;
    static void setSink(Sink sink);

protected:
    uint64_t m_Options;
    LogPriority m_Priority;
    std::string m_Tag;
    const char* m_File;
    const char* m_Function;
    int32_t m_Line;
    std::ostringstream m_Stream;
    std::string m_Reserved1;
    std::string m_Reserved2;
};

class LogInline : public Log {
public:
    using Log::Log;
    ~LogInline() override;
};

}  // namespace velmar

// Every source file that logs defines VELMAR_LOG_SOURCE, e.g. "src/ModelPredictor".
// The priority test comes first: a filtered statement builds no tag and evaluates no argument.
#define VELMAR_LOG_IMPL(priority, tag, gate, message)                                                  \
    do {                                                                                               \
        if (!::velmar::Log::m_InitDone.load(std::memory_order_relaxed)) {                              \
            ::velmar::Log::init();                                                                     \
        }                                                                                              \
        if (::velmar::Log::m_LoggingEnabled.load(std::memory_order_relaxed) &&                         \
            ::velmar::Log::m_GlobalPriority.load(std::memory_order_relaxed) <                          \
                static_cast<int32_t>(priority) + 1 &&                                                  \
            (gate)) {                                                                                  \
            ::velmar::LogInline velmarStatement_(priority, tag, VELMAR_LOG_SOURCE, __func__, __LINE__); \
            velmarStatement_.stream() << message;                                                      \
        }                                                                                              \
    } while (0)

#define VELMAR_LOG(priority, tag, message) VELMAR_LOG_IMPL(priority, tag, true, message)
#define VELMAR_LOG_EVERY_N(n, priority, tag, message) \
    VELMAR_LOG_IMPL(priority, tag, ::velmar::Log::IsLogEnabledEveryN(n), message)
