#include "vboard/devices/fuse_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "common/kv_raii.h"

namespace vboard {
namespace {

// Names and sizes never change, so the kernel may cache them.
constexpr double kCacheSeconds = 86400;

// Inode of files_[0]; the root directory is FUSE_ROOT_ID.
constexpr fuse_ino_t kFirstInode = FUSE_ROOT_ID + 1;

struct stat DirectoryAttributes() {
    struct stat attributes {};
    attributes.st_ino = FUSE_ROOT_ID;
    attributes.st_mode = S_IFDIR | 0755;
    attributes.st_nlink = 2;
    return attributes;
}

struct stat FileAttributes(const DeviceFile& file, fuse_ino_t inode) {
    struct stat attributes {};
    attributes.st_ino = inode;
    attributes.st_mode = S_IFREG | 0600;
    attributes.st_nlink = 1;
    attributes.st_size = static_cast<off_t>(file.Size());
    return attributes;
}

}  // namespace

struct FuseServer::Handlers {
    static FuseServer& Server(fuse_req_t request) {
        return *static_cast<FuseServer*>(fuse_req_userdata(request));
    }
    // For requests on open files: never the directory.
    static DeviceFile& File(fuse_req_t request, fuse_ino_t inode) {
        return *Server(request).Find(inode);
    }

    // Replies are copied through write(2): splicing would need the buffers after the call.
    static void Init(void*, fuse_conn_info* connection) {
        connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE |
                                                   FUSE_CAP_SPLICE_MOVE);
    }

    static void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
        const auto& files = Server(request).files_;
        for (size_t i = 0; parent == FUSE_ROOT_ID && i < files.size(); ++i) {
            if (files[i]->Name() == name) {
                fuse_entry_param entry{};
                entry.ino = kFirstInode + i;
                entry.attr = FileAttributes(*files[i], entry.ino);
                entry.attr_timeout = kCacheSeconds;
                entry.entry_timeout = kCacheSeconds;
                (void)fuse_reply_entry(request, &entry);
                return;
            }
        }
        (void)fuse_reply_err(request, ENOENT);
    }

    static void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
        const DeviceFile* file = Server(request).Find(inode);
        if (file == nullptr && inode != FUSE_ROOT_ID) {
            (void)fuse_reply_err(request, ENOENT);
            return;
        }
        const struct stat attributes =
            file == nullptr ? DirectoryAttributes() : FileAttributes(*file, inode);
        (void)fuse_reply_attr(request, &attributes, kCacheSeconds);
    }

    static void SetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat*, int what,
                              fuse_file_info* file) {
        if ((what & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0) {
            (void)fuse_reply_err(request, EPERM);
        } else if ((what & FUSE_SET_ATTR_SIZE) != 0 && file != nullptr) {
            (void)fuse_reply_err(request, EINVAL);
        } else {
            // This includes opening with O_TRUNC, which a character device ignores.
            GetAttributes(request, inode, nullptr);
        }
    }

    static void ReadDirectory(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
                              fuse_file_info*) {
        const auto& files = Server(request).files_;
        std::string out(size, '\0');
        size_t used = 0;
        for (auto i = static_cast<size_t>(offset); i < files.size(); ++i) {
            const struct stat attributes = FileAttributes(*files[i], kFirstInode + i);
            const size_t needed =
                fuse_add_direntry(request, &out[used], size - used, files[i]->Name().c_str(),
                                  &attributes, static_cast<off_t>(i + 1));
            if (needed > size - used) {
                break;
            }
            used += needed;
        }
        (void)fuse_reply_buf(request, out.data(), used);
    }

    static void Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
        DeviceFile* file = Server(request).Find(inode);
        const int failure = file == nullptr ? -EISDIR : file->Open();
        if (failure != 0) {
            (void)fuse_reply_err(request, -failure);
            return;
        }
        info->fh = (info->flags & O_ACCMODE) == O_RDONLY ? 0 : 1;
        info->direct_io = 1;
        info->nonseekable = file->Seekable() ? 0 : 1;
        if (fuse_reply_open(request, info) == -ENOENT) {
            // The caller was killed in the meantime: the kernel will not send a release.
            file->Release();
        }
    }

    static void Release(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
        File(request, inode).Release();
        (void)fuse_reply_err(request, 0);
    }

    static void Read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset,
                     fuse_file_info*) {
        File(request, inode).Read(request, size, static_cast<uint64_t>(offset));
    }

    static void Write(fuse_req_t request, fuse_ino_t inode, const char* data, size_t size,
                      off_t offset, fuse_file_info*) {
        File(request, inode).Write(request, data, size, static_cast<uint64_t>(offset));
    }

    static void Ioctl(fuse_req_t request, fuse_ino_t inode, unsigned int command, void* argument,
                      fuse_file_info* info, unsigned flags, const void* in, size_t inBytes,
                      size_t) {
        DeviceFile* file = Server(request).Find(inode);
        if (file == nullptr || (flags & (FUSE_IOCTL_COMPAT | FUSE_IOCTL_DIR)) != 0) {
            (void)fuse_reply_err(request, ENOTTY);
            return;
        }
        IoctlCall call;
        call.request = command;
        call.argument = argument;
        call.pid = fuse_req_ctx(request)->pid;
        call.in = in;
        call.inBytes = inBytes;
        call.writable = info->fh != 0;
        file->Ioctl(request, call);
    }

    static fuse_lowlevel_ops Table() {
        fuse_lowlevel_ops table{};
        table.init = Init;
        table.lookup = Lookup;
        table.getattr = GetAttributes;
        table.setattr = SetAttributes;
        table.readdir = ReadDirectory;
        table.open = Open;
        table.release = Release;
        table.read = Read;
        table.write = Write;
        table.ioctl = Ioctl;
        return table;
    }
};

