#include "vboard/devices/devices.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "vboard/devices/faults.h"
#include "vboard/devices/flash_file.h"
#include "vboard/devices/fuse_server.h"
#include "vboard/devices/nor_flash.h"
#include "vboard/devices/op_log.h"
#include "vboard/devices/watchdog_file.h"
#include "vboard/devices/work_queue.h"

namespace vboard {
namespace {

struct Partition {
    std::string name;
    NorFlash flash;
};

// Everything that lives from one Attach to its Detach.
struct Attachment {
    Attachment(std::vector<Partition>& partitions, SharedWatchdog& sharedWatchdog, OpLog& log,
               Faults& faults, const BoardClock& clock, const ChipConditions& conditions,
               std::function<void()> starved)
        : watchdog(sharedWatchdog, Bench{log, faults, stop, clock}, std::move(starved)) {
        files.reserve(partitions.size());
        for (Partition& partition : partitions) {
            files.emplace_back(partition.name, partition.flash, conditions, chip,
                               Bench{log, faults, stop, clock});
        }
    }

    void Serve(int fuseFd) {
        std::vector<DeviceFile*> served;
        for (FlashFile& file : files) {
            served.push_back(&file);
        }
        served.push_back(&watchdog);
        server = std::make_unique<FuseServer>(fuseFd, std::move(served), stop);
    }

    // The order matters: first stop taking requests, then answer those that were taken, and then
    // end the session that carries the answers.
    ~Attachment() {
        stop.Raise();
        if (server) {
            server->Join();
        }
        chip.Finish();
        watchdog.Join();
        server.reset();
    }
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;

    StopSignal stop;
    WorkQueue chip{"vboard-flash"};
    std::vector<FlashFile> files;
    WatchdogFile watchdog;
    std::unique_ptr<FuseServer> server;
};

}  // namespace

class Devices::Impl {
  public:
    explicit Impl(const DevicesConfig& config)
        : norTiming(config.norTiming), clock(config.speed), log(config.opLogFile, clock) {
        for (const PartitionConfig& partition : config.partitions) {
            if (partition.name.empty() || IsDevice(partition.name)) {
                throw std::runtime_error("partition name '" + partition.name +
                                         "' is empty or taken");
            }
            partitions.push_back(
                {partition.name, NorFlash(partition.file, partition.size, config.eraseBlock)});
        }
    }

    bool IsDevice(const std::string& name) const {
        return name == kWatchdog ||
               std::any_of(partitions.begin(), partitions.end(),
                           [&](const Partition& partition) { return partition.name == name; });
    }

    void Call(const std::function<void()>& which) {
        std::function<void()> callback;
        {
            const std::lock_guard<std::mutex> lock(callbackMutex);
            callback = which;
        }
        if (callback) {
            callback();
        }
    }

    const bool norTiming;
    const BoardClock clock;
    OpLog log;
    Faults faults;
    PowerFault powerFault;
    std::vector<Partition> partitions;
    mutable SharedWatchdog watchdog;

    // Held during all of Attach and Detach, so that a second caller finds the work done.
    std::mutex mutex;
    std::unique_ptr<Attachment> attachment;

    std::mutex callbackMutex;
    std::function<void()> onReset;
    std::function<void()> onPowerCut;
};

Devices::Devices(const DevicesConfig& config) : impl_(std::make_unique<Impl>(config)) {}

Devices::~Devices() {
    Detach();
}

void Devices::OnWatchdogReset(std::function<void()> callback) {
    const std::lock_guard<std::mutex> lock(impl_->callbackMutex);
    impl_->onReset = std::move(callback);
}

void Devices::OnPowerCut(std::function<void()> callback) {
    const std::lock_guard<std::mutex> lock(impl_->callbackMutex);
    impl_->onPowerCut = std::move(callback);
}

void Devices::Attach(int fuseFd, int boot) {
    UniqueFd fd(fuseFd);
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->attachment.reset();
    impl_->log.SetBoot(boot);
    const ChipConditions conditions{impl_->norTiming, impl_->powerFault,
                                    [this] { impl_->Call(impl_->onPowerCut); }};
    auto attachment = std::make_unique<Attachment>(impl_->partitions, impl_->watchdog, impl_->log,
                                                   impl_->faults, impl_->clock, conditions,
                                                   [this] { impl_->Call(impl_->onReset); });
    attachment->Serve(fd.Release());
    impl_->attachment = std::move(attachment);
}

void Devices::Detach() {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->attachment.reset();
}

void Devices::AddFault(const Fault& fault) {
    if (!impl_->IsDevice(fault.device) && fault.device != kAnyPartition) {
        throw std::runtime_error("unknown device '" + fault.device + "'");
    }
    impl_->faults.Add(fault);
}

void Devices::SetPowerCut(const PowerCut& cut) {
    impl_->powerFault.Set(cut);
}

WatchdogStatus Devices::Watchdog() const {
    const std::lock_guard<std::mutex> lock(impl_->watchdog.mutex);
    return impl_->watchdog.timer.Status(impl_->clock.Now());
}

void Devices::Note(const std::string& operation, const std::string& text) {
    impl_->log.Note(operation, text);
}

}  // namespace vboard
