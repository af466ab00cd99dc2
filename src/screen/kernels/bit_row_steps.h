#pragma once

#include <cstddef>
#include <cstdint>

#include "screen/kernels/bit_row_kernels.h"

// The loops behind bit_row_kernels.h, plain enough for the compiler to put them into the registers of each
// instruction set. Internal linkage and no library templates: files compiled for
// different instruction sets include them, and a copy shared by the linker could hold instructions that the
// machine does not have.
namespace nvo::bit_row_steps {
namespace {

struct And {
  static std::uint64_t of(std::uint64_t a, std::uint64_t b) { return a & b; }
};
struct Or {
  static std::uint64_t of(std::uint64_t a, std::uint64_t b) { return a | b; }
};

template <class Op>
void combine_rows(std::uint64_t* to, const std::uint64_t* const rows[4], std::size_t words) {
  const std::uint64_t *a = rows[0], *b = rows[1], *c = rows[2], *d = rows[3];
  for (std::size_t i = 0; i < words; ++i)
    to[i] = Op::of(Op::of(to[i], Op::of(a[i], b[i])), Op::of(c[i], d[i]));
}

template <class Op>
void combine_columns(const std::uint64_t* from, std::uint64_t* __restrict to, int shift, std::size_t words) {
  const std::uint64_t *before = from - 1, *behind = from + 1;
  for (std::size_t i = 0; i < words; ++i) {
    const std::uint64_t right = from[i] << shift | before[i] >> (64 - shift);
    const std::uint64_t left = from[i] >> shift | behind[i] << (64 - shift);
    to[i] = Op::of(Op::of(right, left), from[i]);
  }
}

constexpr BitRowKernels kKernels = {combine_rows<And>, combine_rows<Or>, combine_columns<And>,
                                    combine_columns<Or>};

}  // namespace
}  // namespace nvo::bit_row_steps
