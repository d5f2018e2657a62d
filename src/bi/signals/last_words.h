// What the engine tells of a thread before the process ends by an error: lines in front of the fatal one. They come
// with the engine's log level "warn" and above. A fault of the application's own tells nothing at that level: its
// handler, or the kernel, sees to it.
//
// The process tells once. Nothing here takes a lock or memory of the heap. The records that are read may be damaged: a
// fault while they are read ends the telling, and the fatal line follows. Another thread that faults meanwhile waits
// for the end of the process.
#pragma once

#include <ucontext.h>

#include <csignal>

#include "bi/mora.h"

namespace ceilmeter {

// From now on a fatal line of the engine's is preceded by what is known of the thread that writes it: its newest
// fragment, the source address and the module of it, and the code. Nothing for a thread without fragments.
void install_last_words();

// The thread has faulted outside the rewritten code: names signal, place and module, and the fragment that the place
// was called from, or the newest one if the link register names none. A fatal line follows.
void log_fault(const thread_data* thread, const siginfo_t& info, const mcontext_t& context);

// The thread has faulted in its code cache, and the application ends by it: names signal, cache address, source
// address, module and fragment, and shows the fragment. Only with the log level "info" and above, for developers: with
// it the engine handles the signals that end a program by a fault (see report_crashes).
void log_crash(const thread_data* thread, const siginfo_t& info, const mcontext_t& context);

}  // namespace ceilmeter

// For a debugger (tools/gdb/engine.py): "fragment N at 0xPLACE, of source 0xADDRESS, FILE+0xOFFSET" for an address in
// any thread's code cache, else "0xADDRESS, FILE+0xOFFSET". The text is good until the next call.
extern "C" const char* describe_place(unsigned long address);
