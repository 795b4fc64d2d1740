#include "tools/page/http_connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <limits>

#include "tools/base/errors.h"
#include "tools/base/json.h"
#include "tools/base/text.h"

namespace kvtool::page {

namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using ErrorCode = boost::system::error_code;

constexpr uint32_t kHeadLimit = 8192;
constexpr size_t kBufferLimit = 65536;
constexpr Millis kHeadTime{15000};   // for a whole head, idle time included
constexpr Millis kSilence{30000};    // longest silence inside a body
constexpr Millis kWriteTime{15000};  // longest time in which a client takes nothing
constexpr Millis kLinger{3000};      // how long the rest of a refused body may still come

// A socket with the functions that Beast calls. Every wait has a deadline and ends with this
// thread's interrupt.
class Socket {
  public:
    explicit Socket(UniqueFd fd) : fd_(std::move(fd)) {
        const int on = 1;
        (void)setsockopt(fd_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    int Fd() const { return fd_.Get(); }
    void ReadUntil(Clock::time_point deadline) { deadline_ = deadline; }

    template <typename Buffers>
    size_t read_some(const Buffers& buffers, ErrorCode& error) {
        const boost::asio::mutable_buffer buffer = *boost::asio::buffer_sequence_begin(buffers);
        for (;;) {
            const ssize_t n = recv(fd_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n > 0) {
                error = {};
                return static_cast<size_t>(n);
            }
            if (n == 0) {
                error = boost::asio::error::eof;
                return 0;
            }
            if (errno != EAGAIN && errno != EINTR) {
                error = boost::asio::error::connection_reset;
                return 0;
            }
            if (WaitFor(fd_.Get(), POLLIN, deadline_) == 0) {
                error = boost::asio::error::timed_out;
                return 0;
            }
        }
    }
    template <typename Buffers>
    size_t read_some(const Buffers& buffers) {
        ErrorCode error;
        const size_t n = read_some(buffers, error);
        if (error) {
            throw boost::system::system_error(error);
        }
        return n;
    }

    // Whether the client has taken all of it.
    bool Write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t n = send(fd_.Get(), text.data(), text.size(), MSG_NOSIGNAL);
            if (n > 0) {
                text.remove_prefix(static_cast<size_t>(n));
            } else if (errno != EAGAIN && errno != EINTR) {
                return false;
            } else if (WaitFor(fd_.Get(), POLLOUT, Clock::now() + kWriteTime) == 0) {
                return false;
            }
        }
        return true;
    }

    // Closing a socket that has unread bytes throws away what the client has not received yet.
    void Linger() {
        (void)shutdown(fd_.Get(), SHUT_WR);
        const Clock::time_point end = Clock::now() + kLinger;
        std::array<char, 16384> buffer{};
        while (WaitFor(fd_.Get(), POLLIN, end) != 0 && Clock::now() < end) {
            const ssize_t n = recv(fd_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                return;
            }
        }
    }

  private:
    UniqueFd fd_;
    Clock::time_point deadline_;
};

int HexDigit(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

std::string Decoded(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool escape = text[i] == '%' && i + 2 < text.size() && HexDigit(text[i + 1]) >= 0 &&
                            HexDigit(text[i + 2]) >= 0;
        if (escape) {
            out += static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
            i += 2;
        } else {
            out += text[i] == '+' ? ' ' : text[i];
        }
    }
    return out;
}

std::string_view View(beast::string_view text) {
    return {text.data(), text.size()};
}

using Parser = http::request_parser<http::buffer_body>;

class Call : public HttpCall {
  public:
    Call(Socket* socket, beast::flat_buffer* buffer, Parser* parser)
        : socket_(socket), buffer_(buffer), parser_(parser) {}

    std::string_view Method() const override { return View(parser_->get().method_string()); }
    std::string_view Path() const override {
        const std::string_view target = View(parser_->get().target());
        return target.substr(0, target.find('?'));
    }
    std::string Query(std::string_view name) const override {
        const std::string_view target = View(parser_->get().target());
        const size_t mark = target.find('?');
        std::string_view rest = mark == std::string_view::npos ? "" : target.substr(mark + 1);
        while (!rest.empty()) {
            const std::string_view pair = rest.substr(0, rest.find('&'));
            rest.remove_prefix(std::min(rest.size(), pair.size() + 1));
            const size_t equals = pair.find('=');
            if (pair.substr(0, equals) == name && equals != std::string_view::npos) {
                return Decoded(pair.substr(equals + 1));
            }
        }
        return "";
    }
    // A browser sends no header twice. If one comes twice, neither counts.
    std::string_view Header(std::string_view name) const override {
        const auto range = parser_->get().equal_range(beast::string_view(name.data(), name.size()));
        const bool one = range.first != range.second && std::next(range.first) == range.second;
        return one ? View(range.first->value()) : std::string_view();
    }
    void ReadBody(uint64_t limit, const Take& take) override;

    // Whether nothing of the body is left on the connection.
    bool Finished() const { return parser_->is_done(); }

