// System registers, cache maintenance, and system calls whose results are the same in every run.
#include "bi/a64/a64.h"
#include "generator.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t FPCR_BITS = 0x07c80000;  // Rounding, flush to zero, default NaN, alternative half precision.
constexpr std::uint32_t FPSR_BITS = 0x0800009f;

constexpr std::uint64_t SIGILL_BIT = 8;

enum system_call : std::uint32_t {
  NR_FCNTL = 25,
  NR_WRITE = 64,
  NR_SCHED_YIELD = 124,
  NR_RT_SIGPROCMASK = 135,
  NR_GETPID = 172,
  NR_GETUID = 174,
  NR_MUNMAP = 215,
  NR_MMAP = 222,
  NR_MPROTECT = 226,
  NR_FIRST_UNKNOWN = 1'000,
};

}  // namespace

void generator::system_item() {
  const std::uint32_t reg = random_.one_in(12) ? 31 : any_register();
  const std::uint32_t chance = random_.below(12);
  if (chance < 4 && !encodings_.of(row_use::SYSTEM).empty()) {
    const encoding& row = encodings_.rows[random_.pick(encodings_.of(row_use::SYSTEM))];
    start("system", row.name.c_str()).words.push_back(table_word(row));
    done();
    return;
  }
  item& move = start("system register");
  switch (chance) {
    case 4: move.add(a64_mrs_msr, 1, 1, 3, 4, 2, 0, reg); break;                 // mrs reg, nzcv
    case 5: move.add(a64_mrs_msr, 0, 1, 3, 4, 2, 0, reg); break;                 // msr nzcv, reg
    case 6: move.add(a64_mrs_msr, 1, 1, 3, 4, 4, random_.below(2), reg); break;  // mrs reg, fpcr or fpsr
    case 7:
      move.add_constant(reg, random_.next() & FPCR_BITS);
      move.add(a64_mrs_msr, 0, 1, 3, 4, 4, 0, reg);
      break;
    case 8:
      move.add_constant(reg, random_.next() & FPSR_BITS);
      move.add(a64_mrs_msr, 0, 1, 3, 4, 4, 1, reg);
      break;
    case 9: move.add(a64_mrs_msr, 1, 1, 3, 0, 0, random_.one_in(2) ? 1 : 7, reg); break;  // ctr_el0, dczid_el0
    default: move.add(a64_mrs_msr, chance & 1, 1, 3, 13, 0, 2, reg); break;               // tpidr_el0
  }
  done();
}

void generator::cache_item() {
  struct {
    std::uint32_t crm, op2;
  } constexpr operations[] = {{4, 1}, {10, 1}, {11, 1}, {14, 1}, {5, 1}};  // DC ZVA, CVAC, CVAU, CIVAC; IC IVAU.
  const std::uint32_t reg = any_register();
  const auto& one = operations[random_.below(5)];
  item& cache = start("cache");
  // In the middle of memory, so that a block of zeros stays within.
  load_base(cache, reg, data_address(MEMORY_OFFSET + 0x4000 + random_.below(0x4000)));
  cache.add(a64_sys, 3, 7, one.crm, one.op2, reg);
  done();
}

void generator::put_syscall(item& to, std::uint32_t number) {
  to.add_constant(8, number);
  to.add(a64_svc, random_.one_in(4) ? random_.below(0x10000) : 0);
}

// A page that is mapped, written, made read-only, read and unmapped.
void generator::put_mapping_calls(item& to) {
  const std::uint64_t mapping = made_.base + MAPPING_OFFSET;
  to.add_constant(0, mapping);
  to.add_constant(1, 0x10000);
  to.add_constant(2, 3);     // Read and write.
  to.add_constant(3, 0x32);  // Private, anonymous, there.
  to.add_constant(4, ~std::uint64_t{0});
  to.add_constant(5, 0);
  put_syscall(to, NR_MMAP);
  to.add(a64_ldr_str_unsigned, 3, 0, 0, 5, 0, 8);
  to.add_constant(2, 1);
  put_syscall(to, NR_MPROTECT);
  load_base(to, 0, mapping);
  to.add(a64_ldr_str_unsigned, 3, 0, 1, 5, 0, random_.between(2, 7));
  put_syscall(to, NR_MUNMAP);
}

void generator::syscall_item() {
  const std::uint64_t memory = data_address(MEMORY_OFFSET + 8 * random_.below(0x800));
  item& call = start("system call");
  switch (random_.below(9)) {
    case 0:
      call.add_constant(0, 1);
      load_base(call, 1, memory);
      call.add_constant(2, random_.between(0, 64));
      put_syscall(call, NR_WRITE);
      break;
    case 1:
      call.add_constant(0, 1'000);  // Not open.
      load_base(call, 1, memory);
      put_syscall(call, NR_WRITE);
      break;
    case 2: put_syscall(call, NR_SCHED_YIELD); break;
    case 3: {
      const std::uint32_t reg = other_register({0, 8});
      put_syscall(call, NR_GETPID);
      call.add(a64_logical_shifted, 1, 1, 0, 0, 0, 0, 31, reg);  // mov reg, x0
      call.add(a64_svc, 0);
      call.add(a64_add_sub_shifted, 1, 1, 0, 0, reg, 0, 0, reg);  // sub reg, x0, reg
      call.add_constant(0, random_.value());
      break;
    }
    case 4: put_syscall(call, NR_GETUID); break;
    case 5: put_syscall(call, NR_FIRST_UNKNOWN + random_.below(1'000'000)); break;
    case 6:
      // Sets another set of blocked signals and reads the one before. SIGILL is left out: the engine uses it and never
      // lets it be blocked.
      load_base(call, 1, memory);
      call.add_constant(2, random_.value() & ~SIGILL_BIT);
      call.add(a64_ldr_str_unsigned, 3, 0, 0, 0, 1, 2);
      call.add_constant(0, 2);
      load_base(call, 2, data_address(MEMORY_OFFSET + 8 * random_.below(0x800)));
      call.add_constant(3, 8);
      put_syscall(call, NR_RT_SIGPROCMASK);
      break;
    case 7:
      call.add_constant(0, random_.one_in(2) ? 1 : 1'000);
      call.add_constant(1, 1);  // F_GETFD
      put_syscall(call, NR_FCNTL);
      break;
    default: put_mapping_calls(call); break;
  }
  done();
}

}  // namespace ceilmeter
