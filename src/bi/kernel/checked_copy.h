// A copy that survives a fault. An address of the application's may lead to memory that is gone, and looking at it must
// not end the engine.
//
// How it works: byte_copy is a leaf in assembly that pushes nothing. So at every instruction of it a branch to two
// instructions is a "return -1". While it runs, a handler catches SIGSEGV. If the kernel raised the signal inside
// byte_copy, the handler makes this branch: it moves the program counter of the interrupted context. It decides by the
// program counter alone. It reads no thread-local word and jumps over no frame, as a siglongjmp would.
//
// The action of a signal belongs to the whole process, and in the engine the application's actions stand in the kernel
// too, as the engine's own entry for them. So:
//   - A SIGSEGV that is not the copy's, such as a fault of another thread during it or one sent by kill, gets what it
//     would have got without the copy. The handler is assembly for this: it enters the old handler by a jump, with the
//     kernel's registers and stack pointer, because the engine's entry for signals works on the stack frame that it is
//     entered with and would return through a wrong one after a call. If the old action is the default, it is put
//     back, and the fault strikes again.
//   - One copy runs at a time, under a lock: a second one would take the first one's handler for the old action.
//   - SIGSEGV is unblocked in the calling thread for the time of the copy: a fault with the signal blocked, as the
//     application may well have it, would end the process.
//   - An action that another thread sets between the copy's start and end is overwritten when the copy ends.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// Copies `size` bytes from `source` to `destination`, one by one and upwards, so that an overlap with `destination`
// above `source` repeats what lies between. Returns 0. Any thread, any context.
extern "C" int byte_copy(void* destination, const void* source, std::size_t size);

// The same, but returns -1 if reading or writing faults with SIGSEGV; the bytes before the faulting one have then been
// copied. Also returns -1, with nothing copied, if the signal cannot be caught. Any thread; not in a signal handler,
// and not in a child that was forked while another thread was in it. An access beyond the end of a mapped file is a
// SIGBUS, which the copy does not survive.
int checked_copy(void* destination, const void* source, std::size_t size);

// Frees the copies' lock if the thread, which is gone, has it.
void break_copy_lock(std::uint32_t tid);

}  // namespace ceilmeter
