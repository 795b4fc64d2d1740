// The allocation operators. The program uses only the `new` that returns null when memory runs out.
// The standard library's operators pull in exceptions and the code that prints them, which is
// larger than the program itself.
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
