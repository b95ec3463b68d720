# The cross toolchain of the kernel images: clang for x86-64 NT, the mingw-w64 headers and import libraries, lld-link.
# Generic, because CMake's own Windows support would look for a C runtime and start-up files that a driver has not.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-windows-gnu)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-windows-gnu)

find_program(GVND_LLD_LINK NAMES lld-link lld-link-14 lld-link-15 lld-link-16 REQUIRED)
set(GVND_MINGW_DIR /usr/x86_64-w64-mingw32 CACHE PATH "Where the NT headers and import libraries are")
mark_as_advanced(GVND_LLD_LINK GVND_MINGW_DIR)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES GVND_MINGW_DIR)
