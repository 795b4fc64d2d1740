// A flash partition as /dev/mtdN. Behaves like mtdchar; operations run on the chip's thread.
#pragma once

#include <functional>
#include <string>

#include "vboard/devices/board_clock.h"
#include "vboard/devices/device_file.h"
#include "vboard/devices/faults.h"
#include "vboard/devices/nor_flash.h"
#include "vboard/devices/op_log.h"
#include "vboard/devices/service_thread.h"
#include "vboard/devices/work_queue.h"

namespace vboard {

// What the files of one attachment share.
struct Bench {
    OpLog& log;
    Faults& faults;
    const StopSignal& stop;
    const BoardClock& clock;
};

// What the chip's surroundings do to it.
struct ChipConditions {
    bool norTiming;  // the chip is as slow as a real one
    PowerFault& powerFault;
    std::function<void()> powerCut;  // called when the power fails
};

// All partitions are on one chip, so every read, program and erase waits for its turn on `chip`.
// When the attachment ends, the operation under way is cut short and the waiting ones fail with
// ENODEV.
class FlashFile : public DeviceFile {
  public:
    FlashFile(std::string name, NorFlash& flash, ChipConditions conditions, WorkQueue& chip,
              Bench bench);

    const std::string& Name() const override { return name_; }
    uint64_t Size() const override { return flash_.Size(); }
    bool Seekable() const override { return true; }

    int Open() override;
    void Release() override;
    void Read(fuse_req_t request, size_t length, uint64_t offset) override;
    void Write(fuse_req_t request, const void* data, size_t length, uint64_t offset) override;
    void Ioctl(fuse_req_t request, const IoctlCall& call) override;

  private:
    void Post(fuse_req_t request, std::function<void()> job);
    StepGate Gate();
    void AwaitEnd();
    void Log(const LogEntry& entry) { bench_.log.Write(entry); }

    void RunRead(fuse_req_t request, size_t length, uint64_t offset);
    void RunWrite(fuse_req_t request, const std::string& data, uint64_t offset);
    void RunErase(fuse_req_t request, uint64_t start, uint64_t length, bool writable);
    void AnswerQuery(fuse_req_t request, unsigned int command);

    std::string name_;
    NorFlash& flash_;
    ChipConditions conditions_;
    WorkQueue& chip_;
    Bench bench_;
    bool powerFails_ = false;  // for the chip's thread
};

}  // namespace vboard
