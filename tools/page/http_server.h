// A small HTTP/1.1 server for this PC only: a thread for each connection, every wait with a
// deadline, everything bounded. It knows nothing of what it serves.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/kv_raii.h"
#include "tools/base/wait.h"

namespace kvtool::page {

// Becomes an answer with this status.
class HttpError : public std::runtime_error {
  public:
    HttpError(unsigned status, const std::string& text)
        : std::runtime_error(text), status_(status) {}
    unsigned Status() const { return status_; }

  private:
    unsigned status_;
};

// Sends the body of an answer that has no end of its own.
class HttpStream {
  public:
    virtual ~HttpStream() = default;
    // Returns false if the client has gone or takes nothing for 15 s.
    virtual bool Write(std::string_view text) = 0;
    // Waits until `fd` is readable, at most until the deadline. Returns false once the client has
    // gone. Throws ToolError(kInterrupted) once the server stops.
    virtual bool Wait(int fd, Clock::time_point deadline) = 0;
};

struct HttpReply {
    unsigned status = 200;
    std::string type;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    // Instead of a body: runs on the connection's thread until it returns, then the connection
    // ends.
    std::function<void(HttpStream*)> stream;
};

// A request whose head has arrived.
class HttpCall {
  public:
    virtual ~HttpCall() = default;
    virtual std::string_view Method() const = 0;
    // Without the query. Nothing is decoded: a path with "%" or ".." in it is not a name.
    virtual std::string_view Path() const = 0;
    // The decoded value, or an empty text.
    virtual std::string Query(std::string_view name) const = 0;
    virtual std::string_view Header(std::string_view name) const = 0;
    // Gives the body piece by piece. A request without a length has no body. Throws HttpError: 411
    // for a chunked body, 413 beyond the limit, 400 if the client breaks off, 408 if it is silent
    // for 30 s.
    using Take = std::function<void(const uint8_t* data, size_t size)>;
    virtual void ReadBody(uint64_t limit, const Take& take) = 0;
    std::string Body(size_t limit);
};

// Called on many threads at once. A ToolError that it throws ends the connection; anything else
// becomes an answer.
using HttpHandler = std::function<HttpReply(HttpCall*)>;

class HttpServer {
  public:
    // Listens on 127.0.0.1 and, if the PC has it, on ::1. `port` 0: any free port. Throws
    // ToolError(kInternal) if the port is in use.
    explicit HttpServer(uint16_t port);
    // Stops.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    uint16_t Port() const { return port_; }
    // Serves on threads of its own and returns at once.
    void Start(HttpHandler handler);
    // Ends all connections and returns when their threads have ended.
    void Stop();

    // More connections get status 503.
    static constexpr size_t kMostConnections = 64;

  private:
    struct Connection {
        std::atomic<bool> over{false};
        std::thread thread;
    };

    void Accept(int listener);
    void Admit(UniqueFd fd);

    uint16_t port_ = 0;
    std::vector<UniqueFd> listeners_;
    HttpHandler handler_;
    Interrupt stop_;
    std::vector<std::thread> acceptors_;
    std::mutex mutex_;  // for the next member
    std::list<Connection> connections_;
};

}  // namespace kvtool::page
