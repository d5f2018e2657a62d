// Descriptors of the region interface, which lives in the application's process, away from the application's own. A
// group of counters takes six for as long as it is open. In the low numbers they would use up the application's limit,
// and a program that expects the next free number to be a certain one would get another.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Makes room for `count` more descriptors beyond the numbers that the application's soft limit allowed at the first
// call, by raising the soft limit as far as the hard limit lets it. Any thread.
void reserve_descriptor_room(int count);

// Moves `fd` into that room and returns its new number, with close-on-exec. Where there is no room it goes into the
// upper quarter of the allowed numbers, and failing that it stays where it is. Any thread.
std::int32_t move_to_descriptor_room(std::int32_t fd);

}  // namespace ceilmeter