FuseServer::FuseServer(int fuseFd, std::vector<DeviceFile*> files, const StopSignal& stop)
    : files_(std::move(files)), stop_(stop) {
    UniqueFd fd(fuseFd);
    char program[] = "vboard";
    char* arguments[] = {program, nullptr};
    fuse_args options = FUSE_ARGS_INIT(1, arguments);
    const fuse_lowlevel_ops table = Handlers::Table();
    session_.reset(fuse_session_new(&options, &table, sizeof table, this));
    fuse_opt_free_args(&options);
    // A request may be withdrawn between poll and read. The read must not block then.
    const int flags = fcntl(fd.Get(), F_GETFL);
    const std::string mountPoint = "/dev/fd/" + std::to_string(fd.Get());
    if (!session_ || flags < 0 || fcntl(fd.Get(), F_SETFL, flags | O_NONBLOCK) != 0 ||
        fuse_session_mount(session_.get(), mountPoint.c_str()) != 0) {
        throw std::runtime_error("the devices cannot be served on descriptor " +
                                 std::to_string(fuseFd));
    }
    (void)fd.Release();
    thread_ = StartServiceThread("vboard-fuse", [this] { Serve(); });
}

FuseServer::~FuseServer() {
    Join();
}

void FuseServer::Join() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

DeviceFile* FuseServer::Find(fuse_ino_t inode) const {
    const size_t index = inode - kFirstInode;
    return inode >= kFirstInode && index < files_.size() ? files_[index] : nullptr;
}

void FuseServer::Serve() {
    fuse_buf buffer{};
    pollfd events[] = {{fuse_session_fd(session_.get()), POLLIN, 0}, {stop_.Fd(), POLLIN, 0}};
    while (fuse_session_exited(session_.get()) == 0) {
        (void)poll(events, 2, -1);
        if (stop_.Raised()) {
            break;
        }
        const int received = fuse_session_receive_buf(session_.get(), &buffer);
        if (received == -EINTR || received == -EAGAIN) {
            continue;
        }
        if (received <= 0) {
            break;
        }
        fuse_session_process_buf(session_.get(), &buffer);
    }
    free(buffer.mem);
}

}  // namespace vboard
