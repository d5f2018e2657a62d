// The processes of the region tests. A wrapper plays the tracer's part.
#include "regions_fixture.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "report_handler.h"

namespace ceilmeter::test {

namespace {

bool traced = false;
const void* flag = nullptr;

}  // namespace

void act_as_tracer() { traced = true; }

const void* address_of_flag() { return flag; }

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

regions_test::regions_test() {
  for (const char* variable : {"ROOFLINE_REPORT_FILE", "ROOFLINE_LOG_FILE", "ROOFLINE_LOG_LEVEL"}) unsetenv(variable);
}

process_traces regions_test::run(const std::function<void()>& application) {
  const int out = memfd_create("out", MFD_CLOEXEC);
  const int err = memfd_create("err", MFD_CLOEXEC);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    application();
    // The application has flushed what is in the output now. The failed expectations are appended.
    const off_t end = lseek(STDOUT_FILENO, 0, SEEK_END);
    std::fflush(stdout);
    _exit(HasFailure() || lseek(STDOUT_FILENO, 0, SEEK_END) != end ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  process_traces traces;
  traces.passed = status == 0;
  traces.out = content_of_descriptor(out);
  traces.log = log_lines(content_of_descriptor(err));
  close(out);
  close(err);
  EXPECT_TRUE(traces.passed) << "wait status " << status << ", output:\n"
                             << traces.out << "log:\n"
                             << ::testing::PrintToString(traces.log);
  return traces;
}

process_traces regions_test::run_under_tool(const std::function<void()>& application) {
  return run([&] {
    setenv("ROOFLINE_REPORT_FILE", report_path().c_str(), 1);
    application();
  });
}

region_metric regions_test::region(const std::string& name) const {
  for (region_metric& found : read(report_path()).regions) {
    if (found.name == name) return std::move(found);
  }
  ADD_FAILURE() << "no region '" << name << "' in:\n" << content_of(report_path());
  return {};
}

std::vector<std::string> regions_test::region_names() const {
  std::vector<std::string> names;
  for (const region_metric& found : read(report_path()).regions) names.push_back(found.name);
  return names;
}

std::uint64_t regions_test::metric(const std::string& region_name, const std::string& name) const {
  const region_metric found = region(region_name);
  const std::uint64_t* value = found.metrics.find(name);
  if (value != nullptr) return *value;
  ADD_FAILURE() << "no " << name << " in region " << region_name;
  return ~0ul;
}

}  // namespace ceilmeter::test

extern "C" {

void __real_dummy_func_to_disable_roofline_events(bool* disabled);

void __wrap_dummy_func_to_disable_roofline_events(bool* disabled) {
  ceilmeter::test::flag = disabled;
  if (ceilmeter::test::traced) {
    const std::uint64_t one = 1;
    std::memcpy(static_cast<void*>(disabled), &one, sizeof one);
  }
  __real_dummy_func_to_disable_roofline_events(disabled);
}

}  // extern "C"
