// The program's own operators of allocation. Its only form of `new` is the one that gives null when
// there is no memory; the standard library's brings along exceptions and what prints them, which is
// more code than the program itself.
#include <cstdlib>
#include <new>

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return malloc(size);
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
    free(memory);
}
