// What the tests of class perfmon share: access to its private parts, and a fixture with a fake kernel and a fake log.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../support/fake_log.h"
#include "common/log.h"
#include "fake_kernel.h"
#include "perfmon/perfmon.h"

namespace ceilmeter::test {

inline const std::string SOURCE = "src/perfmon/perfmon";

class open_perfmon : public perfmon {
 public:
  explicit open_perfmon(bool inherit) : perfmon(inherit) {}
  open_perfmon(bool inherit, perfmon_event_map events) : perfmon(inherit, std::move(events)) {}

  using perfmon::finalize_per_thread_map;
  using perfmon::m_counters_per_region_map;
  using perfmon::m_counters_per_thread_map;
  using perfmon::m_events;
  using perfmon::m_inherit;
  using perfmon::m_time_intervals_map;
  using perfmon::open_events_of_type;
  using perfmon::open_roofline_events;
  using perfmon::read_counters_from_group;

  // The calling thread's record.
  thread_counters& counters(const std::string& region) {
    return m_counters_per_thread_map.at({region, static_cast<std::int32_t>(syscall(SYS_gettid))});
  }
};

class perfmon_test : public ::testing::Test {
 protected:
  perfmon_test() { reset_log(LEVEL_WARN); }
  ~perfmon_test() override { reset_log(LEVEL_WARN); }

  // The descriptor of the n-th counter that was opened.
  static int fd(int n) { return fake_kernel::first_fd + n; }

  // What was logged at `level`, which has to come from `function`.
  static std::vector<std::string> logged_by(const std::string& function, int level) {
    std::vector<std::string> texts;
    for (const logged_line& line : logged_lines()) {
      if (line.source == SOURCE && line.function == function && line.level == level) texts.push_back(line.text);
    }
    return texts;
  }

  fake_kernel kernel;
};

}  // namespace ceilmeter::test
