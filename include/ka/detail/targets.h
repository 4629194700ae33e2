// Kernels for several instruction sets in one program: a kernel is a plain loop, written once and
// inlined into one function per instruction set, so that the compiler vectorises it for each. A
// table picks the function once.
#pragma once

#include <array>

#define KA_KERNEL [[gnu::always_inline]] inline

namespace ka {

#if defined(__x86_64__)
#define KA_TARGET_AVX2 [[gnu::target("avx2")]]
#define KA_TARGET_AVX512 [[gnu::target("avx2,avx512f,avx512bw,avx512vl,avx512vbmi")]]

// The same kernel for each instruction set.
template <typename Function>
struct KernelTable {
  Function base, avx2, avx512;
};

// Picks what this processor runs best.
template <typename Function>
Function best_kernel(const KernelTable<Function>& table) {
  if (__builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vbmi")) {
    return table.avx512;
  }
  return __builtin_cpu_supports("avx2") ? table.avx2 : table.base;
}

// Every kernel of the table that this processor runs, the scalar-compatible base first.
template <typename Function>
std::array<Function, 3> usable_kernels(const KernelTable<Function>& table) {
  const Function best = best_kernel(table);
  return {table.base, best == table.base ? table.base : table.avx2, best};
}

// Defines `name`_kernels, the table of functions (parameters) -> void whose bodies are
// `body`(arguments).
#define KA_DEFINE_KERNELS(name, body, parameters, arguments)                                  \
  void name##_base parameters { body arguments; }                                             \
  KA_TARGET_AVX2 void name##_avx2 parameters { body arguments; }                              \
  KA_TARGET_AVX512 void name##_avx512 parameters { body arguments; }                          \
  constexpr ::ka::KernelTable<void(*) parameters> name##_kernels = {name##_base, name##_avx2, \
                                                                    name##_avx512}

// The same inside a class: static functions base, avx2 and avx512, and table().
#define KA_KERNEL_MEMBERS(body, parameters, arguments)               \
  static void base parameters { body arguments; }                    \
  KA_TARGET_AVX2 static void avx2 parameters { body arguments; }     \
  KA_TARGET_AVX512 static void avx512 parameters { body arguments; } \
  static constexpr ::ka::KernelTable<void(*) parameters> table() { return {base, avx2, avx512}; }
#else
// Elsewhere the compiler's default instruction set has vectors already (NEON on arm64).
template <typename Function>
struct KernelTable {
  Function base;
};

template <typename Function>
Function best_kernel(const KernelTable<Function>& table) {
  return table.base;
}

template <typename Function>
std::array<Function, 3> usable_kernels(const KernelTable<Function>& table) {
  return {table.base, table.base, table.base};
}

#define KA_DEFINE_KERNELS(name, body, parameters, arguments) \
  void name##_base parameters { body arguments; }            \
  constexpr ::ka::KernelTable<void(*) parameters> name##_kernels = {name##_base}

#define KA_KERNEL_MEMBERS(body, parameters, arguments) \
  static void base parameters { body arguments; }      \
  static constexpr ::ka::KernelTable<void(*) parameters> table() { return {base}; }
#endif

}  // namespace ka
