// Everything that the page shows, as JSON, and which parts have changed. Every reader asks for what
// is newer than what it has, so a slow reader takes no memory.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/kv_raii.h"
#include "tools/base/json.h"

namespace kvtool::page {

// May be used on any thread. No call blocks.
class Model {
  public:
    // Call it once: it does not change later.
    void SetServer(const Json& server);
    void SetSearch(const Json& search);
    // A new `lastSeen` alone does not count as a change.
    void SetDevice(const std::string& id, const Json& device, const std::string& lastSeen);
    void RemoveDevice(const std::string& id);
    // Null: there is no package.
    void SetPackage(const Json& package);
    void SetPlan(const Json& plan);
    void SetRun(const Json& run);
    // Sets a member of the run by its number.
    void SetMember(size_t number, const Json& member);
    void ClearMembers();
    // Sets the keys of a member that change during its upload.
    void SetProgress(size_t number, const Json& progress);
    // A message for people. Only the latest few are kept.
    void Note(const std::string& text);
    // The server is ending and waits for this many devices.
    void SetEnding(size_t underWay);

    // One object, as in docs/kvtool-json.md.
    std::string State() const;
    // The events after number `*seq`, which becomes the latest number. A call with 0 gives the
    // whole state.
    std::string EventsSince(uint64_t* seq) const;

    // While it lives, its descriptor becomes readable when something has changed.
    class Reader {
      public:
        explicit Reader(Model* model);
        ~Reader();
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;
        int Fd() const { return wake_.Get(); }
        // Call it before EventsSince.
        void Rest() const;

      private:
        Model* model_;
        UniqueFd wake_;
    };

  private:
    struct Item {
        std::string text;
        uint64_t changed = 0;
    };
    struct Device {
        Item item;
        std::string lastSeen;
    };
    struct Member {
        Item item;
        Item progress;
        std::string name;  // its `device`
    };

    void Set(Item* item, std::string text);
    void Wake();
    std::string StateLocked() const;
    std::string DeviceText(const Device& device) const;
    std::string MemberText(const Member& member) const;

    mutable std::mutex mutex_;
    uint64_t seq_ = 1;
    uint64_t reset_ = 1;  // a reader that has less gets the whole state
    Item server_{"null", 1};
    Item search_{"null", 1};
    Item package_{"null", 1};
    Item plan_{"null", 1};
    Item run_{"null", 1};
    Item ending_;
    std::map<std::string, Device> devices_;
    std::vector<Member> members_;
    std::deque<Item> notes_;
    std::vector<int> readers_;
};

}  // namespace kvtool::page
