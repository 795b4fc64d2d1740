#include "vboard/devices/op_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace vboard {
namespace {

std::string Quoted(std::string_view text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

OpLog::OpLog(const std::string& file, const BoardClock& clock) : clock_(clock) {
    if (file.empty()) {
        return;
    }
    file_.Reset(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!file_) {
        throw std::runtime_error("operation log " + file + " cannot be opened: " + strerror(errno));
    }
}

void OpLog::Write(const LogEntry& entry) {
    if (!file_) {
        return;
    }
    std::string members = R"("dev":)" + Quoted(entry.device) + R"(,"op":)" +
                          Quoted(entry.operation) + R"(,"off":)" + std::to_string(entry.offset) +
                          R"(,"len":)" + std::to_string(entry.length) + R"(,"result":)" +
                          std::to_string(entry.result);
    for (const auto& [name, value] : entry.more) {
        members += ",\"" + std::string(name) + "\":" + std::to_string(value);
    }
    Append(members);
}

void OpLog::Note(const std::string& operation, const std::string& text) {
    if (file_) {
        Append(R"("dev":"board","op":)" + Quoted(operation) + R"(,"text":)" + Quoted(text));
    }
}

void OpLog::Append(const std::string& members) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    const auto since =
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch());
    char text[64];
    (void)snprintf(text, sizeof text, R"({"t":%lld.%06lld,)",
                   static_cast<long long>(since / std::chrono::seconds(1)),
                   static_cast<long long>((since % std::chrono::seconds(1)).count()));
    std::string line = text;
    if (clock_.Speed() != 1) {
        (void)snprintf(text, sizeof text, R"("board":%.3f,)",
                       clock_.SinceStart(clock_.AtHost(now)).count());
        line += text;
    }
    line += R"("boot":)" + std::to_string(boot_) + "," + members + "}\n";
    const ssize_t written = write(file_.Get(), line.data(), line.size());
    if (written != static_cast<ssize_t>(line.size()) && !complained_) {
        complained_ = true;
        (void)fprintf(stderr, "vboard: the operation log is incomplete: %s\n",
                      written < 0 ? strerror(errno) : "short write");
    }
}

}  // namespace vboard
