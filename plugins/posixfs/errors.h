// What a failure of the Linux machine is called in NT, and the containment of C++ exceptions.
#pragma once

#include <cerrno>
#include <new>

#include <ntifs.h>

namespace posixfs {

// An errno as a status; never a success.
[[nodiscard]] NTSTATUS StatusOf(int error);
[[nodiscard]] NTSTATUS LastError();

// Nobody above an operation can catch a C++ exception.
template <typename Body>
[[nodiscard]] NTSTATUS Contained(Body&& body)
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return STATUS_INSUFFICIENT_RESOURCES;
    } catch (...) {
        return STATUS_INTERNAL_ERROR;
    }
}

// Repeats a system call that a signal interrupted.
template <typename Call>
auto Uninterrupted(Call&& call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

} // namespace posixfs
