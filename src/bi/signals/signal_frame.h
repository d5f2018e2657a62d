// Frames of the application's signals. The kernel has written its frame on the engine's signal stack. Before a handler
// of the application's runs, the frame is copied to the place where the kernel would have put it without the engine,
// and the kernel's own frame becomes the way into the handler: it is returned from.
//
//   as the kernel has written it, and as it is copied: from the lowest address up
//   ┌──────────────────┐ signal_frame                    sp of the handler, and its x1
//   │ siginfo          │                                 left out without SA_SIGINFO
//   │ ucontext         │                                 x2
//   │   uc_stack       │ the application's, as data
//   │   uc_sigmask     │
//   │   mcontext       │ source addresses only
//   │     records      │ fpsimd, sve, extra: its address moves with the frame
//   ├──────────────────┤
//   │ x29, x30         │ frame record                    x29 of the handler
//   └──────────────────┘ top: the application's sp, or its signal stack's end
#pragma once

#include <ucontext.h>

#include <csignal>
#include <cstdint>

#include "bi/mora.h"
#include "bi/signals/signal_actions.h"

namespace ceilmeter {

// What the kernel hands to a handler: the lowest part of its frame.
struct signal_frame {
  siginfo_t info;
  ucontext_t ucontext;
};

// What the kernel hands over beside it, in x29 and x30.
struct frame_end {
  std::uint64_t record;    // Of x29 and x30, 16 bytes, the top of the frame.
  std::uint64_t restorer;  // Where the handler returns to.
};

// Makes the return from `frame` enter the handler of `action`. The frame's context is the application's, with a source
// address as its pc; `mask` is what the thread blocked when the signal came. False, and nothing has changed, if the
// application's stack cannot take the frame.
bool enter_handler(thread_data* thread, signal_frame* frame, const frame_end& end, const application_action& action,
                   std::uint64_t mask);

// The application returns from a handler with the frame at its sp: its stack becomes what the frame says, and the frame
// is made one that the kernel can return from.
void take_back_frame(thread_data* thread, ucontext_t* ucontext);

}  // namespace ceilmeter
