// Loops for engine_cost.py. Each loop has one kind of code, so that its cost under the engine shows alone. The program
// links the C library, so that its start is that of a real program.
//
//   engine_loops KIND ROUNDS     prints a sum, so that a run under the engine can be compared
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/syscall.h>

namespace {

// One block of 40 instructions that jumps to itself.
std::uint64_t straight(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "1: .rept 38\n"
      "   add %0, %0, #3\n"
      "   .endr\n"
      "   subs %1, %1, #1\n"
      "   b.ne 1b\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "cc");
  return sum;
}

// Blocks of three or four instructions. The conditions are of every kind and go either way equally often.
std::uint64_t conditional(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "1: tbz %1, #0, 2f\n"
      "   add %0, %0, #3\n"
      "   b 3f\n"
      "2: add %0, %0, #5\n"
      "3: and x9, %1, #3\n"
      "   cbnz x9, 4f\n"
      "   eor %0, %0, #1\n"
      "4: cmp x9, #2\n"
      "   b.lo 5f\n"
      "   add %0, %0, #7\n"
      "5: subs %1, %1, #1\n"
      "   b.ne 1b\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "x9", "cc");
  return sum;
}

// A call and a return for every four instructions.
std::uint64_t calls(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "   b 2f\n"
      "1: add %0, %0, #3\n"
      "   ret\n"
      "2: bl 1b\n"
      "   bl 1b\n"
      "   subs %1, %1, #1\n"
      "   b.ne 2b\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "x30", "cc");
  return sum;
}

// A branch through a table of four places, as in an interpreter or a switch.
std::uint64_t indirect(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "   adr x9, 2f\n"
      "1: and x10, %1, #3\n"
      "   add x10, x9, x10, lsl #3\n"
      "   br x10\n"
      "2: add %0, %0, #1\n"
      "   b 3f\n"
      "   add %0, %0, #2\n"
      "   b 3f\n"
      "   add %0, %0, #3\n"
      "   b 3f\n"
      "   add %0, %0, #4\n"
      "3: subs %1, %1, #1\n"
      "   b.ne 1b\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "x9", "x10", "cc");
  return sum;
}

// Literals and addresses relative to the program counter.
std::uint64_t memory(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "   b 2f\n"
      "   .balign 8\n"
      "1: .quad 3\n"
      "2: ldr x9, 1b\n"
      "   adr x10, 1b\n"
      "   ldr x11, [x10]\n"
      "   add %0, %0, x9\n"
      "   add %0, %0, x11\n"
      "   subs %1, %1, #1\n"
      "   b.ne 2b\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "x9", "x10", "x11", "cc", "memory");
  return sum;
}

// Instructions that the engine's decoder does not know. Each begins a block of its own. Needs a processor with SVE.
std::uint64_t unknown(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "   .arch_extension sve\n"
      "1: rdvl x9, #1\n"
      "   cntd x10\n"
      "   add %0, %0, x9\n"
      "   addvl x9, x9, #1\n"
      "   add %0, %0, x10\n"
      "   subs %1, %1, #1\n"
      "   b.ne 1b\n"
      "   .arch_extension nosve\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "x9", "x10", "cc");
  return sum;
}

std::uint64_t system_calls(std::uint64_t rounds) {
  std::uint64_t sum = 0;
  for (; rounds != 0; --rounds) sum += syscall(SYS_getpgid, 0) >= 0 ? 1 : 0;
  return sum;
}

// 20,000 blocks of six instructions. Each runs once a round, so nearly all the cost is scanning and linking.
std::uint64_t new_blocks(std::uint64_t rounds) {
  std::uint64_t sum = 1;
  asm volatile(
      "1: .rept 20000\n"
      "   add %0, %0, #3\n"
      "   eor %0, %0, #1\n"
      "   add %0, %0, #5\n"
      "   add x9, %0, #1\n"
      "   cbz x9, 2f\n"  // Never: the next block begins behind it.
      "   add %0, %0, #7\n"
      "2:\n"
      "   .endr\n"
      "   sub %1, %1, #1\n"
      "   cbz %1, 3f\n"
      "   b 1b\n"
      "3:\n"
      : "+r"(sum), "+r"(rounds)
      :
      : "x9");
  return sum;
}

// Each round says of a line that holds data only that its code is void, as a program does that writes code.
std::uint64_t invalidations(std::uint64_t rounds) {
  alignas(256) static std::uint8_t line[256];
  std::uint64_t sum = 0;
  asm volatile(
      "1: ic ivau, %2\n"
      "   add %0, %0, #1\n"
      "   subs %1, %1, #1\n"
      "   b.ne 1b\n"
      : "+r"(sum), "+r"(rounds)
      : "r"(line)
      : "cc", "memory");
  return sum;
}

struct loop {
  const char* name;
  std::uint64_t (*run)(std::uint64_t rounds);
};

constexpr loop loops[] = {
    {"straight", straight},         {"conditional", conditional}, {"calls", calls},
    {"indirect", indirect},         {"memory", memory},           {"unknown", unknown},
    {"system_calls", system_calls}, {"new_blocks", new_blocks},   {"invalidations", invalidations}};

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t rounds = argc == 3 ? std::strtoull(argv[2], nullptr, 10) : 0;
  for (const loop& each : loops) {
    if (rounds == 0 || std::strcmp(argv[1], each.name) != 0) continue;
    std::printf("%lu\n", static_cast<unsigned long>(each.run(rounds)));
    return 0;
  }
  std::fprintf(stderr, "engine_loops KIND ROUNDS, KIND being one of:");
  for (const loop& each : loops) std::fprintf(stderr, " %s", each.name);
  std::fprintf(stderr, "\n");
  return 2;
}
