# Toolchain: Windows x86-64 from Debian's mingw-w64, in its POSIX thread flavour, which is the one with std::mutex.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 10.0)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VORNIX_MINGW x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VORNIX_MINGW}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VORNIX_MINGW}-g++-posix)
set(CMAKE_RC_COMPILER ${VORNIX_MINGW}-windres)

# Libraries and headers of the target only: a header of the host that slips in compiles and then means something else.
set(CMAKE_FIND_ROOT_PATH /usr/${VORNIX_MINGW})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
