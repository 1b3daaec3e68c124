# Toolchain for 32-bit Windows (i686), Debian's mingw-w64 with posix threads.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-i686.cmake ...
set(VEXO_WIN_ARCH i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
