// A scripted supplicant control socket: a Unix datagram server on its own thread.
#pragma once

#include <sys/un.h>

#include <map>
#include <mutex>

#include "tests/support/common.h"

class ScriptedSupplicant {
  public:
    struct Message {
        std::string text;
        std::chrono::milliseconds after{0};  // since the previous message or the request
    };
    // The messages to send for a command, in order; none means silence.
    using Script = std::function<std::vector<Message>(const std::string& command)>;

    // Sends the same text for every command.
    static Script Always(const std::string& text) {
        return [text](const std::string&) { return std::vector<Message>{{text}}; };
    }

    static constexpr char kWlan0[] = "/tmp/wpa_supplicant/wlan0";

    explicit ScriptedSupplicant(Script script, std::string path = kWlan0);
    ~ScriptedSupplicant();
    ScriptedSupplicant(const ScriptedSupplicant&) = delete;
    ScriptedSupplicant& operator=(const ScriptedSupplicant&) = delete;

    void SetScript(Script script);
    // Sends to the sender of the last request, once that is answered.
    void Push(const std::string& text);
    // How often `command` has come so far.
    int Count(const std::string& command);
    // Stops reading until Resume, so clients find the queue full.
    void Stall();
    void Resume();

  private:
    void Serve();
    void Answer(const std::vector<Message>& messages, const sockaddr_un& client);
    // Waits until the socket is readable or the time is over. Returns false when the server is to
    // end.
    bool Wait(std::chrono::milliseconds time, bool forRequest);
    void StartThread();
    void StopThread();

    std::string path_;
    int socket_ = -1;
    int wake_ = -1;
    std::mutex answering_;  // held from counting a request to the end of its answer
    std::mutex lock_;       // guards script_, commands_, client_
    Script script_;
    std::map<std::string, int> commands_;  // how often each has come
    sockaddr_un client_{};
    std::thread thread_;
};
