// A supplicant's control socket that behaves as told: a Unix datagram server on a thread of its
// own.
#pragma once

#include <sys/un.h>

#include <map>
#include <mutex>

#include "tests/support/common.h"

class ScriptedSupplicant {
  public:
    struct Message {
        std::string text;
        std::chrono::milliseconds after{0};  // since the message before, or the request
    };
    // What to send for a command, in this order; nothing is silence.
    using Script = std::function<std::vector<Message>(const std::string& command)>;

    // The same text for every command.
    static Script Always(const std::string& text) {
        return [text](const std::string&) { return std::vector<Message>{{text}}; };
    }

    static constexpr char kWlan0[] = "/tmp/wpa_supplicant/wlan0";

    explicit ScriptedSupplicant(Script script, std::string path = kWlan0);
    ~ScriptedSupplicant();
    ScriptedSupplicant(const ScriptedSupplicant&) = delete;
    ScriptedSupplicant& operator=(const ScriptedSupplicant&) = delete;

    void SetScript(Script script);
    // Sends to whoever sent the last request, once that is answered.
    void Push(const std::string& text);
    // How many of `command` came so far.
    int Count(const std::string& command);
    // Makes clients find the queue full until Resume; without a reader nobody empties it.
    void Stall();
    void Resume();

  private:
    void Serve();
    void Answer(const std::vector<Message>& messages, const sockaddr_un& client);
    // Waits until the socket is readable or the time is over; false when the server is to end.
    bool Wait(std::chrono::milliseconds time, bool forRequest);
    void StartThread();
    void StopThread();

    std::string path_;
    int socket_ = -1;
    int wake_ = -1;
    std::mutex answering_;  // from counting a request to the end of its answer
    std::mutex lock_;       // script_, commands_, client_
    Script script_;
    std::map<std::string, int> commands_;  // how often each came
    sockaddr_un client_{};
    std::thread thread_;
};
