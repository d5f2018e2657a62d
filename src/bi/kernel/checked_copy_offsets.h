/* Where checked_copy's handler finds what it needs in a signal's records. Included by the assembly: nothing but
   preprocessor constants may stand here. checked_copy.cpp ties each to its field. */
#pragma once

#define SIGINFO_CODE_OFFSET 8

#if defined(__aarch64__)
#define UCONTEXT_PC_OFFSET 440
#elif defined(__x86_64__)
#define UCONTEXT_PC_OFFSET 168
#endif
