#include "tools/cli/watch_view.h"

#include <poll.h>

#include <algorithm>
#include <ctime>

#include "tools/base/json.h"
#include "tools/device/device_json.h"

namespace kvtool {

namespace {

using Kind = DeviceChange::Kind;

constexpr Millis kSilent{3000};      // silence that the table mentions
constexpr Millis kGoneShown{60000};  // how long the table shows devices that are gone
constexpr size_t kChangesShown = 3;
constexpr size_t kWarningsShown = 3;

std::string TimeText(const char* format, bool utc) {
    const time_t now = time(nullptr);
    tm parts{};
    (void)(utc ? gmtime_r(&now, &parts) : localtime_r(&now, &parts));
    char text[32];
    return std::string(text, strftime(text, sizeof text, format, &parts));
}

const char* KindName(Kind kind) {
    return kind == Kind::kAppeared ? "appeared" : kind == Kind::kChanged ? "changed" : "gone";
}

// The keys that differ, with their former values.
Json Before(const DeviceChange& change) {
    Json now = FoundJson(change.device);
    Json before = FoundJson(change.before);
    // It is not a change if the device answers from additional addresses.
    if (change.device.Address() == change.before.Address()) {
        before.erase("senders");
    }
    for (const auto& [key, value] : now.items()) {
        if (before.value(key, value) == value) {
            before.erase(key);
        }
    }
    return before;
}

std::string Value(const Json& value) {
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    return text.empty() ? "-" : text;
}

std::string OrDash(const std::string& text) {
    return text.empty() ? "-" : Printable(text);
}

std::string ChangeText(const DeviceChange& change) {
    const FoundDevice& device = change.device;
    std::string text =
        TimeText("%H:%M:%S ", false) + KindName(change.kind) + " " + OrDash(device.reply.mac);
    if (change.kind != Kind::kChanged) {
        return text + " " + OrDash(device.Address());
    }
    Json now = FoundJson(device);
    Json before = Before(change);
    // People need only one address: the one at which the device can be reached.
    if (before.erase("senders") > 0) {
        before["address"] = change.before.Address();
        now["address"] = device.Address();
    }
    const char* separator = " ";
    for (const auto& [key, value] : before.items()) {
        text += separator + key + " " + Value(value) + " -> " + Value(now.at(key));
        separator = ", ";
    }
    return text;
}

// Without this check, kvtool would notice a pipe without a reader only at the next change.
bool HasReader(FILE* out) {
    pollfd entry{fileno(out), 0, 0};
    return poll(&entry, 1, 0) <= 0 || (entry.revents & (POLLERR | POLLHUP)) == 0;
}

Json Event(const char* event) {
    return {{"schema", kJsonSchema},
            {"command", "discover"},
            {"event", event},
            {"time", TimeText("%Y-%m-%dT%H:%M:%SZ", true)}};
}

std::string StateText(const WatchedDevice& device) {
    if (device.silent < kSilent) {
        return device.found.State();
    }
    return "silent " + std::to_string(device.silent.count() / 1000) + " s";
}

}  // namespace

bool WatchView::Show(const WatchRound& round) {
    for (const DeviceChange& change : round.changes) {
        Tell(change);
    }
    for (const std::string& text : round.warnings) {
        if (std::find(warnings_.begin(), warnings_.end(), text) == warnings_.end()) {
            TellWarning(text);
        }
    }
    warnings_ = round.warnings;
    if (style_ == Style::kTable) {
        ShowTable(round);
    }
    return fflush(out_) == 0 && ferror(out_) == 0 && HasReader(out_);
}

void WatchView::End() {
    if (style_ == Style::kTable) {
        live_.Show(table_);
    }
}

void WatchView::Tell(const DeviceChange& change) {
    if (style_ == Style::kJson) {
        Json json = Event(KindName(change.kind));
        json["device"] = FoundJson(change.device);
        if (change.kind == Kind::kChanged) {
            json["before"] = Before(change);
        }
        Line(JsonLine(json));
        return;
    }
    if (style_ == Style::kLines) {
        const bool firmware = change.kind == Kind::kAppeared;
        Line(ChangeText(change) +
             (firmware ? " " + OrDash(change.device.reply.firmware) : std::string()));
        return;
    }
    last_.push_back(ChangeText(change));
    if (last_.size() > kChangesShown) {
        last_.pop_front();
    }
    Remember(change);
}

void WatchView::TellWarning(const std::string& text) {
    if (style_ == Style::kJson) {
        Json json = Event("warning");
        json["text"] = text;
        Line(JsonLine(json));
    } else if (style_ == Style::kLines) {
        Line(TimeText("%H:%M:%S ", false) + "warning: " + text);
    }
}

void WatchView::Line(const std::string& text) {
    (void)fprintf(out_, "%s\n", text.c_str());
}

void WatchView::Remember(const DeviceChange& change) {
    const DiscoveryReply& reply = change.device.reply;
    gone_.erase(std::remove_if(gone_.begin(), gone_.end(),
                               [&reply](const GoneDevice& gone) {
                                   const DiscoveryReply& other = gone.device.reply;
                                   return other.mac == reply.mac &&
                                          (!reply.mac.empty() || other.ip == reply.ip);
                               }),
                gone_.end());
    if (change.kind == Kind::kGone) {
        gone_.push_back({change.device, Clock::now()});
    }
}

void WatchView::ShowTable(const WatchRound& round) {
    std::vector<DeviceRow> rows;
    for (const WatchedDevice& device : round.devices) {
        rows.push_back({device.found, StateText(device)});
    }
    gone_.erase(std::remove_if(
                    gone_.begin(), gone_.end(),
                    [](const GoneDevice& gone) { return Clock::now() - gone.since > kGoneShown; }),
                gone_.end());
    for (const GoneDevice& gone : gone_) {
        rows.push_back({gone.device, "gone"});
    }
    std::vector<std::string> below;
    for (const std::string& warning : warnings_) {
        below.push_back("warning: " + warning);
    }
    if (below.size() > kWarningsShown) {
        const size_t more = below.size() - kWarningsShown + 1;
        below.resize(kWarningsShown - 1);
        below.push_back("… and " + std::to_string(more) + " more warnings");
    }
    below.insert(below.end(), last_.begin(), last_.end());
    below.push_back(std::to_string(round.devices.size()) + " found");

    const TerminalSize size = SizeOf(out_);
    table_ = DeviceTable(std::move(rows), size.columns - 1);
    // Keep one row free for the cursor and one for the number of rows that are left out.
    const size_t room = size.rows > below.size() + 3 ? size.rows - below.size() - 1 : 2;
    if (table_.size() > room) {
        const size_t more = table_.size() - room + 1;
        table_.resize(room - 1);
        table_.push_back("… and " + std::to_string(more) + " more");
    }
    table_.insert(table_.end(), below.begin(), below.end());
    std::vector<std::string> shown = table_;
    shown.back() += "; Ctrl-C ends";
    live_.Show(shown);
}

}  // namespace kvtool
