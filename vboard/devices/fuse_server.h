// The flat file system that holds the devices. One thread takes the kernel's requests in order, so
// that it finishes a close before it looks at the next open.
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
    // Serves `files` on the mounted `fuseFd`. Takes ownership of it, even when it throws
    // std::runtime_error. Files and `stop` must outlive the server.
    FuseServer(int fuseFd, std::vector<DeviceFile*> files, const StopSignal& stop);
    // Closes the connection: requests that the kernel still waits for fail with ECONNABORTED. All
    // requests passed to the files must have been answered.
    ~FuseServer();
    FuseServer(const FuseServer&) = delete;
    FuseServer& operator=(const FuseServer&) = delete;

    // Blocks until the serving thread ends, after `stop` was raised or the file system unmounted.
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
