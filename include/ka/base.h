/* Base of every public header: linkage, attributes and the module numbers that tag messages and
 * memory. */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* The release that these headers belong to: KA_VERSION is 30200 for 3.2.0. */
#define KA_VERSION_MAJOR 3
#define KA_VERSION_MINOR 2
#define KA_VERSION_PATCH 0
#define KA_VERSION (KA_VERSION_MAJOR * 10000 + KA_VERSION_MINOR * 100 + KA_VERSION_PATCH)

/* Made of the sizes of all public records. A library that has another number does not start for a
 * program with this one. */
#define KA_RECORDS 601434604u

/* What stands between these two is exported; everything else of the library is hidden. */
#define KA_EXPORT_BEGIN _Pragma("GCC visibility push(default)")
#define KA_EXPORT_END _Pragma("GCC visibility pop")

#ifdef __cplusplus
#define KA_BEGIN_DECLS \
  extern "C" {         \
  KA_EXPORT_BEGIN
#define KA_END_DECLS \
  KA_EXPORT_END      \
  }
#define KA_NORETURN [[noreturn]]
#else
#define KA_BEGIN_DECLS KA_EXPORT_BEGIN
#define KA_END_DECLS KA_EXPORT_END
#define KA_NORETURN __attribute__((__noreturn__))
#endif

/* Argument `text` is a printf format, the variable arguments start at `first`. */
#define KA_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

#define KA_NORETURN_ATTRIBUTE __attribute__((__noreturn__))

KA_BEGIN_DECLS

/* The modules of the system. A message carries the name of the module on top of the calling
 * thread's module stack, and a block of memory is charged to it. Numbers are fixed: they are part
 * of message codes. */
enum ka_module {
  KA_NULL = 0, /* stands for all modules where a number selects message masks */
  KA_MSG = 1,
  KA_PAR = 2,
  KA_MEM = 3,
  KA_DB = 4,
  KA_PHEN = 5,
  KA_TASK = 6,
  KA_SCENE = 7,
  KA_RC = 8,
  KA_GAPKA = 9,
  KA_IMG = 10,
  KA_ECHO = 11,
  KA_KA = 12,
  KA_RCLM = 13,
  KA_SBS = 14,
  KA_RCH = 15,
  KA_IMATTER = 16,
  KA_GEOSI = 17,
  KA_TEST = 18,
  KA_LINK = 19,
  KA_P2SD = 20,
  KA_DISP = 21,
  KA_LPROF = 22,
  KA_JOB = 23,
  KA_MAIN = 24,
  KA_GEOKA = 25,
  KA_MATTER = 26,
  KA_TRANS = 27,
  KA_INVENTOR = 28,
  KA_LIB = 29,
  KA_API = 30,
  KA_SPDL = 31,
  KA_PHCR = 32,
  KA_RCB = 33,
  KA_RCC = 34,
  KA_RCI = 35,
  KA_RCGI = 36,
  KA_RCHW = 37,
  KA_SIMP = 38,
  KA_SURF = 39,
  KA_CAPI = 40,
  KA_GAPAD = 41,
  KA_GAPCU = 42,
  KA_GAPDI = 43,
  KA_GAPIS = 44,
  KA_GAPPO = 45,
  KA_GAPFA = 46,
  KA_GAPTE = 47,
  KA_GEOCO = 48,
  KA_GEOEV = 49,
  KA_GEOMO = 50,
  KA_GEOST = 51,
  KA_GEOTE = 52,
  KA_JPG = 53,
  KA_RCFG = 54,
  KA_MODULE_COUNT = 55
};

KA_END_DECLS
