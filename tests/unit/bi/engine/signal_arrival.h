// A signal frame as the kernel writes one, made up here, and its way through the engine's handler.
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

// The context and the siginfo afterwards are those of the frame that the thread returns from.
inline void arrive_with(siginfo_t& info, ucontext_t& ucontext) {
  alignas(16) static made_frame made;
  std::memcpy(&made.frame.info, &info, sizeof info);
  std::memcpy(&made.frame.ucontext, &ucontext, sizeof ucontext);
  signal_dispatcher(&made.frame, address_of(made.record), 0);
  std::memcpy(&info, &made.frame.info, sizeof info);
  std::memcpy(&ucontext, &made.frame.ucontext, sizeof ucontext);
}

}  // namespace ceilmeter::test
