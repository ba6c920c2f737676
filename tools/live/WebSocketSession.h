// One page's WebSocket: its messages are checked and its samples sent through its own library
// session; predictions come back as they are made. A message that breaks the protocol, arrives too
// big or too fast gets an error message and the connection is closed; the server goes on.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "ClientMessage.h"
#include "PredictorSession.h"
#include "RateLimiter.h"
#include "SessionDirectory.h"
#include "StrokeOrder.h"

namespace live {

class LiveServer;

class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
public:
    WebSocketSession(boost::asio::ip::tcp::socket&& socket, LiveServer& server);
    ~WebSocketSession();

    void run(boost::beast::http::request<boost::beast::http::string_body> request);
    // The server is stopping: finishes the library session (and its recording) and closes.
    void shutdown();

private:
    void onAccept(boost::beast::error_code code);
    void startSession();
    void readNext();
    void onRead(boost::beast::error_code code, std::size_t bytes);
    void handle(const std::string& text);
    void handleSamples(const SamplesMessage& message);
    void handleRecord(const RecordMessage& message);
    void handleFinish();
    void reportDone(const FinishedSession& finished);
    void deliver(PredictionRecord&& record);
    void send(std::string text, bool droppable = false);
    void writeNext();
    void failAndClose(const std::string& message, boost::beast::websocket::close_code code);
    void release();

    boost::beast::websocket::stream<boost::beast::tcp_stream> ws;
    LiveServer& server;
    boost::beast::flat_buffer buffer;
    std::deque<std::string> outbox;
    bool writing = false;
    bool closing = false;  // no more reads; a close frame follows the queued messages
    bool closeStarted = false;
    boost::beast::websocket::close_reason closeReason;
    std::unique_ptr<PredictorSession> predictor;
    SessionSetup setup;
    StrokeOrder order;
    RateLimiter limiter;
};

}  // namespace live
