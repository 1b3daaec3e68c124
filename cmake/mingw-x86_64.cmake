# Toolchain for 64-bit Windows (x86_64), Debian's mingw-w64 with posix threads.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-x86_64.cmake ...
set(VEXO_WIN_ARCH x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
