// The stylus-live server: serves the page and the session reports over HTTP, and each page's
// samples over a WebSocket at /ws. Everything runs on one I/O thread; the library's inference
// thread and the report runner only post to it. SIGINT and SIGTERM finish every session (the
// library's recording included) and end run().
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "LiveOptions.h"
#include "ReportRunner.h"

namespace live {

class WebSocketSession;

class LiveServer {
public:
    // Binds the listening socket; throws std::runtime_error naming the address when it cannot.
    explicit LiveServer(const LiveOptions& options);
    ~LiveServer();
    LiveServer(const LiveServer&) = delete;
    LiveServer& operator=(const LiveServer&) = delete;

    unsigned short port() const { return boundPort; }
    void run();
    // As a signal does; safe from the I/O thread only.
    void stop();

    boost::asio::io_context& context() { return ioContext; }
    const LiveOptions& options() const { return settings; }
    ReportRunner& reports() { return reportRunner; }
    bool stopping() const { return stopRequested; }

    void add(const std::shared_ptr<WebSocketSession>& session);
    void remove(const WebSocketSession* session);

private:
    void acceptNext();

    LiveOptions settings;
    boost::asio::io_context ioContext;
    boost::asio::signal_set signals;
    boost::asio::ip::tcp::acceptor acceptor;
    boost::asio::steady_timer stopTimer;
    ReportRunner reportRunner;
    std::vector<std::weak_ptr<WebSocketSession>> sessions;
    unsigned short boundPort = 0;
    bool stopRequested = false;
};

}  // namespace live
