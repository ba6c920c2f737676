#include "HttpSession.h"

#include <fstream>
#include <sstream>

#include <boost/beast/websocket.hpp>

#include "LiveServer.h"
#include "PageContent.h"
#include "WebSocketSession.h"

namespace live {

namespace beast = boost::beast;
namespace http = beast::http;

namespace {

constexpr auto readTimeout = std::chrono::seconds(30);
constexpr std::size_t maxRequestBytes = 8 * 1024;

// /sessions/<name>/<file> of the files a finished session gets; names are ours, so anything else
// (a dot, a slash, an escape) is refused before the file system is touched.
bool reportFile(const std::string& target, std::string& name, std::string& file) {
    const std::string prefix = "/sessions/";
    if (target.rfind(prefix, 0) != 0) {
        return false;
    }
    const std::size_t slash = target.find('/', prefix.size());
    if (slash == std::string::npos) {
        return false;
    }
    name = target.substr(prefix.size(), slash - prefix.size());
    file = target.substr(slash + 1);
    if (name.empty() || name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") != std::string::npos) {
        return false;
    }
    return file == "report.html" || file == "summary.json";
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket&& socket, LiveServer& server)
    : stream(std::move(socket)), server(server) {}

void HttpSession::run() { readNext(); }

void HttpSession::readNext() {
    parser.emplace();
    parser->header_limit(maxRequestBytes);
    parser->body_limit(maxRequestBytes);
    stream.expires_after(readTimeout);
    http::async_read(stream, buffer, *parser,
                     [self = shared_from_this()](beast::error_code code, std::size_t) { self->onRead(code); });
}

void HttpSession::onRead(beast::error_code code) {
    if (code) {
        beast::error_code ignored;
        stream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
        return;
    }
    Request request = parser->release();
    if (beast::websocket::is_upgrade(request) && request.target() == "/ws" && !server.stopping()) {
        stream.expires_never();
        const auto session = std::make_shared<WebSocketSession>(stream.release_socket(), server);
        server.add(session);
        session->run(std::move(request));
        return;
    }
    write(std::make_shared<Response>(respond(request)));
}

HttpSession::Response HttpSession::respond(const Request& request) const {
    Response response;
    response.version(request.version());
    response.keep_alive(request.keep_alive());
    response.set(http::field::server, "stylus-live");
    response.set(http::field::cache_control, "no-store");
    auto plain = [&](http::status status, const std::string& text) {
        response.result(status);
        response.set(http::field::content_type, "text/plain; charset=utf-8");
        response.body() = text + "\n";
    };
    const std::string target(request.target());
    std::string name;
    std::string file;
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        plain(http::status::method_not_allowed, "only GET");
    } else if (target == "/" || target == "/index.html") {
        response.result(http::status::ok);
        response.set(http::field::content_type, "text/html; charset=utf-8");
        response.body() = pageHtml;
    } else if (reportFile(target, name, file)) {
        std::ifstream input(server.options().recordingsDir + "/" + name + "/" + file, std::ios::binary);
        if (!input) {
            plain(http::status::not_found, "no " + file + " for session " + name + " (yet)");
        } else {
            std::ostringstream content;
            content << input.rdbuf();
            response.result(http::status::ok);
            response.set(http::field::content_type,
                         file == "summary.json" ? "application/json" : "text/html; charset=utf-8");
            response.body() = content.str();
        }
    } else if (target == "/ws") {
        plain(http::status::bad_request, server.stopping() ? "the server is stopping" : "/ws takes WebSocket upgrades only");
    } else {
        plain(http::status::not_found, "not found: " + target);
    }
    response.prepare_payload();
    if (request.method() == http::verb::head) {
        response.body().clear();
    }
    return response;
}

void HttpSession::write(std::shared_ptr<Response> response) {
    const bool keepAlive = response->keep_alive();
    http::async_write(stream, *response,
                      [self = shared_from_this(), response, keepAlive](beast::error_code code, std::size_t) {
                          if (!code && keepAlive) {
                              self->readNext();
                              return;
                          }
                          beast::error_code ignored;
                          self->stream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
                      });
}

}  // namespace live
