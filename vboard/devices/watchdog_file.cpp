#include "vboard/devices/watchdog_file.h"

#include <linux/watchdog.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "vboard/devices/caller_memory.h"

namespace vboard {
namespace {

using Time = WatchdogTimer::Time;

// `when` is in the host's CLOCK_MONOTONIC. Without a time, stops the alarm.
void SetAlarm(int fd, std::optional<Time> when) {
    itimerspec setting{};
    if (when) {
        const auto since =
            std::chrono::duration_cast<std::chrono::nanoseconds>(when->time_since_epoch());
        setting.it_value.tv_sec = since / std::chrono::seconds(1);
        setting.it_value.tv_nsec = (since % std::chrono::seconds(1)).count();
    }
    (void)timerfd_settime(fd, TFD_TIMER_ABSTIME, &setting, nullptr);
}

template <typename Value>
std::vector<char> Bytes(const Value& value) {
    std::vector<char> bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::optional<int> CopiedIn(const IoctlCall& call) {
    int value = 0;
    if (call.inBytes < sizeof value) {
        return std::nullopt;
    }
    memcpy(&value, call.in, sizeof value);
    return value;
}

std::string RequestName(unsigned int request) {
    static constexpr std::pair<unsigned int, const char*> kNames[] = {
        {WDIOC_GETSUPPORT, "GETSUPPORT"}, {WDIOC_GETSTATUS, "GETSTATUS"},
        {WDIOC_SETOPTIONS, "SETOPTIONS"}, {WDIOC_GETBOOTSTATUS, "GETBOOTSTATUS"},
        {WDIOC_KEEPALIVE, "KEEPALIVE"},   {WDIOC_SETTIMEOUT, "SETTIMEOUT"},
        {WDIOC_GETTIMEOUT, "GETTIMEOUT"}, {WDIOC_GETTIMELEFT, "GETTIMELEFT"},
    };
    for (const auto& [number, name] : kNames) {
        if (number == request) {
            return std::string("ioctl:") + name;
        }
    }
    char number[32];
    (void)snprintf(number, sizeof number, "ioctl:0x%08x", request);
    return number;
}

}  // namespace

WatchdogFile::WatchdogFile(SharedWatchdog& watchdog, Bench bench, std::function<void()> starved)
    : watchdog_(watchdog),
      bench_(bench),
      starved_(std::move(starved)),
      alarm_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (!alarm_) {
        throw std::system_error(errno, std::generic_category(), "timerfd");
    }
    {
        const std::lock_guard<std::mutex> lock(watchdog_.mutex);
        watchdog_.timer.PowerOn();
    }
    thread_ = StartServiceThread("vboard-watchdog", [this] { Watch(); });
}

WatchdogFile::~WatchdogFile() {
    Join();
    const std::lock_guard<std::mutex> lock(watchdog_.mutex);
    watchdog_.timer.PowerOn();
}

void WatchdogFile::Join() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

template <typename Operation>
auto WatchdogFile::Do(Operation operation) {
    const std::lock_guard<std::mutex> lock(watchdog_.mutex);
    auto result = operation(watchdog_.timer, bench_.clock.Now());
    const std::optional<Time> deadline = watchdog_.timer.Deadline();
    SetAlarm(alarm_.Get(),
             deadline ? std::optional<Time>(bench_.clock.ToHost(*deadline)) : deadline);
    return result;
}

int WatchdogFile::Open() {
    const auto fault = bench_.faults.Take(name_, "open");
    const int result =
        fault ? -fault->error : Do([](WatchdogTimer& timer, Time now) { return timer.Open(now); });
    bench_.log.Write({name_, "open", 0, 0, result});
    return result;
}

void WatchdogFile::Release() {
    (void)Do([](WatchdogTimer& timer, Time now) {
        timer.Release(now);
        return 0;
    });
    bench_.log.Write({name_, "release"});
}

void WatchdogFile::Read(fuse_req_t request, size_t length, uint64_t offset) {
    const auto fault = bench_.faults.Take(name_, "read");
    const int error = fault ? fault->error : EINVAL;
    bench_.log.Write({name_, "read", offset, length, -error});
    (void)fuse_reply_err(request, error);
}

void WatchdogFile::Write(fuse_req_t request, const void* data, size_t length, uint64_t offset) {
    const auto fault = bench_.faults.Take(name_, "write");
    if (fault && fault->error != 0) {
        bench_.log.Write({name_, "write", offset, length, -fault->error});
        (void)fuse_reply_err(request, fault->error);
        return;
    }
    const size_t accepted = fault ? std::min<size_t>(length, fault->shortBytes) : length;
    (void)Do([=](WatchdogTimer& timer, Time now) {
        timer.Write(data, accepted, now);
        return 0;
    });
    bench_.log.Write({name_, "write", offset, length, static_cast<int64_t>(accepted)});
    (void)fuse_reply_write(request, accepted);
}

WatchdogFile::Answer WatchdogFile::Execute(const IoctlCall& call) {
    const auto support = [] {
        watchdog_info info{};
        info.options = WDIOF_SETTIMEOUT | WDIOF_KEEPALIVEPING | WDIOF_MAGICCLOSE;
        memcpy(info.identity, "virtual board", sizeof "virtual board");
        return Answer{0, Bytes(info)};
    };
    const auto given = [](int value) { return Answer{0, Bytes(value), value}; };
    switch (call.request) {
        case WDIOC_GETSUPPORT:
            return support();
        case WDIOC_GETSTATUS:
        case WDIOC_GETBOOTSTATUS:
            return given(0);
        case WDIOC_KEEPALIVE:
            // According to its number, this request returns an int, but callers pass no place for
            // one. So this returns nothing.
            return Do([](WatchdogTimer& timer, Time now) {
                timer.KeepAlive(now);
                return Answer{};
            });
        case WDIOC_GETTIMEOUT:
            return given(Do([](WatchdogTimer& timer, Time) { return timer.Timeout(); }));
        case WDIOC_GETTIMELEFT:
            return given(Do([](WatchdogTimer& timer, Time now) { return timer.TimeLeft(now); }));
        case WDIOC_SETTIMEOUT:
        case WDIOC_SETOPTIONS: {
            const bool timeout = call.request == WDIOC_SETTIMEOUT;
            // WDIOC_SETOPTIONS takes an int, but its number says that it returns one. The kernel
            // copies as the number says, so the value is still only in the caller's memory.
            const std::optional<int> value =
                timeout ? CopiedIn(call) : ReadCallerInt(call, bench_.stop);
            if (!value) {
                return Answer{-EFAULT};
            }
            const int result = Do([=](WatchdogTimer& timer, Time now) {
                return timeout ? timer.SetTimeout(*value, now) : timer.SetOptions(*value, now);
            });
            return Answer{result, timeout ? Bytes(*value) : std::vector<char>(), value};
        }
        default:
            return Answer{-ENOTTY};
    }
}

void WatchdogFile::Ioctl(fuse_req_t request, const IoctlCall& call) {
    if (_IOC_TYPE(call.request) != WATCHDOG_IOCTL_BASE) {
        // Not a request for a watchdog, for example the C library asking whether this is a
        // terminal.
        (void)fuse_reply_err(request, ENOTTY);
        return;
    }
    const auto fault = bench_.faults.Take(name_, "ioctl");
    const Answer answer = fault ? Answer{-fault->error} : Execute(call);
    const std::string operation = RequestName(call.request);
    LogEntry entry{name_, operation, 0, 0, answer.result};
    if (answer.value) {
        entry.more = {{"value", *answer.value}};
    }
    bench_.log.Write(entry);
    if (answer.result < 0) {
        (void)fuse_reply_err(request, -answer.result);
    } else {
        (void)fuse_reply_ioctl(request, 0, answer.out.data(), answer.out.size());
    }
}

void WatchdogFile::Watch() {
    pollfd events[] = {{alarm_.Get(), POLLIN, 0}, {bench_.stop.Fd(), POLLIN, 0}};
    while (!bench_.stop.Raised()) {
        (void)poll(events, 2, -1);
        uint64_t expirations = 0;
        (void)!read(alarm_.Get(), &expirations, sizeof expirations);
        // A feed may have moved the deadline in the meantime.
        const bool starved = Do([](WatchdogTimer& timer, Time now) { return timer.Starved(now); });
        if (starved && !bench_.stop.Raised()) {
            bench_.log.Write({name_, "starved"});
            starved_();
            return;
        }
    }
}

}  // namespace vboard
