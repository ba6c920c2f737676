#include "WebSocketSession.h"

#include <iostream>
#include <sstream>

#include <boost/asio/post.hpp>

#include "LiveServer.h"
#include "LibraryBatches.h"
#include "ProtocolError.h"
#include "ServerMessages.h"

namespace live {

namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace net = boost::asio;

namespace {

// Beyond this many unsent messages a slow page misses predictions rather than growing the queue.
constexpr std::size_t maxQueuedPredictions = 64;
// Messages between the page's limit and this are read and answered; bigger ones are cut off by the
// WebSocket layer itself (close code 1009).
constexpr std::size_t hardLimitFactor = 4;

}  // namespace

WebSocketSession::WebSocketSession(net::ip::tcp::socket&& socket, LiveServer& server)
    : ws(std::move(socket)), server(server),
      limiter(server.options().maxMessagesPerSecond, server.options().messageBurst) {}

WebSocketSession::~WebSocketSession() = default;

void WebSocketSession::run(beast::http::request<beast::http::string_body> request) {
    // Pings find a page that vanished without closing (a tablet off the network) and free the
    // library for the next one; a page that is open but idle answers them and stays.
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.keep_alive_pings = true;
    ws.set_option(timeouts);
    ws.read_message_max(server.options().maxMessageBytes * hardLimitFactor);
    ws.async_accept(request, [self = shared_from_this()](beast::error_code code) { self->onAccept(code); });
}

void WebSocketSession::onAccept(beast::error_code code) {
    if (code) {
        release();
        return;
    }
    startSession();
    if (!closing) {
        readNext();
    }
}

void WebSocketSession::startSession() {
    order = StrokeOrder{};
    setup = SessionSetup{};
    if (PredictorSession::inUse()) {
        failAndClose(PredictorSession::busyMessage, websocket::close_code::try_again_later);
        return;
    }
    try {
        setup = SessionDirectory::create(server.options().recordingsDir, server.options().configPath);
        const std::weak_ptr<WebSocketSession> weak = weak_from_this();
        auto executor = ws.get_executor();
        predictor = std::make_unique<PredictorSession>(setup.configPath, [weak, executor](PredictionRecord&& record) {
            net::post(executor, [weak, record = std::move(record)]() mutable {
                if (const auto self = weak.lock()) {
                    self->deliver(std::move(record));
                }
            });
        });
    } catch (const SessionBusy& busy) {
        SessionDirectory::removeIfUnrecorded(setup.directory);
        setup = SessionSetup{};
        failAndClose(busy.what(), websocket::close_code::try_again_later);
        return;
    } catch (const std::exception& error) {
        std::cout << "stylus-live: " << error.what() << std::endl;
        failAndClose(error.what(), websocket::close_code::internal_error);
        return;
    }
    std::cout << "stylus-live: page connected, session " << setup.directory << std::endl;
    SessionInfo info;
    info.name = setup.name;
    info.recordingDir = setup.directory;
    info.numPredictions = predictor->numPredictions();
    info.stepMs = setup.stepMs;
    info.pixelPerInch = setup.pixelPerInch;
    send(ServerMessages::ready(info));
}

void WebSocketSession::readNext() {
    ws.async_read(buffer, [self = shared_from_this()](beast::error_code code, std::size_t bytes) {
        self->onRead(code, bytes);
    });
}

void WebSocketSession::onRead(beast::error_code code, std::size_t bytes) {
    if (code) {
        // Closed by the page (also mid-stroke), cut off, over the hard size limit, or shut down.
        if (code != websocket::error::closed && code != net::error::operation_aborted) {
            std::cout << "stylus-live: connection ended: " << code.message() << std::endl;
        }
        release();
        return;
    }
    if (closing) {
        return;
    }
    const std::string text = beast::buffers_to_string(buffer.data());
    buffer.consume(buffer.size());
    try {
        if (!limiter.allow(RateLimiter::Clock::now())) {
            std::ostringstream text;
            text << "more than " << server.options().maxMessagesPerSecond << " messages per second (burst "
                 << server.options().messageBurst << ")";
            failAndClose(text.str(), websocket::close_code::policy_error);
            return;
        }
        if (bytes > server.options().maxMessageBytes) {
            failAndClose("message of " + std::to_string(bytes) + " bytes is over the limit of " +
                             std::to_string(server.options().maxMessageBytes),
                         websocket::close_code::too_big);
            return;
        }
        if (!ws.got_text()) {
            throw ProtocolError("binary message: messages are JSON text");
        }
        handle(text);
    } catch (const ProtocolError& error) {
        failAndClose(error.what(), websocket::close_code::policy_error);
        return;
    }
    if (!closing) {
        readNext();
    }
}

void WebSocketSession::handle(const std::string& text) {
    MessageLimits limits;
    limits.maxSamples = server.options().maxSamplesPerMessage;
    const ClientMessage message = decodeClientMessage(text, limits);
    if (const auto* samples = std::get_if<SamplesMessage>(&message)) {
        handleSamples(*samples);
    } else if (const auto* record = std::get_if<RecordMessage>(&message)) {
        handleRecord(*record);
    } else {
        handleFinish();
    }
}

void WebSocketSession::handleSamples(const SamplesMessage& message) {
    if (!predictor) {
        throw ProtocolError("samples while the session is finishing: wait for \"ready\"");
    }
    order.check(message);
    for (const BatchRange& range : LibraryBatches::cut(message.samples)) {
        if (!predictor->send(message.samples.data() + range.first, static_cast<int>(range.count))) {
            send(ServerMessages::refused(message.seq));
        }
    }
}

void WebSocketSession::handleRecord(const RecordMessage& message) {
    if (!predictor) {
        throw ProtocolError("record while the session is finishing: wait for \"ready\"");
    }
    const bool accepted = predictor->setRecording(message.on);
    send(ServerMessages::recording(message.on, accepted, setup.directory));
}

void WebSocketSession::handleFinish() {
    if (!predictor) {
        throw ProtocolError("finish while the session is finishing: wait for \"ready\"");
    }
    predictor.reset();  // finishes the recording
    FinishedSession finished;
    const std::string directory = setup.directory;
    finished.name = setup.name;
    finished.recordingDir = setup.directory;
    finished.command = server.reports().command(setup.directory);
    const std::weak_ptr<WebSocketSession> weak = weak_from_this();
    auto executor = ws.get_executor();
    server.reports().run(directory, [weak, executor, finished, directory](const std::string& problem) {
        if (!problem.empty()) {
            SessionDirectory::removeIfUnrecorded(directory);
        }
        net::post(executor, [weak, finished, problem]() mutable {
            if (const auto self = weak.lock()) {
                finished.problem = problem;
                if (problem.empty()) {
                    finished.reportUrl = "/sessions/" + finished.name + "/report.html";
                }
                self->reportDone(finished);
            }
        });
    });
}

void WebSocketSession::reportDone(const FinishedSession& finished) {
    if (closing || server.stopping()) {
        return;
    }
    send(ServerMessages::finished(finished));
    startSession();  // the page draws on into a new session
}

void WebSocketSession::deliver(PredictionRecord&& record) {
    if (predictor) {
        send(ServerMessages::predictions(record, predictor->numPredictions()), true);
    }
}

void WebSocketSession::send(std::string text, bool droppable) {
    if (closing || (droppable && outbox.size() >= maxQueuedPredictions)) {
        return;
    }
    outbox.push_back(std::move(text));
    if (!writing) {
        writeNext();
    }
}

void WebSocketSession::writeNext() {
    if (outbox.empty()) {
        writing = false;
        if (closing && !closeStarted) {
            closeStarted = true;
            writing = true;
            ws.async_close(closeReason, [self = shared_from_this()](beast::error_code) {
                self->writing = false;
                self->release();
            });
        }
        return;
    }
    writing = true;
    ws.text(true);
    ws.async_write(net::buffer(outbox.front()), [self = shared_from_this()](beast::error_code code, std::size_t) {
        self->outbox.pop_front();
        if (code) {
            self->outbox.clear();
            self->writing = false;
            self->closing = true;
            self->closeStarted = true;
            self->release();
            return;
        }
        self->writeNext();
    });
}

void WebSocketSession::failAndClose(const std::string& message, websocket::close_code code) {
    if (closing) {
        return;
    }
    std::cout << "stylus-live: closing a page's connection: " << message << std::endl;
    release();
    send(ServerMessages::error(message));
    closing = true;
    // A close reason must fit a control frame (123 bytes); the whole text went in the error message.
    closeReason = websocket::close_reason(code, message.substr(0, 120));
    if (!writing) {
        writeNext();
    }
}

void WebSocketSession::shutdown() {
    if (closing) {
        release();
        return;
    }
    release();
    closing = true;
    closeReason = websocket::close_reason(websocket::close_code::going_away, "stylus-live is stopping");
    if (!writing) {
        writeNext();
    }
}

void WebSocketSession::release() {
    if (predictor) {
        predictor.reset();
        SessionDirectory::removeIfUnrecorded(setup.directory);
    }
    server.remove(this);
}

}  // namespace live
