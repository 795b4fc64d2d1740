// The control socket. Each request is a line with a JSON object that has a "command". Each reply is
// a line with a JSON object that has "ok" and, if that is false, "error" with one sentence.
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
    // `handle` returns the reply's fields or throws; `connection` identifies the requester.
    // `closed` is called when a connection ends.
    using Handler = std::function<nlohmann::json(int connection, const nlohmann::json& request)>;
    using Closed = std::function<void(int connection)>;

    ControlServer(Loop* loop, const StateDir& state, Handler handle, Closed closed);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Closes the stream towards a requester, which can still send until it closes its end.
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

// Who listens in a state folder.
enum class Runner { kBoard, kSite };

class ControlClient {
  public:
    // Throws when no runner is running with the state folder. `runner` is for messages only: it
    // does not check which kind answers.
    explicit ControlClient(const StateDir& state, Runner runner = Runner::kBoard);

    // Returns the reply, without "ok", or throws its error. Blocks until the runner answers.
    nlohmann::json Request(const nlohmann::json& request);
    // Becomes readable when the runner ends.
    int Fd() const { return socket_.Get(); }

  private:
    const char* name_;  // of what runs, for messages
    UniqueFd socket_;
};

}  // namespace vboard
