// stylus-live as a page sees it: the real program started on a free port, driven by a WebSocket
// client. Bad input of every kind gets its error and its connection closed while the server goes
// on; a page that vanishes mid-stroke frees the library for the next one; SIGTERM ends the server
// with status 0 (under the sanitizers, also no leak and no race).
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "ClientMessage.h"
#include "JsonValue.h"
#include "LibraryBatches.h"
#include "LiveOptions.h"
#include "ProtocolError.h"
#include "RateLimiter.h"
#include "StrokeOrder.h"
#include "TempDir.h"

extern char** environ;

namespace {

namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

constexpr auto startTimeout = std::chrono::seconds(60);
constexpr auto freeTimeout = std::chrono::seconds(20);

// ---- the pieces that need no server ----------------------------------------------------------

TEST(LiveJson, ParsesWhatThePageSendsAndRefusesTheRest) {
    const auto doc = live::JsonValue::parse(R"( {"a": [1, -2.5e1, true, null], "s": "x\u00e9\ud83d\ude00\n", "a": 0} )");
    ASSERT_EQ(doc.kind(), live::JsonValue::Kind::Object);
    EXPECT_EQ(doc.find("a")->number(), 0.0);  // the last of a repeated key
    EXPECT_EQ(doc.find("s")->string(), "x\xc3\xa9\xf0\x9f\x98\x80\n");
    struct Bad {
        const char* text;
        const char* error;
    };
    const Bad cases[] = {
        {"", "byte 0: expected a value"},
        {"{\"a\":1,}", "byte 7: expected a member name"},
        {"[1 2]", "byte 3: expected ',' or ']'"},
        {"01", "byte 1: expected end of input"},
        {"1.", "expected a digit after the decimal point"},
        {"1e999", "expected a number within the range of a double"},
        {"\"\\ud800\"", "the low half of a surrogate pair"},
        {"\"a\nb\"", "no control character inside a string"},
        {"[[[[[[[[[1]]]]]]]]]", "at most 8 levels of nesting"},
        {"nul", "expected a value"},
    };
    for (const Bad& bad : cases) {
        try {
            live::JsonValue::parse(bad.text);
            ADD_FAILURE() << "accepted " << bad.text;
        } catch (const live::JsonError& error) {
            EXPECT_NE(std::string(error.what()).find(bad.error), std::string::npos) << bad.text << ": " << error.what();
        }
    }
}

StylusTouchPoint sample(uint64_t t, int tag) {
    StylusTouchPoint p{};
    p.timestamp = t;
    p.tag = tag;
    return p;
}

TEST(LiveBatches, PenDownStartsABatchAndPenUpGoesAlone) {
    struct Case {
        std::vector<int> tags;
        std::vector<std::pair<std::size_t, std::size_t>> batches;  // first, count
    };
    const Case cases[] = {
        {{2, 2, 2}, {{0, 3}}},
        {{0, 2, 2}, {{0, 3}}},
        {{2, 1}, {{0, 1}, {1, 1}}},
        {{2, 1, 0, 2}, {{0, 1}, {1, 1}, {2, 2}}},
        {{1}, {{0, 1}}},
        {{0, 1, 0, 1}, {{0, 1}, {1, 1}, {2, 1}, {3, 1}}},
    };
    for (const Case& c : cases) {
        std::vector<StylusTouchPoint> samples;
        for (std::size_t i = 0; i < c.tags.size(); ++i) {
            samples.push_back(sample(i, c.tags[i]));
        }
        std::vector<std::pair<std::size_t, std::size_t>> got;
        for (const auto& range : live::LibraryBatches::cut(samples)) {
            got.emplace_back(range.first, range.count);
        }
        EXPECT_EQ(got, c.batches);
    }
}

TEST(LiveRateLimiter, TakesABurstThenTheRate) {
    live::RateLimiter limiter(10.0, 3.0);
    const auto t0 = live::RateLimiter::Clock::time_point{} + std::chrono::seconds(100);
    EXPECT_TRUE(limiter.allow(t0));
    EXPECT_TRUE(limiter.allow(t0));
    EXPECT_TRUE(limiter.allow(t0));
    EXPECT_FALSE(limiter.allow(t0));
    EXPECT_FALSE(limiter.allow(t0 + std::chrono::milliseconds(50)));  // half a token
    EXPECT_TRUE(limiter.allow(t0 + std::chrono::milliseconds(100)));
    EXPECT_FALSE(limiter.allow(t0 + std::chrono::milliseconds(100)));
    EXPECT_FALSE(limiter.allow(t0 - std::chrono::seconds(5)));  // a clock going back adds nothing
    EXPECT_TRUE(limiter.allow(t0 + std::chrono::seconds(60)));  // refilled, but only up to the burst
    EXPECT_TRUE(limiter.allow(t0 + std::chrono::seconds(60)));
    EXPECT_TRUE(limiter.allow(t0 + std::chrono::seconds(60)));
    EXPECT_FALSE(limiter.allow(t0 + std::chrono::seconds(60)));
}

TEST(LiveCommandLine, ReadsTheListenAddressAndRefusesBadValues) {
    struct Good {
        std::vector<std::string> args;
        std::string address;
        unsigned short port;
    };
    const Good good[] = {
        {{}, "127.0.0.1", 8765},
        {{"--listen", "0.0.0.0:80"}, "0.0.0.0", 80},
        {{"--listen=[::1]:0"}, "::1", 0},
        {{"--listen", "192.168.1.5:65535"}, "192.168.1.5", 65535},
    };
    for (const Good& g : good) {
        const auto options = live::LiveCommandLine::parse(g.args, "shipped.json", "replay");
        EXPECT_EQ(options.address, g.address);
        EXPECT_EQ(options.port, g.port);
        EXPECT_EQ(options.configPath, "shipped.json");
    }
    struct Bad {
        std::vector<std::string> args;
        const char* error;
    };
    const Bad bad[] = {
        {{"--listen", "localhost"}, "--listen: expected ADDR:PORT, not \"localhost\""},
        {{"--listen", "1.2.3.4:65536"}, "--listen: port must be 0 to 65535, not \"65536\""},
        {{"--listen", "1.2.3.4:-1"}, "port must be 0 to 65535"},
        {{"--listen"}, "--listen: missing value"},
        {{"--max-rate", "0"}, "--max-rate: expected a positive number, not \"0\""},
        {{"--burst", "many"}, "--burst: expected a positive number"},
        {{"--port", "1"}, "unknown option \"--port\""},
    };
    for (const Bad& b : bad) {
        try {
            live::LiveCommandLine::parse(b.args, "", "");
            ADD_FAILURE() << "accepted " << b.args[0];
        } catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find(b.error), std::string::npos) << error.what();
        }
    }
}

