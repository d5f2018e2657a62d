// The hand-written kernels, their data words, and the only two ways to enter them. The kernels do not follow the
// calling convention: they overwrite registers that a function must keep and take arguments where a function has none.
// So they are declared as objects that cannot be called, and the callers below tell the compiler all that is
// overwritten.
#pragma once

#include <cstdint>

namespace ceilmeter {

// How the bandwidth benchmark calls a load kernel: `data` the calling thread's buffer, `iterations` passes of the loop,
// `elements` 32-bit elements in the buffer. An ordinary function, such as call_load_kernel<...>.
using load_kernel = void (*)(float* data, std::int32_t iterations, std::uint64_t elements);

}  // namespace ceilmeter

// The text of a load kernel. An incomplete type: it has an address and nothing else.
struct load_kernel_text;

extern "C" {

extern const load_kernel_text cachebw_ldp_256;
extern const load_kernel_text cachebw_ld1_256;
extern const load_kernel_text cachebw_ldp_512;
extern const load_kernel_text cachebw_ldr_64;
extern const load_kernel_text cachebw_ldp_str;

// Bytes that one pass of the loop touches.
extern const std::uint64_t cachebw_ldp_256_bytes_per_iteration;
extern const std::uint64_t cachebw_ld1_256_bytes_per_iteration;
extern const std::uint64_t cachebw_ldp_512_bytes_per_iteration;
extern const std::uint64_t cachebw_ldr_64_bytes_per_iteration;
extern const std::uint64_t cachebw_ldp_str_bytes_per_iteration;

// The address words of the arithmetic kernels: each holds its own address, and the code follows it.
extern const std::uint64_t flops_f16x8_fadd;
extern const std::uint64_t flops_f32x4_fadd;
extern const std::uint64_t flops_f64x2_fadd;
extern const std::uint64_t flops_f32x4_fmla;
extern const std::uint64_t flops_f64x2_fmla;
extern const std::uint64_t flops_f16x8_fmla;
extern const std::uint64_t flops_sp_fmadd;
extern const std::uint64_t flops_dp_fmadd;

// Floating-point operations of one pass of the loop; a multiply-add counts as two.
extern const std::uint64_t flops_f16x8_fadd_flops_per_iteration;
extern const std::uint64_t flops_f32x4_fadd_flops_per_iteration;
extern const std::uint64_t flops_f64x2_fadd_flops_per_iteration;
extern const std::uint64_t flops_f32x4_fmla_flops_per_iteration;
extern const std::uint64_t flops_f64x2_fmla_flops_per_iteration;
extern const std::uint64_t flops_f16x8_fmla_flops_per_iteration;
extern const std::uint64_t flops_sp_fmadd_flops_per_iteration;
extern const std::uint64_t flops_dp_fmadd_flops_per_iteration;

}  // extern "C"

#if defined(__aarch64__)

// What the kernels of a file overwrite, as the compiler is told. Macros, because a clobber list takes nothing but
// string literals. A test disassembles the kernels and compares what they write with these two lists. x16, x17 and x30
// are not the kernels': a linker may put a veneer into the call, and the call itself writes the return address.
#define CEILMETER_VECTOR_REGISTERS                                                                                    \
  "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12", "v13", "v14", "v15", "v16", "v17", \
      "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31"
#define CEILMETER_CALL_REGISTERS "x16", "x17", "x30"
// Besides these x2, which goes in and comes out.
#define CEILMETER_LOAD_KERNEL_OVERWRITES "x12", "x13", "x14", "cc", CEILMETER_VECTOR_REGISTERS
// Besides these x1 and x2, which go in and come out.
#define CEILMETER_FLOPS_KERNEL_OVERWRITES "cc", CEILMETER_VECTOR_REGISTERS

namespace ceilmeter {

// Runs the load kernel `text`. `iterations` must be at least 1, and the buffer's bytes a whole multiple of the step of
// one pass; otherwise the kernel reads beyond the buffer.
template <const load_kernel_text& text>
void call_load_kernel(float* data, std::int32_t iterations, std::uint64_t elements) {
  register float* x0 asm("x0") = data;
  register std::int64_t x1 asm("x1") = iterations;
  register std::uint64_t x2 asm("x2") = elements;
  asm volatile("blr %[entry]"
               : "+r"(x2)
               : [entry] "r"(&text), "r"(x0), "r"(x1)
               : "memory", CEILMETER_CALL_REGISTERS, CEILMETER_LOAD_KERNEL_OVERWRITES);
}

// Enters the arithmetic kernel whose address word holds `kernel`, for `iterations` passes, at least 1.
inline void enter_flops_kernel(std::uint64_t kernel, std::uint64_t iterations) {
  register std::uint64_t x1 asm("x1") = iterations;
  register std::uint64_t x2 asm("x2") = kernel;
  asm volatile("bl flops_kernel_trampoline"
               : "+r"(x1), "+r"(x2)
               :
               : "memory", CEILMETER_CALL_REGISTERS, CEILMETER_FLOPS_KERNEL_OVERWRITES);
}

}  // namespace ceilmeter

#endif
