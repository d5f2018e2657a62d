// Builds a signal frame as the kernel writes one, and hands it to the engine's handler.
#pragma once

#include <ucontext.h>

#include <csignal>
#include <cstring>

#include "bi/code/stubs.h"
#include "bi/signals/signal_frame.h"

namespace ceilmeter::test {

struct made_frame {
  signal_frame frame;
  std::uint64_t record[2];
};

// Afterwards the context and the siginfo are those of the frame from which the thread returns.
inline void arrive_with(siginfo_t& info, ucontext_t& ucontext) {
  alignas(16) static made_frame made;
  std::memcpy(&made.frame.info, &info, sizeof info);
  std::memcpy(&made.frame.ucontext, &ucontext, sizeof ucontext);
  signal_dispatcher(&made.frame, address_of(made.record), 0);
  std::memcpy(&info, &made.frame.info, sizeof info);
  std::memcpy(&ucontext, &made.frame.ucontext, sizeof ucontext);
}

}  // namespace ceilmeter::test
