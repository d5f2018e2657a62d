// Descriptors that the tool keeps open while the application runs in its process. The kernel gives the lowest free
// number, and programs rely on it: natively the first file that they open is number 3. The tool's own descriptors have
// high numbers.
#pragma once

namespace ceilmeter {

// A duplicate of `fd` with a high number, closed on exec. Where the limit on descriptors leaves none free there, the
// lowest free number behind those of the standard streams. -1 and errno if there is none.
int duplicate_out_of_the_way(int fd);

// Moves a descriptor, closed on exec, and returns its number; `fd` itself if it cannot be moved. What is none, the
// result of an open() that has failed, is returned with errno as it is.
int move_out_of_the_way(int fd);

}  // namespace ceilmeter
