// Kernels for several instruction sets in one program: a kernel is a plain loop, written once and
// inlined into one function per instruction set, so that the compiler vectorises it for each. A
// table picks the function once.
#pragma once

#include <array>

#if defined(__x86_64__)
#define _Bool bool  // in the C library's header, which clang takes for C++
#include <sys/platform/x86.h>
#undef _Bool
#endif

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

// Picks what this processor runs best. The C library knows: asking the processor again, as the
// compiler's own functions do when a program starts, takes long in virtual machines.
template <typename Function>
Function best_kernel(const KernelTable<Function>& table) {
  if (CPU_FEATURE_ACTIVE(AVX512BW) && CPU_FEATURE_ACTIVE(AVX512VL) &&
      CPU_FEATURE_ACTIVE(AVX512_VBMI)) {
    return table.avx512;
  }
  return CPU_FEATURE_ACTIVE(AVX2) ? table.avx2 : table.base;
}

// Every kernel of the table that this processor runs, the scalar-compatible base first.
template <typename Function>
std::array<Function, 3> usable_kernels(const KernelTable<Function>& table) {
  const Function best = best_kernel(table);
  return {table.base, best == table.base ? table.base : table.avx2, best};
}

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

#endif

template <auto Body, typename = decltype(Body)>
struct Kernels;

template <auto Body, typename... Arguments>
struct Kernels<Body, void (*)(Arguments...)> {
  static void base(Arguments... arguments) { Body(arguments...); }
#if defined(__x86_64__)
  KA_TARGET_AVX2 static void avx2(Arguments... arguments) { Body(arguments...); }
  KA_TARGET_AVX512 static void avx512(Arguments... arguments) { Body(arguments...); }
  static constexpr KernelTable<void (*)(Arguments...)> table = {base, avx2, avx512};
#else
  static constexpr KernelTable<void (*)(Arguments...)> table = {base};
#endif
};

// The table of a kernel, a function that is declared as KA_KERNEL and returns nothing.
template <auto Body>
constexpr const auto& kernels_of = Kernels<Body>::table;

}  // namespace ka
