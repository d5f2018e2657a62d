// The one point at which the tracer reaches into the region interface. Under the tracer, code that it has planted at
// the entry of this function stores the 64-bit value 1 through the function's first argument.
#pragma once

// Does nothing by itself. `disabled` stands at the beginning of eight bytes, aligned on 8, that may all be written.
//
// A source file of its own holds the body, so that no compiler can tell that it is empty: the call stays a real one,
// of this very symbol, and the flag is read again behind it.
extern "C" [[gnu::visibility("default")]] void dummy_func_to_disable_roofline_events(bool* disabled);
