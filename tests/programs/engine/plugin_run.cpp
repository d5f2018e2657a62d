// Runs a program under the engine with one of the plug-ins of the tests:
//   PLUGIN_RUN=NAME plugin_run PROGRAM [ARGUMENT]...
// A plug-in tells what it has seen on standard error when the program ends, one "NAME VALUE" a line. The status is the
// program's. The plug-ins stand in plugins.cpp, call_plugins.cpp and run_plugins.cpp.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bi/plugin.h"
#include "common/log.h"
#include "plugin_run.h"

int main(int argc, char** argv, char** envp) {
  ceilmeter::mora_log_init();
  const char* wanted = std::getenv("PLUGIN_RUN");
  for (const plugin_run::plugin& plugin : plugin_run::plugins) {
    if (wanted == nullptr || std::strcmp(plugin.name, wanted) != 0) continue;
    plugin.add();
    return ceilmeter::mora_run(argc - 1, argv + 1, envp);
  }
  std::fprintf(stderr, "plugin_run: no plug-in of the name in PLUGIN_RUN\n");
  return 2;
}
