#include "vboard/devices/flash_file.h"

#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace vboard {

FlashFile::FlashFile(std::string name, NorFlash& flash, ChipConditions conditions, WorkQueue& chip,
                     Bench bench)
    : name_(std::move(name)),
      flash_(flash),
      conditions_(std::move(conditions)),
      chip_(chip),
      bench_(bench) {}

int FlashFile::Open() {
    const auto fault = bench_.faults.Take(name_, "open");
    const int result = fault ? -fault->error : 0;
    Log({name_, "open", 0, 0, result});
    return result;
}

void FlashFile::Release() {
    Log({name_, "release"});
}

void FlashFile::Post(fuse_req_t request, std::function<void()> job) {
    chip_.Post([this, request, job = std::move(job)] {
        if (bench_.stop.Raised()) {
            (void)fuse_reply_err(request, ENODEV);
        } else {
            job();
        }
    });
}

// Times all steps from the start of the operation, so that the overhead of many short steps does
// not add up.
StepGate FlashFile::Gate() {
    if (!conditions_.norTiming && !conditions_.powerFault.Armed()) {
        return {};
    }
    return [this, until = bench_.clock.Now()](std::chrono::microseconds step) mutable {
        until += step;
        if (conditions_.norTiming && bench_.stop.RaisedBefore(bench_.clock.ToHost(until))) {
            return StepEnd::kCut;
        }
        const StepEnd end = conditions_.powerFault.Next();
        powerFails_ = end != StepEnd::kWhole;
        return end;
    };
}

// After a power cut, returns only when the attachment ends: by then the board's programs are being
// killed.
void FlashFile::AwaitEnd() {
    if (powerFails_) {
        conditions_.powerCut();
        (void)bench_.stop.RaisedBefore(std::chrono::steady_clock::time_point::max());
    }
}

void FlashFile::Read(fuse_req_t request, size_t length, uint64_t offset) {
    Post(request, [=] { RunRead(request, length, offset); });
}

void FlashFile::RunRead(fuse_req_t request, size_t length, uint64_t offset) {
    const auto fault = bench_.faults.Take(name_, "read");
    std::string data;
    int64_t result = fault ? -fault->error : 0;
    if (!fault) {
        data.resize(length);
        result = flash_.Read(offset, data.data(), length);
    }
    Log({name_, "read", offset, length, result});
    if (result < 0) {
        (void)fuse_reply_err(request, static_cast<int>(-result));
    } else {
        (void)fuse_reply_buf(request, data.data(), static_cast<size_t>(result));
    }
}

void FlashFile::Write(fuse_req_t request, const void* data, size_t length, uint64_t offset) {
    Post(request, [=, copy = std::string(static_cast<const char*>(data), length)] {
        RunWrite(request, copy, offset);
    });
}

void FlashFile::RunWrite(fuse_req_t request, const std::string& data, uint64_t offset) {
    const auto fault = bench_.faults.Take(name_, "write");
    ProgramResult done;
    if (fault && fault->error != 0) {
        done.result = -fault->error;
    } else {
        const size_t accepted =
            fault ? std::min<size_t>(data.size(), fault->shortBytes) : data.size();
        done = flash_.Program(offset, data.data(), accepted, Gate());
    }
    LogEntry entry{name_, "write", offset, data.size(), done.result};
    if (done.bitsKept > 0) {
        entry.more = {{"bitsKept", done.bitsKept}, {"firstKept", done.firstKept}};
    }
    Log(entry);
    AwaitEnd();
    if (done.result < 0) {
        (void)fuse_reply_err(request, static_cast<int>(-done.result));
    } else {
        (void)fuse_reply_write(request, static_cast<size_t>(done.result));
    }
}

void FlashFile::Ioctl(fuse_req_t request, const IoctlCall& call) {
    if (_IOC_TYPE(call.request) != 'M') {
        // Not a request for flash, for example the C library asking whether this is a terminal.
        (void)fuse_reply_err(request, ENOTTY);
        return;
    }
    if (call.request != MEMERASE) {
        AnswerQuery(request, call.request);
        return;
    }
    erase_info_user erase{};
    if (call.inBytes < sizeof erase) {
        (void)fuse_reply_err(request, EFAULT);
        return;
    }
    memcpy(&erase, call.in, sizeof erase);
    Post(request,
         [=, writable = call.writable] { RunErase(request, erase.start, erase.length, writable); });
}

void FlashFile::RunErase(fuse_req_t request, uint64_t start, uint64_t length, bool writable) {
    const auto fault = bench_.faults.Take(name_, "erase");
    int result = fault ? -fault->error : -EPERM;
    if (!fault && writable) {
        result = flash_.Erase(start, length, Gate());
    }
    Log({name_, "erase", start, length, result});
    AwaitEnd();
    if (result < 0) {
        (void)fuse_reply_err(request, -result);
    } else {
        (void)fuse_reply_ioctl(request, 0, nullptr, 0);
    }
}

void FlashFile::AnswerQuery(fuse_req_t request, unsigned int command) {
    char name[32] = "ioctl:MEMGETINFO";
    std::vector<char> answer;
    if (command == MEMGETINFO) {
        mtd_info_user info{};
        info.type = MTD_NORFLASH;
        info.flags = MTD_CAP_NORFLASH;
        info.size = static_cast<uint32_t>(flash_.Size());
        info.erasesize = flash_.EraseBlock();
        info.writesize = 1;
        answer.resize(sizeof info);
        memcpy(answer.data(), &info, sizeof info);
    } else if (command == MEMGETREGIONCOUNT) {
        (void)snprintf(name, sizeof name, "ioctl:MEMGETREGIONCOUNT");
        answer.resize(sizeof(int));  // 0: all erase blocks have the same size
    } else {
        (void)snprintf(name, sizeof name, "ioctl:0x%08x", command);
    }
    const auto fault = bench_.faults.Take(name_, "ioctl");
    const int result = fault ? -fault->error : (answer.empty() ? -ENOTTY : 0);
    Log({name_, name, 0, 0, result});
    if (result < 0) {
        (void)fuse_reply_err(request, -result);
    } else {
        (void)fuse_reply_ioctl(request, 0, answer.data(), answer.size());
    }
}

}  // namespace vboard
