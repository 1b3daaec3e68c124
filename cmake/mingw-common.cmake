# Shared part of the Windows toolchain files (mingw-i686.cmake and
# mingw-x86_64.cmake set VEXO_WIN_ARCH and include this file).
#
# Compilers: Debian's mingw-w64 with the posix thread model; the win32 model
# has no std::thread or std::mutex. Everything links -static, so no MinGW
# runtime DLL (libgcc, libstdc++, libwinpthread) has to ship beside a product.
#
# Third-party libraries come from the static prefix that
# `scripts/windows.sh deps ARCH` builds. Its folder is VEXO_WIN_DEPS (a cache
# variable or the environment); when neither is set the script is asked.
#
# Programs run under Wine through CMAKE_CROSSCOMPILING_EMULATOR (CTest uses
# it): wine64 for x86_64, the 32-bit wine for i686, in the Wine prefix
# VEXO_WINEPREFIX (default: "wine" in the build folder, so that concurrent
# builds never share a Wine server or its named objects).

if(NOT VEXO_WIN_ARCH MATCHES "^(i686|x86_64)$")
  message(FATAL_ERROR "VEXO_WIN_ARCH must be i686 or x86_64 (got '${VEXO_WIN_ARCH}')")
endif()
set(VEXO_WIN_TRIPLE "${VEXO_WIN_ARCH}-w64-mingw32")

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${VEXO_WIN_ARCH})

find_program(VEXO_WIN_CC  ${VEXO_WIN_TRIPLE}-gcc-posix REQUIRED)
find_program(VEXO_WIN_CXX ${VEXO_WIN_TRIPLE}-g++-posix REQUIRED)
find_program(VEXO_WIN_RC  ${VEXO_WIN_TRIPLE}-windres REQUIRED)
set(CMAKE_C_COMPILER   ${VEXO_WIN_CC})
set(CMAKE_CXX_COMPILER ${VEXO_WIN_CXX})
set(CMAKE_RC_COMPILER  ${VEXO_WIN_RC})
set(CMAKE_AR     /usr/bin/${VEXO_WIN_TRIPLE}-ar     CACHE FILEPATH "")
set(CMAKE_RANLIB /usr/bin/${VEXO_WIN_TRIPLE}-ranlib CACHE FILEPATH "")

set(CMAKE_EXE_LINKER_FLAGS_INIT    "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# The third-party prefix. try_compile projects read this file again in a
# fresh scope: the environment carries the folder over to them.
if(NOT VEXO_WIN_DEPS AND DEFINED ENV{VEXO_WIN_DEPS})
  set(VEXO_WIN_DEPS "$ENV{VEXO_WIN_DEPS}")
endif()
if(NOT VEXO_WIN_DEPS)
  execute_process(
    COMMAND bash "${CMAKE_CURRENT_LIST_DIR}/../scripts/windows.sh" prefix ${VEXO_WIN_ARCH}
    OUTPUT_VARIABLE VEXO_WIN_DEPS OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE _vexo_prefix_rc)
  if(NOT _vexo_prefix_rc EQUAL 0)
    message(FATAL_ERROR "The ${VEXO_WIN_ARCH} third-party libraries are not built yet: "
                        "run scripts/windows.sh deps ${VEXO_WIN_ARCH}")
  endif()
endif()
set(VEXO_WIN_DEPS "${VEXO_WIN_DEPS}" CACHE PATH "Static third-party prefix for ${VEXO_WIN_ARCH}")
set(ENV{VEXO_WIN_DEPS} "${VEXO_WIN_DEPS}")

set(CMAKE_FIND_ROOT_PATH /usr/${VEXO_WIN_TRIPLE} ${VEXO_WIN_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config must see the Windows prefix alone, never the build machine's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "${VEXO_WIN_DEPS}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Wine: the 64-bit loader runs x86_64 programs without any 32-bit part; i686
# programs need the 32-bit loader (Debian's wine32 package).
if(VEXO_WIN_ARCH STREQUAL "x86_64")
  set(_vexo_wine_loader /usr/lib/wine/wine64)
  set(_vexo_wine_arch win64)
else()
  set(_vexo_wine_loader /usr/lib/wine/wine)
  set(_vexo_wine_arch win32)
endif()
set(VEXO_WINE "${_vexo_wine_loader}" CACHE FILEPATH "Wine loader that runs ${VEXO_WIN_ARCH} programs")
if(NOT VEXO_WINEPREFIX)
  set(VEXO_WINEPREFIX "${CMAKE_BINARY_DIR}/wine" CACHE PATH "Wine prefix for running the programs")
endif()
# mscoree/mshtml off: a new prefix must not ask for Mono or Gecko.
set(CMAKE_CROSSCOMPILING_EMULATOR
    env WINEPREFIX=${VEXO_WINEPREFIX} WINEARCH=${_vexo_wine_arch} WINEDEBUG=-all
        WINEDLLOVERRIDES=mscoree,mshtml= ${VEXO_WINE})
