#include "vboard/devices/op_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace vboard {
namespace {

std::string Quoted(std::string_view text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

OpLog::OpLog(const std::string& file) {
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
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    char head[64];
    (void)snprintf(head, sizeof head, R"({"t":%lld.%06ld,"boot":%d,)",
                   static_cast<long long>(now.tv_sec), now.tv_nsec / 1000, boot_.load());
    const std::string line = head + members + "}\n";
    const ssize_t written = write(file_.Get(), line.data(), line.size());
    if (written != static_cast<ssize_t>(line.size()) && !complained_) {
        complained_ = true;
        (void)fprintf(stderr, "vboard: the operation log is incomplete: %s\n",
                      written < 0 ? strerror(errno) : "short write");
    }
}

}  // namespace vboard
