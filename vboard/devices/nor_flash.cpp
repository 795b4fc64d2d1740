#include "vboard/devices/nor_flash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace vboard {
namespace {

constexpr size_t kChunk = 4096;

[[noreturn]] void Refuse(const std::string& file, const std::string& why) {
    throw std::runtime_error("flash file " + file + ": " + why);
}

// Repeats `step` until `length` bytes are done. False if it fails or reaches the end of the file.
bool Whole(size_t length, const std::function<ssize_t(size_t done)>& step) {
    size_t done = 0;
    while (done < length) {
        const ssize_t n = step(done);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            return false;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

bool WriteAt(int fd, uint64_t offset, const void* data, size_t length) {
    const auto* const bytes = static_cast<const uint8_t*>(data);
    return Whole(length, [&](size_t done) {
        return pwrite(fd, bytes + done, length - done, static_cast<off_t>(offset + done));
    });
}

bool FillErased(int fd, uint64_t offset, uint64_t length) {
    std::array<uint8_t, kChunk> blank;
    blank.fill(0xFF);
    for (uint64_t done = 0; done < length; done += kChunk) {
        const auto step = static_cast<size_t>(std::min<uint64_t>(kChunk, length - done));
        if (!WriteAt(fd, offset + done, blank.data(), step)) {
            return false;
        }
    }
    return true;
}

// Gives the file its name only when it is complete, so that an interrupted creation leaves no file
// of the wrong size.
void CreateErased(const std::string& file, uint64_t size) {
    const std::string draft = file + ".new";
    const UniqueFd fd(open(draft.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd || !FillErased(fd.Get(), 0, size) || rename(draft.c_str(), file.c_str()) != 0) {
        Refuse(file, std::string("cannot be created: ") + strerror(errno));
    }
}

// The bytes of a step that change.
struct Part {
    size_t first;
    size_t length;
};

// `cut`: how many bytes from the start change if the power fails at no chosen place.
Part PartOf(StepEnd end, size_t length, size_t cut) {
    const size_t half = length / 2;
    switch (end) {
        case StepEnd::kFirstHalf:
            return {0, half};
        case StepEnd::kSecondHalf:
            return {half, length - half};
        case StepEnd::kCut:
            return {0, cut};
        case StepEnd::kWhole:
        case StepEnd::kLast:
            break;
    }
    return {0, length};
}

}  // namespace

NorFlash::NorFlash(const std::string& file, uint64_t size, uint32_t eraseBlock)
    : size_(size), eraseBlock_(eraseBlock) {
    if (eraseBlock == 0 || size % eraseBlock != 0 || size > UINT32_MAX) {
        Refuse(file, "a size of " + std::to_string(size) + " bytes does not fit erase blocks of " +
                         std::to_string(eraseBlock) + " bytes");
    }
    if (access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
        CreateErased(file, size);
    }
    file_.Reset(open(file.c_str(), O_RDWR | O_CLOEXEC));
    struct stat status {};
    if (!file_ || fstat(file_.Get(), &status) != 0) {
        Refuse(file, std::string("cannot be opened: ") + strerror(errno));
    }
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) != size) {
        Refuse(file, "holds " + std::to_string(status.st_size) + " bytes, the partition " +
                         std::to_string(size));
    }
}

bool NorFlash::Load(uint64_t offset, void* data, size_t length) const {
    auto* const bytes = static_cast<uint8_t*>(data);
    return Whole(length, [&](size_t done) {
        return pread(file_.Get(), bytes + done, length - done, static_cast<off_t>(offset + done));
    });
}

bool NorFlash::Store(uint64_t offset, const void* data, size_t length) {
    return WriteAt(file_.Get(), offset, data, length);
}

bool NorFlash::Blank(uint64_t offset, uint64_t length) {
    return FillErased(file_.Get(), offset, length);
}

int64_t NorFlash::Read(uint64_t offset, void* data, size_t length) const {
    if (offset >= size_) {
        return 0;
    }
    length = static_cast<size_t>(std::min<uint64_t>(length, size_ - offset));
    return Load(offset, data, length) ? static_cast<int64_t>(length) : -EIO;
}

bool NorFlash::ProgramCells(uint64_t at, const uint8_t* wanted, size_t length, ProgramResult* out) {
    std::array<uint8_t, kChunk> cells;
    if (!Load(at, cells.data(), length)) {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        const uint8_t target = wanted[i];
        const auto raised = static_cast<unsigned>(target & ~cells[i]) & 0xFFU;
        if (raised != 0) {
            out->firstKept = out->bitsKept == 0 ? at + i : out->firstKept;
            out->bitsKept += static_cast<uint64_t>(__builtin_popcount(raised));
        }
        cells[i] = static_cast<uint8_t>(cells[i] & target);
    }
    return Store(at, cells.data(), length);
}

ProgramResult NorFlash::Program(uint64_t offset, const void* data, size_t length,
                                const StepGate& gate) {
    ProgramResult out;
    if (offset >= size_) {
        out.result = -ENOSPC;
        return out;
    }
    const auto* wanted = static_cast<const uint8_t*>(data);
    length = static_cast<size_t>(std::min<uint64_t>(length, size_ - offset));
    const size_t unit = gate ? kv::kNorPageBytes : kChunk;
    for (size_t done = 0; done < length;) {
        const uint64_t at = offset + done;
        const size_t step = std::min<size_t>(unit - at % unit, length - done);
        const StepEnd end = gate ? gate(kv::kNorPageProgram) : StepEnd::kWhole;
        const Part part = PartOf(end, step, 0);
        if (!ProgramCells(at + part.first, wanted + done + part.first, part.length, &out)) {
            out.result = -EIO;
            return out;
        }
        if (end != StepEnd::kWhole) {
            out.result = -ENODEV;
            return out;
        }
        done += step;
    }
    out.result = static_cast<int64_t>(length);
    return out;
}

int NorFlash::Erase(uint64_t offset, uint64_t length, const StepGate& gate) {
    if (offset >= size_ || length > size_ - offset || offset % eraseBlock_ != 0 ||
        length % eraseBlock_ != 0) {
        return -EINVAL;
    }
    for (uint64_t at = offset; at < offset + length; at += eraseBlock_) {
        const StepEnd end = gate ? gate(kv::NorEraseDuration(eraseBlock_)) : StepEnd::kWhole;
        // On a real chip, a block whose erasure was cut is undefined. Erase half of it, to catch
        // programs that rely on old or blank contents.
        const Part part = PartOf(end, eraseBlock_, eraseBlock_ / 2);
        if (!Blank(at + part.first, part.length)) {
            return -EIO;
        }
        if (end != StepEnd::kWhole) {
            return -ENODEV;
        }
    }
    return 0;
}

}  // namespace vboard
