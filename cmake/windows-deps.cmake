# The third-party libraries of the Windows build, from the static prefix of
# `scripts/windows.sh deps ARCH` (the toolchain file puts it on the find
# path). Each becomes the same target name the Linux build gets from
# pkg-config (PkgConfig::OPENSSL, ...), carrying the system libraries and
# definitions that a static link needs, so the rest of the build is the same
# on both systems.

set(OPENSSL_USE_STATIC_LIBS ON)
find_package(OpenSSL 3.0 REQUIRED)
find_package(CURL 7.88 CONFIG REQUIRED)
find_package(libxml2 CONFIG REQUIRED)
find_package(json-c CONFIG REQUIRED)
find_package(OpenJPEG CONFIG REQUIRED)
find_package(iniparser CONFIG REQUIRED COMPONENTS static)
if(iniparser_VERSION VERSION_GREATER_EQUAL 4.2)
  set(VEXO_INI_QUOTES_VALUES 1)
endif()
find_path(VEXO_PROTOBUFC_INCLUDE_DIR protobuf-c/protobuf-c.h REQUIRED)
find_library(VEXO_PROTOBUFC_LIBRARY protobuf-c REQUIRED)

function(vexo_windows_package name)
  cmake_parse_arguments(P "" "" "LIBS;INCLUDES;DEFINES" ${ARGN})
  add_library(PkgConfig::${name} INTERFACE IMPORTED)
  target_link_libraries(PkgConfig::${name} INTERFACE ${P_LIBS})
  if(P_INCLUDES)
    target_include_directories(PkgConfig::${name} INTERFACE ${P_INCLUDES})
  endif()
  if(P_DEFINES)
    target_compile_definitions(PkgConfig::${name} INTERFACE ${P_DEFINES})
  endif()
endfunction()

vexo_windows_package(OPENSSL LIBS OpenSSL::SSL OpenSSL::Crypto)
# curl's package brings OpenSSL, Winsock, the CryptoAPI and CURL_STATICLIB.
vexo_windows_package(CURL LIBS CURL::libcurl)
vexo_windows_package(LIBXML2 LIBS LibXml2::LibXml2)
vexo_windows_package(JSONC LIBS json-c::json-c)
vexo_windows_package(PROTOBUFC LIBS ${VEXO_PROTOBUFC_LIBRARY} INCLUDES ${VEXO_PROTOBUFC_INCLUDE_DIR})
# openjpeg's package does not say that it was built static.
vexo_windows_package(OPENJP2 LIBS openjp2 INCLUDES ${OPENJPEG_INCLUDE_DIRS} DEFINES OPJ_STATIC)

# What the platform layer calls: Winsock, the IP Helper, the CryptoAPI and
# the security calls, the message box, and (vexoctl) the certificate stores.
set(VEXO_SYSTEM_LIBS ws2_32 iphlpapi advapi32 user32 crypt32)

# The C runtime's reentrant time conversions (gmtime_r) under their POSIX
# names, as mingw-w64's <time.h> offers them.
add_compile_definitions(_POSIX_THREAD_SAFE_FUNCTIONS)

# mingw-w64's own C99 printf family (%zu, %lld) instead of the old msvcrt's,
# so that every text is formatted exactly as on Linux.
add_compile_definitions(__USE_MINGW_ANSI_STDIO=1)
