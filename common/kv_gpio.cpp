#include "common/kv_gpio.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "common/kv_platform.h"
#include "common/kv_raii.h"

namespace {

int OpenValueFile(int gpio, int flags) {
    char path[64];
    (void)snprintf(path, sizeof(path), kv::kGpioValuePath, gpio);
    return open(path, flags | O_CLOEXEC);
}

}  // namespace

int KV_GPIO_GetValue(int gpio, int* value) {
    const UniqueFd fd(OpenValueFile(gpio, O_RDONLY));
    if (!fd) {
        perror("gpio/get-value");
        return fd.Get();
    }
    // An empty file reads as released.
    char byte = '1';
    (void)read(fd.Get(), &byte, 1);
    *value = byte == '0' ? 0 : 1;
    return 0;
}

int KV_GPIO_FdOpen(int gpio, int flags) {
    const int fd = OpenValueFile(gpio, flags | O_NONBLOCK);
    if (fd < 0) {
        perror("gpio/fd_open");
    }
    return fd;
}
