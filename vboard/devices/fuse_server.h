// The flat file system that carries the devices: one thread takes every request of the kernel in
// its order, so that what a close started is over before the next open is looked at.
#pragma once

#include <fuse_lowlevel.h>

#include <memory>
#include <thread>
#include <vector>

#include "vboard/devices/device_file.h"
#include "vboard/devices/service_thread.h"

namespace vboard {

class FuseServer {
  public:
    // Serves `files` on the mounted `fuseFd`, which it owns from now on, even when it throws
    // std::runtime_error. Files and `stop` outlive the server.
    FuseServer(int fuseFd, std::vector<DeviceFile*> files, const StopSignal& stop);
    // Closes the connection: what the kernel still waits for fails with ECONNABORTED. All requests
    // given to the files must have been answered.
    ~FuseServer();
    FuseServer(const FuseServer&) = delete;
    FuseServer& operator=(const FuseServer&) = delete;

    // Blocks until the serving thread has ended: `stop` was raised, or the file system unmounted.
    void Join();

  private:
    struct Handlers;
    struct EndSession {
        void operator()(fuse_session* session) const { fuse_session_destroy(session); }
    };

    void Serve();
    DeviceFile* Find(fuse_ino_t inode) const;

    std::vector<DeviceFile*> files_;
    const StopSignal& stop_;
    std::unique_ptr<fuse_session, EndSession> session_;
    std::thread thread_;
};

}  // namespace vboard
