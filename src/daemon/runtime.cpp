// What the daemon takes from the C++ run-time when it is linked in
// (DORVAND_STATIC_RUNTIME), made plain. The daemon is built without
// exceptions: nothing of it catches one, so every failure the run-time would
// throw ends the process as an uncaught exception does, by abort. Saying so
// here keeps the exception machinery (exception classes, their messages and
// the default terminate handler's demangler) out of the image.
#include <bits/functexcept.h>

#include <cstdlib>
#include <exception>
#include <new>

// The terminate handler: abort, as the run-time does when built without its
// verbose handler.
namespace __cxxabiv1 {
std::terminate_handler __terminate_handler = std::abort;
}

namespace std {
void __throw_bad_alloc()
{
    abort();
}
void __throw_bad_array_new_length()
{
    abort();
}
void __throw_logic_error(const char*)
{
    abort();
}
void __throw_length_error(const char*)
{
    abort();
}
void __throw_out_of_range_fmt(const char*, ...)
{
    abort();
}
void __throw_system_error(int)
{
    abort();
}
}  // namespace std

// Allocation: memory that runs out where nothing checks for it ends the
// process; the nothrow forms return null for their callers to check.
void* operator new(std::size_t size)
{
    if (void* p = std::malloc(size ? size : 1))
        return p;
    std::abort();
}

void* operator new[](std::size_t size)
{
    return ::operator new(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size ? size : 1);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size ? size : 1);
}

void operator delete(void* p) noexcept
{
    std::free(p);
}

void operator delete[](void* p) noexcept
{
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept
{
    std::free(p);
}
