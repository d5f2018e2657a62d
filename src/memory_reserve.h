// Room for the tracer's records in an application that has no memory left: it has lowered its limit (RLIMIT_AS), or
// used it up. The application goes on where it natively would, and so its blocks are to be recorded.
#pragma once

namespace ceilmeter {

// Sets a mebibyte of the heap aside, untouched. The first `new` that finds no memory gets it. Call it once, before the
// application runs. It is for the calling thread's heap: other threads use theirs before they fail.
void keep_memory_reserve();

}  // namespace ceilmeter
