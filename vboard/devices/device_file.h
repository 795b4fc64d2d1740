// A file of the served file system.
#pragma once

#include <fuse_lowlevel.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vboard {

struct IoctlCall {
    unsigned int request = 0;
    const void* argument = nullptr;  // in the caller's memory
    pid_t pid = 0;             // the calling thread, in the PID namespace of the mounting process
    const void* in = nullptr;  // what the kernel copied in, as the request's direction bits say
    size_t inBytes = 0;
    bool writable = false;  // the file was opened for writing
};

// All calls come from the serving thread. Answer each `request` exactly once with one of libfuse's
// fuse_reply_… functions: now or later, on any thread, before the session ends. Buffers passed here
// are valid only until the call returns.
class DeviceFile {
  public:
    virtual ~DeviceFile() = default;

    virtual const std::string& Name() const = 0;
    virtual uint64_t Size() const = 0;
    virtual bool Seekable() const = 0;

    virtual int Open() = 0;  // 0 or -errno
    virtual void Release() = 0;
    virtual void Read(fuse_req_t request, size_t length, uint64_t offset) = 0;
    virtual void Write(fuse_req_t request, const void* data, size_t length, uint64_t offset) = 0;
    virtual void Ioctl(fuse_req_t request, const IoctlCall& call) = 0;
};

}  // namespace vboard
