// Searches for devices continuously and puts them into the model.
#pragma once

#include <map>
#include <string>
#include <thread>

#include "tools/device/watch.h"
#include "tools/page/model.h"

namespace kvtool::page {

// The devices that were ever seen, as the page shows them. Uses no clock and no network.
class DeviceList {
  public:
    explicit DeviceList(Model* model) : model_(model) {}

    // Takes a round of the watch. `time`: "2026-11-25T21:26:47.000Z".
    void Take(const WatchRound& round, const std::string& time);

    // The most devices in the list. Beyond it, those that have been gone longest are dropped first.
    static constexpr size_t kMost = 4096;

  private:
    // The JSON library allocates in its destructor. Without memory kvtool ends anyway.
    struct Known {  // NOLINT(bugprone-exception-escape)
        Json json;
        std::string firstSeen;
        std::string lastSeen;
        bool present = true;
    };
    void Show(const std::string& id, const Known& known);
    void Forget();

    Model* model_;
    std::map<std::string, Known> known_;
};

class DeviceWatch {
  public:
    // Searches on a thread of its own until it is destroyed.
    DeviceWatch(const DiscoveryRequest& search, Model* model);
    ~DeviceWatch();
    DeviceWatch(const DeviceWatch&) = delete;
    DeviceWatch& operator=(const DeviceWatch&) = delete;

  private:
    void Run();
    void Show(const DiscoveryResult& result, bool running, const std::string& trouble);

    WatchRequest request_;
    Model* model_;
    DeviceList list_;
    uint64_t sent_ = 0;
    Interrupt stop_;
    std::thread thread_;
};

}  // namespace kvtool::page
