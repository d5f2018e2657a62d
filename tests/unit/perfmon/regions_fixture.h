// What the tests of the region interface share. The interface keeps its state for the life of a process, so every run
// of it has a process of its own. The counters there are those of the fake kernel, and the log is the real one.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <roofline_events.h>

#include <functional>
#include <string>
#include <vector>

#include "../support/captured_log.h"
#include "../support/scratch_folder.h"
#include "common/log.h"
#include "fake_kernel.h"
#include "report.h"

namespace ceilmeter::test {

// What a process left behind.
struct process_traces {
  bool passed = false;           // It ended by itself, without a failed expectation.
  std::string out;               // Standard output as it was when the process ended without flushing it.
  std::vector<std::string> log;  // Standard error, each line of the log reduced to "level message".
};

std::string content_of(const std::string& path);
void write_file(const std::string& path, const std::string& content);

class regions_test : public ::testing::Test {
 protected:
  regions_test();

  // Runs `application` in a child process. Its failed expectations are printed and fail the calling test.
  process_traces run(const std::function<void()>& application);

  // The same with the report file in the environment, as the tool starts it. The log level stands at "warn".
  process_traces run_under_tool(const std::function<void()>& application);

  // A file in the test's own folder.
  std::string path(const std::string& name) const { return folder_ / name; }
  std::string report_path() const { return path("app.roofline.json"); }

  // A region of the report file; fails the test if there is none.
  region_metric region(const std::string& name) const;
  std::vector<std::string> region_names() const;
  std::uint64_t metric(const std::string& region_name, const std::string& name) const;

  // The descriptor of the n-th counter that was opened.
  static int fd(int n) { return fake_kernel::first_fd + n; }

  fake_kernel kernel;

 private:
  const scratch_folder folder_;
};

// Does what the tracer does: the entry of the function that the tracer watches stores 1, 64 bits wide.
void act_as_tracer();
// The argument of its last call.
const void* address_of_flag();

}  // namespace ceilmeter::test
