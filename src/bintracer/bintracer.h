// The tracer as the collector sees it: constructed with what must run at the application's end, set going by collect,
// asked for its report by the finishing step.
#pragma once

#include <cstdint>

#include "report.h"

namespace ceilmeter {

class alignas(64) bintracer_t {
 public:
  using exit_callback = std::uint64_t (*)(std::uint64_t, std::uint64_t);

  // `mode` is MODE_REGION or MODE_TOTAL; `on_exit` runs once, when the application has ended.
  bintracer_t(exit_callback on_exit, std::uint32_t mode);

  // Runs the application in this process. Does not return: the process ends with the application's status.
  [[noreturn]] void collect(int argc, char** argv, char** envp);

  // What was counted, per region; valid when the application has ended.
  bintracer_report get_report();

 private:
  exit_callback m_on_exit;
  std::uint32_t m_mode;
};

}  // namespace ceilmeter
