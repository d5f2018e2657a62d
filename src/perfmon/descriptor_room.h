// Keeps descriptors of the region interface away from the application's own, because both live in the application's
// process. A group of counters takes six for as long as it is open. In the low numbers they would use up the
// application's limit. A program that expects the next free number to be a certain one would also get another.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Makes room for `count` more descriptors, beyond the numbers that the application's soft limit allowed at the first
// call. It raises the soft limit as far as the hard limit lets it. Any thread.
void reserve_descriptor_room(int count);

// Moves `fd` into that room and returns its new number, with close-on-exec. If there is no room, `fd` goes into the
// upper quarter of the allowed numbers; if that fails too, it stays where it is. Any thread.
std::int32_t move_to_descriptor_room(std::int32_t fd);

}  // namespace ceilmeter
