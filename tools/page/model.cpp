#include "tools/page/model.h"

#include <sys/eventfd.h>

#include <algorithm>

#include "tools/base/errors.h"

namespace kvtool::page {

namespace {

constexpr size_t kMostNotes = 50;

// The object with one more key. `value` is JSON.
std::string With(const std::string& object, const std::string& key, const std::string& value) {
    const bool empty = object == "{}";
    return object.substr(0, object.size() - 1) + (empty ? "" : ",") + "\"" + key + "\":" + value +
           "}";
}

// The object with the keys of `more` after its own.
std::string Joined(const std::string& object, const std::string& more) {
    return more.size() <= 2 ? object : object.substr(0, object.size() - 1) + "," + more.substr(1);
}

std::string Event(const char* name, const std::string& data) {
    return std::string("event: ") + name + "\ndata: " + data + "\n\n";
}

template <typename Items, typename Text>
std::string List(const Items& items, const Text& textOf) {
    std::string list = "[";
    for (const auto& item : items) {
        list += list.size() > 1 ? "," : "";
        list += textOf(item);
    }
    return list + "]";
}

}  // namespace

void Model::Wake() {
    for (const int reader : readers_) {
        const uint64_t one = 1;
        const ssize_t ignored = write(reader, &one, sizeof one);
        (void)ignored;
    }
}

void Model::Set(Item* item, std::string text) {
    if (item->text != text) {
        item->text = std::move(text);
        item->changed = ++seq_;
        Wake();
    }
}

void Model::SetServer(const Json& server) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Set(&server_, JsonLine(server));
}

void Model::SetSearch(const Json& search) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Set(&search_, JsonLine(search));
}

void Model::SetDevice(const std::string& id, const Json& device, const std::string& lastSeen) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Device& known = devices_[id];
    known.lastSeen = lastSeen;
    Set(&known.item, JsonLine(device));
}

void Model::RemoveDevice(const std::string& id) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (devices_.erase(id) > 0) {
        reset_ = ++seq_;
        Wake();
    }
}

void Model::SetPackage(const Json& package) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Set(&package_, JsonLine(package));
}

void Model::SetPlan(const Json& plan) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Set(&plan_, JsonLine(plan));
}

void Model::SetRun(const Json& run) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Set(&run_, JsonLine(run));
}

void Model::ClearMembers() {
    const std::lock_guard<std::mutex> guard(mutex_);
    members_.clear();
    reset_ = ++seq_;
    Wake();
}

void Model::SetMember(size_t number, const Json& member) {
    const std::lock_guard<std::mutex> guard(mutex_);
    members_.resize(std::max(members_.size(), number + 1));
    members_[number].name = JsonLine(member.at("device"));
    Set(&members_[number].item, JsonLine(member));
}

void Model::SetProgress(size_t number, const Json& progress) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (number < members_.size()) {
        Set(&members_[number].progress, JsonLine(progress));
    }
}

void Model::Note(const std::string& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    notes_.emplace_back();
    Set(&notes_.back(), JsonLine({{"text", text}}));
    if (notes_.size() > kMostNotes) {
        notes_.pop_front();
    }
}

void Model::SetEnding(size_t underWay) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Set(&ending_, JsonLine({{"under_way", underWay}}));
}

std::string Model::DeviceText(const Device& device) const {
    return With(device.item.text, "last_seen", "\"" + device.lastSeen + "\"");
}

std::string Model::MemberText(const Member& member) const {
    return Joined(member.item.text, member.progress.text);
}

std::string Model::StateLocked() const {
    std::string run = run_.text;
    if (run != "null") {
        run = With(run, "members",
                   List(members_, [this](const Member& member) { return MemberText(member); }));
    }
    std::string state = JsonLine({{"schema", kJsonSchema}, {"seq", seq_}});
    state = With(state, "server", server_.text);
    state = With(state, "search", search_.text);
    state = With(state, "devices",
                 List(devices_, [this](const auto& one) { return DeviceText(one.second); }));
    state = With(state, "package", package_.text);
    state = With(state, "plan", plan_.text);
    return With(state, "run", run);
}

std::string Model::State() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return StateLocked();
}

std::string Model::EventsSince(uint64_t* seq) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    const uint64_t had = *seq;
    *seq = seq_;
    std::string events;
    const auto add = [&events, had](const char* name, const Item& item) {
        if (item.changed > had) {
            events += Event(name, item.text);
        }
    };
    const bool whole = had < reset_;
    if (whole) {
        events = Event("state", StateLocked());
    } else {
        for (const auto& [id, device] : devices_) {
            events += device.item.changed > had ? Event("device", DeviceText(device)) : "";
        }
        add("search", search_);
        add("package", package_);
        add("plan", plan_);
        add("run", run_);
        std::vector<std::string> progress;
        for (const Member& member : members_) {
            if (member.item.changed > had) {
                events += Event("member", MemberText(member));
            } else if (member.progress.changed > had) {
                progress.push_back(
                    Joined("{\"device\":" + member.name + "}", member.progress.text));
            }
        }
        if (!progress.empty()) {
            events += Event("progress", List(progress, [](const auto& text) { return text; }));
        }
        for (const Item& note : notes_) {
            add("note", note);
        }
    }
    // A reader that comes late must learn it too.
    add("ending", ending_);
    return events;
}

Model::Reader::Reader(Model* model) : model_(model), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) {
        throw ToolError(ExitCode::kInternal, "no descriptors are left");
    }
    const std::lock_guard<std::mutex> guard(model_->mutex_);
    model_->readers_.push_back(wake_.Get());
}

Model::Reader::~Reader() {
    const std::lock_guard<std::mutex> guard(model_->mutex_);
    auto& readers = model_->readers_;
    readers.erase(std::find(readers.begin(), readers.end(), wake_.Get()));
}

void Model::Reader::Rest() const {
    uint64_t count = 0;
    const ssize_t ignored = read(wake_.Get(), &count, sizeof count);
    (void)ignored;
}

}  // namespace kvtool::page