  private:
    Socket* socket_;
    beast::flat_buffer* buffer_;
    Parser* parser_;
};

void Call::ReadBody(uint64_t limit, const Take& take) {
    const auto length = parser_->content_length();
    if (!length && parser_->chunked()) {
        throw HttpError(411, "the request must state its length");
    }
    if (length && *length > limit) {
        throw HttpError(413, "the request has " + std::to_string(*length) +
                                 " bytes; the limit is " + std::to_string(limit));
    }
    if (View(parser_->get()[http::field::expect]) == "100-continue" &&
        !socket_->Write("HTTP/1.1 100 Continue\r\n\r\n")) {
        throw HttpError(400, "the client has gone");
    }
    std::array<uint8_t, 16384> piece{};
    while (!parser_->is_done()) {
        auto& body = parser_->get().body();
        body.data = piece.data();
        body.size = piece.size();
        socket_->ReadUntil(Clock::now() + kSilence);
        ErrorCode error;
        (void)http::read_some(*socket_, *buffer_, *parser_, error);
        if (error == boost::asio::error::timed_out) {
            throw HttpError(408, "the rest of the request did not come");
        }
        if (error && error != http::error::need_buffer) {
            throw HttpError(400, "the request broke off");
        }
        take(piece.data(), piece.size() - body.size);
    }
}

class Stream : public HttpStream {
  public:
    explicit Stream(Socket* socket) : socket_(socket), waits_(epoll_create1(EPOLL_CLOEXEC)) {
        Watch(socket->Fd(), EPOLLRDHUP);
    }
    bool Write(std::string_view text) override { return socket_->Write(text); }
    bool Wait(int fd, Clock::time_point deadline) override {
        if (fd != watched_) {
            Watch(fd, EPOLLIN);
            watched_ = fd;
        }
        (void)WaitFor(waits_.Get(), POLLIN, deadline);
        pollfd client{socket_->Fd(), POLLRDHUP, 0};
        return poll(&client, 1, 0) == 0;
    }

  private:
    void Watch(int fd, uint32_t events) const {
        epoll_event event{};
        event.events = events;
        if (epoll_ctl(waits_.Get(), EPOLL_CTL_ADD, fd, &event) != 0) {
            throw ToolError(ExitCode::kInternal, "cannot wait for a connection");
        }
    }

    Socket* socket_;
    UniqueFd waits_;
    int watched_ = -1;
};

HttpReply ErrorReply(unsigned status, const std::string& text) {
    HttpReply reply;
    reply.status = status;
    reply.type = "application/json";
    reply.body = JsonLine({{"schema", kJsonSchema}, {"error", text}}) + "\n";
    return reply;
}

HttpReply Answer(const HttpHandler& handler, Call* call) {
    try {
        return handler(call);
    } catch (const HttpError& error) {
        return ErrorReply(error.Status(), error.what());
    } catch (const ToolError&) {
        throw;
    } catch (const std::exception& error) {
        return ErrorReply(500, std::string("internal error: ") + Printable(error.what()));
    }
}

std::string Head(const HttpReply& reply, bool keep) {
    const auto status = static_cast<http::status>(reply.status);
    std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " " +
                       std::string(View(http::obsolete_reason(status))) + "\r\n";
    const auto add = [&head](const std::string& name, const std::string& value) {
        head += name + ": " + value + "\r\n";
    };
    if (!reply.type.empty()) {
        add("Content-Type", reply.type);
    }
    for (const auto& [name, value] : reply.headers) {
        add(name, value);
    }
    if (!reply.stream && reply.status != 304) {
        add("Content-Length", std::to_string(reply.body.size()));
    }
    add("Connection", keep ? "keep-alive" : "close");
    return head + "\r\n";
}

// Returns whether another request may follow.
bool ServeRequest(Socket* socket, beast::flat_buffer* buffer, const HttpHandler& handler) {
    Parser parser;
    parser.header_limit(kHeadLimit);
    // ReadBody checks the limit itself. Beast would take "none" for a limit below any length.
    parser.body_limit(std::numeric_limits<uint64_t>::max());
    socket->ReadUntil(Clock::now() + kHeadTime);
    ErrorCode error;
    (void)http::read_header(*socket, *buffer, parser, error);
    if (error) {
        const bool broken =
            error.category() == http::make_error_code(http::error::bad_target).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message;
        if (broken) {
            const HttpReply refusal = ErrorReply(400, "not a request that this server understands");
            (void)socket->Write(Head(refusal, false) + refusal.body);
            socket->Linger();
        }
        return false;
    }
    Call call(socket, buffer, &parser);
    const HttpReply reply = Answer(handler, &call);
    const bool keep = parser.keep_alive() && call.Finished() && !reply.stream;
    const bool body = call.Method() != "HEAD" && reply.status != 304;
    if (!socket->Write(Head(reply, keep) + (body ? reply.body : ""))) {
        return false;
    }
    if (reply.stream && body) {
        Stream stream(socket);
        reply.stream(&stream);
    }
    if (!call.Finished()) {
        socket->Linger();
    }
    return keep;
}

}  // namespace

void ServeConnection(UniqueFd fd, const HttpHandler& handler) noexcept {
    try {
        Socket socket(std::move(fd));
        beast::flat_buffer buffer(kBufferLimit);
        while (ServeRequest(&socket, &buffer, handler)) {
        }
    } catch (const std::exception&) {
        // Interrupted, or out of memory or descriptors: the client sees the connection end.
    }
}

}  // namespace kvtool::page
