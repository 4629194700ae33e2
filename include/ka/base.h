/* Base of every public header: linkage, attributes and the module numbers that tag messages and
 * memory. */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

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
#define KA_NORETURN _Noreturn
#endif

/* Argument `text` is a printf format, the variable arguments start at `first`. */
#define KA_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

#define KA_NORETURN_ATTRIBUTE __attribute__((__noreturn__))

KA_BEGIN_DECLS

/* The modules of the system. A message carries the name of the module on top of the calling
 * thread's module stack, and a block of memory is charged to it. Numbers are fixed: they stand in
 * message codes. */
enum ka_module {
  KA_NULL = 0, /* stands for all modules where a number selects message masks */
  KA_MSG = 1,
  KA_PAR = 2,
  KA_MEM = 3,
  KA_DB = 4,
  KA_SCENE = 7,
  KA_IMG = 10,
  KA_JOB = 23,
  KA_MAIN = 24,
  KA_GEOKA = 25,
  KA_TRANS = 27,
  KA_LIB = 29,
  KA_GAPAD = 41,
  KA_GEOTE = 52,
  KA_JPG = 53,
  KA_MODULE_COUNT = 55
};

KA_END_DECLS
