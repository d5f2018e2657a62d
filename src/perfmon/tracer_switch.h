// The one point where the tracer reaches into the region interface. The tracer plants code at the entry of this
// function. The code stores the 64-bit value 1 through the function's first argument.
#pragma once

// Does nothing by itself. `disabled` stands at the beginning of eight bytes, aligned on 8, that may all be written.
//
// The body stands in a source file of its own, so that no compiler can see that it is empty. The call then stays a real
// one, of this very symbol, and the flag is read again after it.
extern "C" [[gnu::visibility("default")]] void dummy_func_to_disable_roofline_events(bool* disabled);
