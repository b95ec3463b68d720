// The NT interface, from whichever header set this build uses, and what that set may lack. The only file of the driver
// that knows there are two platforms, together with guard.cpp.
#pragma once

#include <gvnd/plugin.h>

#ifndef POOL_ZERO_ALLOCATION
#define POOL_ZERO_ALLOCATION 0x400 // public since Windows 10 2004; older header sets lack the name
#endif

#ifdef _WIN32
extern "C" NTKERNELAPI NTSTATUS NTAPI IoReplaceFileObjectName(PFILE_OBJECT FileObject, PWSTR NewFileName,
                                                              USHORT FileNameLength);
typedef NTSTATUS(NTAPI* PIO_REPLACE_FILE_OBJECT_NAME)(PFILE_OBJECT FileObject, PWSTR NewFileName,
                                                      USHORT FileNameLength);
extern "C" __declspec(dllimport) POBJECT_TYPE IoDeviceObjectType;
#endif

// A build that runs on nthost's checks asserts what its routines rely on.
#if defined(NTHOST_CHECKS) && NTHOST_CHECKS
#define GV_CHECKED 1
#else
#define GV_CHECKED 0
#endif

// A counted string over a literal.
template <size_t N>
constexpr UNICODE_STRING GvLiteral(const WCHAR (&text)[N])
{
    return {static_cast<USHORT>((N - 1) * sizeof(WCHAR)), static_cast<USHORT>(N * sizeof(WCHAR)),
            const_cast<WCHAR*>(text)};
}
