// Owners of descriptors, streams and locks for the length of a scope.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <cstdio>

// Owns a file descriptor; closes it at the end of the scope.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void Reset(int fd = -1) {
        if (fd_ >= 0) {
            (void)close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_;
};

// Owns a stdio stream.
class UniqueFile {
  public:
    explicit UniqueFile(FILE* file = nullptr) : file_(file) {}
    ~UniqueFile() {
        if (file_ != nullptr) {
            (void)fclose(file_);
        }
    }
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;

    FILE* Get() const { return file_; }
    explicit operator bool() const { return file_ != nullptr; }

  private:
    FILE* file_;
};

// Holds a pthread mutex for a scope.
class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t* mutex) : mutex_(mutex) {
        (void)pthread_mutex_lock(mutex_);
    }
    ~MutexGuard() { (void)pthread_mutex_unlock(mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

  private:
    pthread_mutex_t* mutex_;
};
