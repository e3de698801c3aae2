// ToviExport.h - the one marker for what the shared library exports.
//
// The library is built with hidden visibility by default, so only the names
// that carry TOVI_EXPORT form its binary interface.
#ifndef TOVI_EXPORT_H
#define TOVI_EXPORT_H

#if defined(_WIN32)
#  if defined(TOVI_BUILDING_LIBRARY)
#    define TOVI_EXPORT __declspec(dllexport)
#  else
#    define TOVI_EXPORT __declspec(dllimport)
#  endif
#else
#  define TOVI_EXPORT __attribute__((visibility("default")))
#endif

#if defined(__GNUC__)
#  define TOVI_PRINTF_LIKE(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#  define TOVI_PRINTF_LIKE(fmt, first)
#endif

#endif
