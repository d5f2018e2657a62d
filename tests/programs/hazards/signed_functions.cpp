// What signed_calls.c calls. All of it is compiled with signed return addresses.
#include <stdexcept>

namespace {

thread_local volatile int kept;

// Hidden from the compiler, so that each level has a return of its own.
__attribute__((noinline)) int descend(int depth) {
  volatile int here = depth;
  return here == 0 ? 0 : descend(here - 1) + 1;
}

__attribute__((noinline)) int throw_at(int frames) {
  volatile int here = frames;
  if (here == 0) throw std::runtime_error("the last frame");
  return throw_at(here - 1) + 1;
}

__attribute__((noinline)) long add_odd(long sum, long value) {
  volatile long added = value & 1;
  return sum + added;
}

}  // namespace

extern "C" {

int signed_depth(int depth) { return descend(depth); }

int signed_thread_variable(int value) {
  kept = value;
  descend(3);  // Returns in front of the read.
  return kept;
}

int signed_throws(int frames) {
  int caught = 0;
  for (int round = 0; round < 100; ++round) {
    try {
      throw_at(frames);
    } catch (const std::runtime_error&) {
      ++caught;
    }
  }
  return caught;
}

// Hot enough for traces.
long signed_visits(long count) {
  long sum = 0;
  for (long value = 0; value < count; ++value) sum = add_odd(sum, value);
  return sum;
}

}  // extern "C"

__asm__(
    ".text\n"
    ".globl return_to_forged_address\n"
    "return_to_forged_address:\n"
    "  pacibsp\n"
    "  eor x30, x30, #0x0010000000000000\n"  // A bit of the signature.
    "  retab\n");
