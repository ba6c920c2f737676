#include "LiveServer.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <stdexcept>

#include "HttpSession.h"
#include "WebSocketSession.h"

namespace live {

namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

// Long enough for the pages' close frames to go out, short enough for Ctrl-C to feel immediate.
constexpr auto closeGrace = std::chrono::milliseconds(300);

}  // namespace

LiveServer::LiveServer(const LiveOptions& options)
    : settings(options), signals(ioContext, SIGINT, SIGTERM), acceptor(ioContext), stopTimer(ioContext),
      reportRunner(options.replayPath, options.configPath) {
    boost::system::error_code code;
    const net::ip::address address = net::ip::make_address(settings.address, code);
    if (code) {
        throw std::runtime_error("--listen: \"" + settings.address + "\" is not an IP address");
    }
    const tcp::endpoint endpoint(address, settings.port);
    acceptor.open(endpoint.protocol(), code);
    if (!code) {
        acceptor.set_option(net::socket_base::reuse_address(true), code);
    }
    if (!code) {
        acceptor.bind(endpoint, code);
    }
    if (!code) {
        acceptor.listen(net::socket_base::max_listen_connections, code);
    }
    if (code) {
        throw std::runtime_error("cannot listen on " + settings.address + ":" + std::to_string(settings.port) + ": " +
                                 code.message());
    }
    boundPort = acceptor.local_endpoint().port();
}

LiveServer::~LiveServer() = default;

void LiveServer::run() {
    signals.async_wait([this](const boost::system::error_code& code, int) {
        if (!code) {
            std::cout << "stylus-live: stopping" << std::endl;
            stop();
        }
    });
    acceptNext();
    ioContext.run();
}

void LiveServer::acceptNext() {
    acceptor.async_accept([this](boost::system::error_code code, tcp::socket socket) {
        if (code) {
            if (!stopRequested) {
                std::cout << "stylus-live: accept: " << code.message() << std::endl;
                acceptNext();
            }
            return;
        }
        std::make_shared<HttpSession>(std::move(socket), *this)->run();
        acceptNext();
    });
}

void LiveServer::stop() {
    if (stopRequested) {
        return;
    }
    stopRequested = true;
    signals.cancel();
    boost::system::error_code ignored;
    acceptor.close(ignored);
    const auto open = sessions;  // shutting a session down removes it from the list
    for (const auto& weak : open) {
        if (const auto session = weak.lock()) {
            session->shutdown();
        }
    }
    stopTimer.expires_after(closeGrace);
    stopTimer.async_wait([this](const boost::system::error_code&) { ioContext.stop(); });
}

void LiveServer::add(const std::shared_ptr<WebSocketSession>& session) {
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(), [](const auto& weak) { return weak.expired(); }),
                   sessions.end());
    sessions.push_back(session);
}

void LiveServer::remove(const WebSocketSession* session) {
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(),
                                  [session](const auto& weak) {
                                      const auto locked = weak.lock();
                                      return !locked || locked.get() == session;
                                  }),
                   sessions.end());
}

}  // namespace live