// ---- the server ------------------------------------------------------------------------------

std::string samplesMessage(uint64_t seq, const std::vector<std::string>& rows) {
    std::string text = "{\"type\":\"samples\",\"seq\":" + std::to_string(seq) + ",\"samples\":[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        text += (i ? "," : "") + rows[i];
    }
    return text + "]}";
}

std::string row(uint64_t t, double x, double y, int tag) {
    std::ostringstream text;
    text << "[" << t << "," << x << "," << y << ",0.5,0.6,1.2," << tag << "]";
    return text.str();
}

// A stroke of count samples 4 ms apart moving right, pen-down first; no pen-up.
std::vector<std::string> strokeRows(uint64_t t0, int count) {
    std::vector<std::string> rows;
    for (int i = 0; i < count; ++i) {
        rows.push_back(row(t0 + 4 * i, 100 + 3.0 * i, 200 + 1.0 * i, i == 0 ? 0 : 2));
    }
    return rows;
}

class LiveProcess {
public:
    LiveProcess(const std::string& recordings, const std::vector<std::string>& extra)
        : outPath(recordings + ".out"), logPath(recordings + ".log") {
        // The library's lines and any sanitizer report go to the log, shown when the exit status is not 0.
        std::vector<std::string> args{STYLUS_LIVE_PROGRAM, "--listen", "127.0.0.1:0", "--recordings", recordings,
                                      "--replay=", "--log", logPath};
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        const auto deadline = std::chrono::steady_clock::now() + startTimeout;
        const std::string marker = "listening on http://127.0.0.1:";
        while (port == 0 && std::chrono::steady_clock::now() < deadline) {
            std::ifstream out(outPath);
            std::string line;
            if (std::getline(out, line) && line.find(marker) != std::string::npos) {
                port = static_cast<unsigned short>(std::stoi(line.substr(line.find(marker) + marker.size())));
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
    }

    // SIGTERM; the exit status (0 when the server stopped cleanly and no sanitizer complained).
    int stop() {
        if (pid <= 0) {
            return -1;
        }
        kill(pid, SIGTERM);
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    ~LiveProcess() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    std::string output() const {
        std::ifstream out(outPath);
        std::ifstream log(logPath);
        std::ostringstream text;
        text << "--- output\n" << out.rdbuf() << "--- log\n" << log.rdbuf();
        const std::string all = text.str();
        return all.size() > 6000 ? all.substr(all.size() - 6000) : all;
    }

    unsigned short port = 0;
    std::string outPath;
    std::string logPath;

private:
    pid_t pid = -1;
};

// A page's end of the WebSocket, synchronous, every read bounded by a receive timeout.
class PageClient {
public:
    explicit PageClient(unsigned short port) {
        tcp::endpoint endpoint(net::ip::make_address("127.0.0.1"), port);
        ws.next_layer().connect(endpoint);
        const timeval timeout{20, 0};
        setsockopt(ws.next_layer().native_handle(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        ws.handshake("127.0.0.1:" + std::to_string(port), "/ws");
    }

    // A write the server cut off shows in the next read.
    void send(const std::string& text, bool binary = false) {
        ws.binary(binary);
        beast::error_code ignored;
        ws.write(net::buffer(text), ignored);
    }

    // The next message, or empty once the server has closed (then closeCode and closeReason).
    std::string read() {
        beast::flat_buffer buffer;
        beast::error_code code;
        ws.read(buffer, code);
        if (code) {
            closeCode = ws.reason().code;
            closeReason = std::string(ws.reason().reason.c_str());
            closed = true;
            return {};
        }
        return beast::buffers_to_string(buffer.data());
    }

    // Reads until a message of that type (returned) or the close (empty).
    std::string readType(const std::string& type) {
        while (true) {
            const std::string message = read();
            if (message.empty() || type == live::JsonValue::parse(message).find("type")->string()) {
                return message;
            }
        }
    }

    void dropConnection() {
        beast::error_code ignored;
        ws.next_layer().close(ignored);
    }

    net::io_context context;
    websocket::stream<tcp::socket> ws{context};
    bool closed = false;
    int closeCode = 0;
    std::string closeReason;
};

std::string field(const std::string& message, const std::string& key) {
    const auto doc = live::JsonValue::parse(message);
    const live::JsonValue* value = doc.find(key);
    return value != nullptr && value->kind() == live::JsonValue::Kind::String ? value->string() : std::string();
}

// A page that connects once the library is free again (a dropped page is noticed a moment later).
std::string connectWhenFree(unsigned short port, std::unique_ptr<PageClient>& client) {
    const auto deadline = std::chrono::steady_clock::now() + freeTimeout;
    while (true) {
        client = std::make_unique<PageClient>(port);
        const std::string first = client->read();
        if (first.find("\"ready\"") != std::string::npos || std::chrono::steady_clock::now() > deadline) {
            return first;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

class LiveServerTest : public ::testing::Test {
protected:
    void start(const std::vector<std::string>& extra = {}) {
        server = std::make_unique<LiveProcess>(dir.file("rec"), extra);
        ASSERT_NE(server->port, 0) << "stylus-live did not start:\n" << server->output();
    }

    void TearDown() override {
        if (server) {
            EXPECT_EQ(server->stop(), 0) << server->output();
        }
    }

    testkit::TempDir dir;
    std::unique_ptr<LiveProcess> server;
};

struct BadInput {
    const char* name;
    std::vector<std::string> before;  // valid messages first
    std::string message;
    bool binary;
    const char* error;  // expected in the error message; empty: no message, only the close
    int closeCode;
};

std::vector<BadInput> badInputs() {
    const std::string pad(70000, ' ');
    const std::string huge(4 * 65536 + 1, ' ');
    const auto firstBatch = samplesMessage(1, strokeRows(1000, 3));
    return {
        {"not JSON", {}, "hello", false, "invalid JSON at byte 0: expected a value", 1008},
        {"cut short", {}, "{\"type\":\"samples\",\"seq\":1,\"samples\":[[1,2", false, "invalid JSON", 1008},
        {"too deep", {}, "[[[[[[[[[[[[1]]]]]]]]]]]]", false, "at most 8 levels of nesting", 1008},
        {"not an object", {}, "[1,2]", false, "a message must be a JSON object", 1008},
        {"no type", {}, "{\"seq\":1}", false, "\"type\" must be a string", 1008},
        {"unknown type", {}, "{\"type\":\"draw\"}", false, "unknown message type \"draw\"", 1008},
        {"binary frame", {}, "{\"type\":\"finish\"}", true, "binary message", 1008},
        {"six fields", {}, samplesMessage(1, {"[1,2,3,0.5,0,0]"}), false,
         "sample 0: expected [timestamp, x, y, pressure, tilt, orientation, tag]", 1008},
        {"pressure above 1", {}, samplesMessage(1, {"[1,2,3,1.5,0,0,0]"}), false, "sample 0: pressure must be", 1008},
        {"tag 3", {}, samplesMessage(1, {"[1,2,3,0.5,0,0,3]"}), false, "sample 0: tag must be", 1008},
        {"fractional time", {}, samplesMessage(1, {"[1.5,2,3,0.5,0,0,0]"}), false, "timestamp (ms) must be a whole number", 1008},
        {"string for x", {}, samplesMessage(1, {"[1,\"2\",3,0.5,0,0,0]"}), false, "sample 0: x (pixels) must be", 1008},
        {"empty batch", {}, samplesMessage(1, {}), false, "\"samples\" must hold 1 to 256 samples, not 0", 1008},
        {"too many samples", {}, samplesMessage(1, strokeRows(1000, 257)), false, "1 to 256 samples, not 257", 1008},
        {"seq zero", {}, samplesMessage(0, strokeRows(1000, 3)), false, "\"seq\" must be a whole number from 1", 1008},
        {"record without on", {}, "{\"type\":\"record\"}", false, "\"on\" must be true or false", 1008},
        {"over the limit", {}, "{\"type\":\"finish\"}" + pad, false, "message of 70017 bytes is over the limit of 65536", 1009},
        {"far over the limit", {}, huge, false, "", 1009},
        {"batch skipped", {}, samplesMessage(2, strokeRows(1000, 3)), false, "batch 2 arrived after batch 0 (expected 1)", 1008},
        {"batch repeated", {firstBatch}, firstBatch, false, "batch 1 arrived after batch 1 (expected 2)", 1008},
        {"time going back", {firstBatch}, samplesMessage(2, {row(990, 1, 1, 2)}), false,
         "batch 2, sample 0: timestamp 990 ms is older than 1008 ms", 1008},
        {"move before pen down", {}, samplesMessage(1, {row(5, 1, 1, 2)}), false, "move outside a stroke", 1008},
        {"pen up before pen down", {}, samplesMessage(1, {row(5, 1, 1, 1)}), false, "pen up outside a stroke", 1008},
        {"pen down twice", {firstBatch}, samplesMessage(2, {row(1020, 1, 1, 0)}), false,
         "pen down inside a stroke (no pen up before it)", 1008},
    };
}

// Lines of the session's published recordings; a recording still open (.tmp) fails the test.
std::size_t finishedRecordingLines(const std::string& sessionDir) {
    std::size_t lines = 0;
    for (boost::filesystem::directory_iterator it(sessionDir), end; it != end; ++it) {
        EXPECT_NE(it->path().extension(), ".tmp") << it->path();
        if (it->path().extension() == ".dat") {
            std::ifstream file(it->path().string());
            for (std::string line; std::getline(file, line);) {
                ++lines;
            }
        }
    }
    return lines;
}

// One server takes every bad page in turn: each gets its answer and its close, and the next page
// is served as if nothing had happened.
TEST_F(LiveServerTest, EveryBadMessageIsAnsweredAndClosedWhileTheServerGoesOn) {
    start();
    for (const BadInput& bad : badInputs()) {
        SCOPED_TRACE(bad.name);
        PageClient page(server->port);
        ASSERT_NE(page.read().find("\"ready\""), std::string::npos);
        for (const std::string& valid : bad.before) {
            page.send(valid);
        }
        page.send(bad.message, bad.binary);
        const std::string answer = page.readType("error");
        if (*bad.error == '\0') {
            EXPECT_EQ(answer, "");
        } else {
            ASSERT_NE(answer, "") << "closed without an error message";
            EXPECT_NE(field(answer, "message").find(bad.error), std::string::npos) << field(answer, "message");
            EXPECT_EQ(page.read(), "");
        }
        EXPECT_TRUE(page.closed);
        EXPECT_EQ(page.closeCode, bad.closeCode);
    }
    PageClient good(server->port);
    ASSERT_NE(good.read().find("\"ready\""), std::string::npos);
    good.send(samplesMessage(1, strokeRows(1000, 12)));
    EXPECT_NE(good.readType("predictions"), "");
}

TEST_F(LiveServerTest, PredictsAStrokeAndRecordsItWithConsent) {
    start();
    PageClient page(server->port);
    const std::string ready = page.read();
    ASSERT_NE(ready.find("\"ready\""), std::string::npos) << ready;
    const std::string sessionDir = field(ready, "recording_dir");
    EXPECT_NE(ready.find("\"num_predictions\":5,\"step_ms\":4,\"pixel_per_inch\":213.000"), std::string::npos) << ready;
    page.send("{\"type\":\"record\",\"on\":true}");
    const std::string recording = page.readType("recording");
    EXPECT_NE(recording.find("\"on\":true,\"accepted\":true"), std::string::npos) << recording;

    // 30 samples in batches of 3, then a lone pen-up: all 31 recorded, predictions 4 ms apart.
    const auto rows = strokeRows(5000, 30);
    for (std::size_t i = 0; i < rows.size(); i += 3) {
        page.send(samplesMessage(i / 3 + 1, {rows.begin() + i, rows.begin() + i + 3}));
    }
    const std::string predictions = page.readType("predictions");
    ASSERT_NE(predictions, "");
    const auto doc = live::JsonValue::parse(predictions);
    const uint64_t base = static_cast<uint64_t>(doc.find("base")->number());
    const auto& points = doc.find("points")->array();
    ASSERT_FALSE(points.empty());
    EXPECT_EQ(points.size() + static_cast<std::size_t>(doc.find("dropped")->number()), 5u);
    for (std::size_t k = 0; k < points.size(); ++k) {
        EXPECT_EQ(points[k].array()[0].number(), static_cast<double>(base + 4 * (k + 1)));
    }
    page.send(samplesMessage(11, {row(5000 + 4 * 30, 190, 230, 1)}));
    page.send("{\"type\":\"finish\"}");
    const std::string finished = page.readType("finished");
    EXPECT_NE(finished.find("\"report\":null"), std::string::npos) << finished;  // --replay= : no report
    EXPECT_NE(field(finished, "command").find("--report '" + sessionDir + "/report.html'"), std::string::npos);
    EXPECT_NE(page.readType("ready"), "");  // drawing goes on in a new session

    std::vector<std::string> lines;
    for (boost::filesystem::directory_iterator it(sessionDir), end; it != end; ++it) {
        if (it->path().extension() == ".dat") {
            std::ifstream file(it->path().string());
            for (std::string line; std::getline(file, line);) {
                lines.push_back(line);
            }
        }
    }
    ASSERT_EQ(lines.size(), 1u + 31u);
    EXPECT_EQ(lines[0], "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag");
    EXPECT_EQ(lines[1], "5000,100.0000000,200.0000000,0.5000000,0.6000000,1.2000000,0");
    EXPECT_EQ(lines[31], "5120,190.0000000,230.0000000,0.5000000,0.6000000,1.2000000,1");
}

TEST_F(LiveServerTest, ASecondPageIsRefusedClearlyAndTheFirstDrawsOn) {
    start();
    PageClient first(server->port);
    ASSERT_NE(first.read().find("\"ready\""), std::string::npos);
    PageClient second(server->port);
    const std::string refusal = second.read();
    EXPECT_NE(field(refusal, "message").find("another page is drawing"), std::string::npos) << refusal;
    EXPECT_EQ(second.read(), "");
    EXPECT_EQ(second.closeCode, 1013);
    first.send(samplesMessage(1, strokeRows(1000, 12)));
    EXPECT_NE(first.readType("predictions"), "");
    first.ws.close(websocket::close_code::normal);

    // Nothing was recorded: of the three pages' sessions only the open one's directory is left.
    std::unique_ptr<PageClient> third;
    const std::string ready = connectWhenFree(server->port, third);
    ASSERT_NE(ready.find("\"ready\""), std::string::npos) << ready;
    std::vector<std::string> left;
    for (boost::filesystem::directory_iterator it(dir.file("rec")), end; it != end; ++it) {
        left.push_back(it->path().string());
    }
    EXPECT_EQ(left, std::vector<std::string>{field(ready, "recording_dir")});
}

TEST_F(LiveServerTest, APageGoneMidStrokeFreesTheLibraryAndItsRecordingIsFinished) {
    start();
    std::string sessionDir;
    {
        PageClient page(server->port);
        const std::string ready = page.read();
        sessionDir = field(ready, "recording_dir");
        page.send("{\"type\":\"record\",\"on\":true}");
        EXPECT_NE(page.readType("recording"), "");
        page.send(samplesMessage(1, strokeRows(1000, 8)));
        page.dropConnection();  // no close frame, no pen-up
    }
    std::unique_ptr<PageClient> next;
    EXPECT_NE(connectWhenFree(server->port, next).find("\"ready\""), std::string::npos);
    EXPECT_EQ(finishedRecordingLines(sessionDir), 1u + 8u);
}

TEST_F(LiveServerTest, APageSendingTooFastIsClosed) {
    start({"--max-rate", "0.001", "--burst", "3"});
    PageClient page(server->port);
    ASSERT_NE(page.read().find("\"ready\""), std::string::npos);
    const auto rows = strokeRows(1000, 5);
    for (int i = 0; i < 5; ++i) {
        page.send(samplesMessage(static_cast<uint64_t>(i + 1), {rows[static_cast<std::size_t>(i)]}));
    }
    const std::string answer = page.readType("error");
    EXPECT_NE(field(answer, "message").find("more than 0.001 messages per second (burst 3)"), std::string::npos) << answer;
    EXPECT_EQ(page.read(), "");
    EXPECT_EQ(page.closeCode, 1008);
}

TEST_F(LiveServerTest, StoppingFinishesTheOpenSessionsRecording) {
    start();
    PageClient page(server->port);
    const std::string sessionDir = field(page.read(), "recording_dir");
    page.send("{\"type\":\"record\",\"on\":true}");
    EXPECT_NE(page.readType("recording"), "");
    page.send(samplesMessage(1, strokeRows(1000, 6)));
    EXPECT_NE(page.readType("predictions"), "");
    EXPECT_EQ(server->stop(), 0) << server->output();
    EXPECT_EQ(page.read(), "");
    EXPECT_EQ(page.closeCode, 1001);  // going away
    EXPECT_EQ(page.closeReason, "stylus-live is stopping");
    EXPECT_EQ(finishedRecordingLines(sessionDir), 1u + 6u);
    server.reset();
}

}  // namespace
