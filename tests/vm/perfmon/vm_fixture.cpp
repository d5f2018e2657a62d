// Helpers of the tests on a real kernel, and the program's entry.
#include "vm_fixture.h"

#include <dirent.h>
#include <linux/perf_event.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ceilmeter::test {

namespace {

constexpr std::uint64_t RAW_CPU_CYCLES = 0x11;

std::uint64_t faults(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<std::uint64_t>(usage.ru_minflt + usage.ru_majflt);
}

// "[1.000002:3]  perfmon:12 MORA warn text" becomes "warn text".
std::string without_header(const std::string& line) {
  const std::size_t mark = line.find(" MORA ");
  return mark == std::string::npos ? line : line.substr(mark + 6);
}

}  // namespace

vm_perfmon::vm_perfmon(bool inherit)
    : perfmon(inherit, {{PERF_TYPE_RAW, {{CYCLES, RAW_CPU_CYCLES, -1}}},
                        {PERF_TYPE_SOFTWARE,
                         {{FAULTS, PERF_COUNT_SW_PAGE_FAULTS, -1}, {TASK_CLOCK, PERF_COUNT_SW_TASK_CLOCK, -1}}}}) {}

void vm_perfmon::start(const std::string& region) {
  thread_counters& group = find_or_insert_counters(region);
  if (group.group_fd == -1) {
    open_events_of_type(PERF_TYPE_RAW, group);
    open_events_of_type(PERF_TYPE_SOFTWARE, group);
  }
  start_roofline_events(region);
}

counter_table vm_perfmon::read(const std::string& region) {
  counter_table table;
  read_counters_from_group(find_or_insert_counters(region), table);
  return table;
}

std::uint64_t vm_perfmon::total(const std::string& region, const std::string& counter) const {
  const auto counters = m_counters_per_region_map.find(region);
  if (counters == m_counters_per_region_map.end()) {
    ADD_FAILURE() << "region " << region << " is missing";
    return 0;
  }
  const std::uint64_t* value = counters->second.find(counter);
  if (value == nullptr) {
    ADD_FAILURE() << "counter " << counter << " of region " << region << " is missing";
    return 0;
  }
  return *value;
}

void touch_pages(int pages) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t size = page * static_cast<std::size_t>(pages);
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  madvise(memory, size, MADV_NOHUGEPAGE);  // One fault a page.
  volatile char* bytes = static_cast<volatile char*>(memory);
  for (std::size_t offset = 0; offset < size; offset += page) bytes[offset] = 1;
  munmap(memory, size);
}

void burn(int millions) {
  volatile std::uint64_t sink = 1;
  std::uint64_t x = sink;
  // Two operations a round.
  for (std::int64_t i = 0; i < std::int64_t{millions} * 500'000; ++i) {
    x = x * 6364136223846793005u + 1442695040888963407u;
  }
  sink = x;
}

std::uint64_t faults_of_self() { return faults(RUSAGE_SELF); }

std::uint64_t faults_of_children() { return faults(RUSAGE_CHILDREN); }

child_result run_in_child(const std::function<void()>& work) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    work();
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  close(ends[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t bytes; (bytes = read(ends[0], buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(bytes));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);

  child_result result;
  if (WIFEXITED(status)) result.exit_status = WEXITSTATUS(status);
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    const std::string line = without_header(text.substr(begin, end - begin));
    const bool is_silent_metric = line.find(" is 0 in all regions: ") != std::string::npos;
    (is_silent_metric ? result.silent_metrics : result.log).push_back(line);
    begin = end + 1;
  }
  return result;
}

void fork_and_wait(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
}

int open_descriptors() {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) std::abort();
  int count = -1;  // The folder's own descriptor.
  while (const dirent* entry = readdir(folder)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(folder);
  return count;
}

}  // namespace ceilmeter::test

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], ceilmeter::test::TOUCH_OPTION) == 0) {
    ceilmeter::test::touch_pages(std::atoi(argv[2]));
    return 0;
  }
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
