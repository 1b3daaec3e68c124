// The compiler's printf format check for the C runtime in use: mingw-w64
// builds use its own C99 printf (__USE_MINGW_ANSI_STDIO), checked as
// gnu_printf; elsewhere printf.
#ifndef VEXO_PLATFORM_PRINTF_FORMAT_H
#define VEXO_PLATFORM_PRINTF_FORMAT_H

#if defined(__MINGW32__)
#define VEXO_PRINTF_FORMAT(fmt, args) __attribute__((format(gnu_printf, fmt, args)))
#else
#define VEXO_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#endif

#endif  // VEXO_PLATFORM_PRINTF_FORMAT_H
