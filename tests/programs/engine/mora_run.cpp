// Runs a program under the bare engine, without plug-ins and without the rest of the tool:
//   mora_run PROGRAM [ARGUMENT]...
// Linked as the tool is, so that it has the tool's place in memory. The status is the program's; the engine's messages
// go to standard error, at the level of MORA_BI_LOG_LEVEL.
#include "bi/mora.h"
#include "common/log.h"

int main(int argc, char** argv, char** envp) {
  ceilmeter::mora_log_init();
  return ceilmeter::mora_run(argc - 1, argv + 1, envp);
}
