#include "velmar/Log.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>

#ifdef __ANDROID__
#include <android/log.h>
#endif

namespace velmar {

std::atomic<bool> Log::m_InitDone{false};
std::atomic<bool> Log::m_LoggingEnabled{true};
std::atomic<int32_t> Log::m_GlobalPriority{Info};
std::atomic<uint64_t> Log::m_GlobalOptions{0};

namespace {

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

Log::Sink& sinkSlot() {
    static Log::Sink sink;
    return sink;
}

// Only set or cleared by tests and tools; checked without the lock so the default path stays lock-free.
std::atomic<bool> g_sinkInstalled{false};

char priorityLetter(LogPriority priority) {
    switch (priority) {
        case Verbose: return 'V';
        case Debug: return 'D';
        case Info: return 'I';
        case Warning: return 'W';
        case Error: return 'E';
    }
    return '?';
}

bool readEnvInteger(const char* name, long long& value) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0') {
        return false;
    }
    value = parsed;
    return true;
}

void writeToStderr(const std::string& text) {
    // One write per line: lines from several threads never interleave.
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

}  // namespace

Log::Log(LogPriority priority, const std::string& tag, const char* file, const char* function, int line)
    : m_Options(m_GlobalOptions.load(std::memory_order_relaxed)),
      m_Priority(priority),
      m_Tag(tag),
      m_File(file),
      m_Function(function),
      m_Line(line) {
    m_Stream << std::boolalpha;
}

Log::~Log() = default;

LogInline::~LogInline() {
    if ((m_Options & kSuppressReportBit) != 0) {
        return;
    }
    try {
        report();
    } catch (...) {
        std::terminate();
    }
}

void Log::init() {
    long long value = 0;
    if (readEnvInteger("VELMAR_LOG_ENABLED", value)) {
        m_LoggingEnabled.store(value != 0);
    }
    if (readEnvInteger("VELMAR_LOG_PRIORITY", value)) {
        m_GlobalPriority.store(static_cast<int32_t>(value));
    }
    if (readEnvInteger("VELMAR_LOG_OPTIONS", value)) {
        m_GlobalOptions.store(static_cast<uint64_t>(value));
    }
    m_InitDone.store(true);
}

void Log::setSink(Sink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex());
    sinkSlot() = std::move(sink);
    g_sinkInstalled.store(static_cast<bool>(sinkSlot()));
}

void Log::report() {
    const std::string message = m_Stream.str();
    if (g_sinkInstalled.load()) {
        std::lock_guard<std::mutex> lock(sinkMutex());
        if (sinkSlot()) {
            sinkSlot()(LogEntry{m_Priority, m_Tag, m_File, m_Function, m_Line, message});
            return;
        }
    }
#ifdef __ANDROID__
    static const int kAndroidPriority[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,
                                           ANDROID_LOG_WARN, ANDROID_LOG_ERROR};
    const int index = (m_Priority >= Verbose && m_Priority <= Error) ? m_Priority : Error;
    __android_log_print(kAndroidPriority[index], m_Tag.c_str(), "%s:%d %s", m_Function, m_Line, message.c_str());
#else
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm calendar{};
    gmtime_r(&seconds, &calendar);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%F %T", &calendar);
    char millisText[8];
    std::snprintf(millisText, sizeof(millisText), ".%03d", static_cast<int>(millis));

    std::string line;
    line.reserve(message.size() + m_Tag.size() + 64);
    line.append(stamp).append(millisText).append(" ");
    line.push_back(priorityLetter(m_Priority));
    line.append(" ").append(m_Tag).append(" ").append(m_Function).append(":").append(std::to_string(m_Line));
    line.append(" ").append(message).append("\n");
    writeToStderr(line);
#endif
}

}  // namespace velmar
