// One HTTP connection: the page at /, the session reports under /sessions/, and the hand-over of
// an upgrade request at /ws to a WebSocketSession.
#pragma once

#include <memory>
#include <optional>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace live {

class LiveServer;

class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(boost::asio::ip::tcp::socket&& socket, LiveServer& server);
    void run();

private:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    void readNext();
    void onRead(boost::beast::error_code code);
    Response respond(const Request& request) const;
    void write(std::shared_ptr<Response> response);

    boost::beast::tcp_stream stream;
    boost::beast::flat_buffer buffer;
    LiveServer& server;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser;
};

}  // namespace live
