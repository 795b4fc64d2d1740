// The control socket: one JSON object a line in, one out. A request names its "command"; a reply
// has "ok" and, when that is false, "error" with one sentence.
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "common/kv_raii.h"
#include "vboard/loop.h"
#include "vboard/state.h"

namespace vboard {

class ControlServer {
  public:
    // `handle` gives the reply's fields or throws; `connection` tells requesters apart. `closed` is
    // told of each connection's end.
    using Handler = std::function<nlohmann::json(int connection, const nlohmann::json& request)>;
    using Closed = std::function<void(int connection)>;

    ControlServer(Loop* loop, const StateDir& state, Handler handle, Closed closed);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Ends the stream towards a requester. It is still heard, until it closes its end.
    void HangUp(int connection);

  private:
    struct Connection {
        UniqueFd socket;
        std::string pending;
    };
    void Accept();
    void Read(int fd);
    void Answer(int fd, const std::string& line);

    Loop* loop_;
    Handler handle_;
    Closed closed_;
    std::string socketFile_;
    UniqueFd listener_;
    std::map<int, Connection> connections_;
};

class ControlClient {
  public:
    // Throws when no board runs on the state folder.
    explicit ControlClient(const StateDir& state);

    // The reply; throws its error.
    nlohmann::json Request(const nlohmann::json& request);
    // Becomes readable when the runner ends.
    int Fd() const { return socket_.Get(); }

  private:
    UniqueFd socket_;
};

}  // namespace vboard
