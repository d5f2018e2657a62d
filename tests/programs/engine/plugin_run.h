// The plug-ins of the tests, by name.
#pragma once

#include <cstdint>
#include <vector>

namespace plugin_run {

struct plugin {
  const char* name;
  void (*add)();
};

extern const std::vector<plugin> plugins;

// One line of a plug-in's account.
void tell(const char* name, std::uint64_t value);

void add_blocks_called();
void add_blocks_called_by_constants();
void add_watched_entries();
void add_watched_returns();
void add_watched_all();
void add_runs();
void add_runs_twice();

}  // namespace plugin_run
