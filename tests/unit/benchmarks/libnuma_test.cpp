// libnuma in every state in which a machine may have it. The tests' dlopen goes to a folder of the build with a
// substitute; since the benchmark asks for the library once in a process, each test runs in a child, with the real log.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "benchmarks/cachebw.h"
#include "benchmarks/dataalloc.h"
#include "common/log.h"

namespace {

std::string variant;     // The folder of the library that dlopen finds.
int opened = 0;          // Calls of dlopen.
bool no_origin = false;  // dlinfo fails.
void* handle_opened = nullptr;

}  // namespace

extern "C" {

void* __real_dlopen(const char* name, int flags);
int __real_dlclose(void* handle);
int __real_dlinfo(void* handle, int request, void* into);

void* __wrap_dlopen(const char* name, int flags) {
  ++opened;
  if (flags != RTLD_LAZY) std::abort();
  handle_opened = __real_dlopen((std::string(FAKE_LIBNUMA_DIR "/") + variant + "/" + name).c_str(), flags);
  return handle_opened;
}

// Prints, because the checked call comes after main.
int __wrap_dlclose(void* handle) {
  if (handle == handle_opened) {
    const char text[] = "dlclose of libnuma\n";
    if (write(STDERR_FILENO, text, sizeof(text) - 1) < 0) std::abort();
  }
  return __real_dlclose(handle);
}

int __wrap_dlinfo(void* handle, int request, void* into) {
  // A request that does not exist leaves a text for dlerror, as a real failure does.
  return __real_dlinfo(handle, no_origin ? -1 : request, into);
}

}  // extern "C"

namespace ceilmeter {
namespace {

struct outcome {
  int status;
  std::string text;  // What the child wrote to standard error.
};

outcome run_in_child(const std::function<void()>& body) {
  int ends[2];
  if (pipe(ends) != 0) return {-1, "no pipe"};
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    signal(SIGABRT, SIG_DFL);
    mora_log_set_level(LEVEL_DEBUG);
    body();
    std::exit(0);
  }
  close(ends[1]);
  outcome result{0, ""};
  char buffer[512];
  for (ssize_t count = 0; (count = read(ends[0], buffer, sizeof(buffer))) > 0;) {
    result.text.append(buffer, static_cast<std::size_t>(count));
  }
  close(ends[0]);
  waitpid(child, &result.status, 0);
  return result;
}

int count_of(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

void idle_kernel(float*, std::int32_t, std::uint64_t) {}

// A whole life of a benchmark that wants local memory.
void measure() {
  cachebw roof("DDR Numa-local", 3, idle_kernel, 256, 1024, true, 0.01);
  roof();
}

std::size_t library_counter(const char* name) { return *static_cast<std::size_t*>(dlsym(handle_opened, name)); }

void expect_clean_exit(const outcome& result) { EXPECT_EQ(result.status, 0) << result.text; }

TEST(libnuma, present_gives_a_buffer_to_each_thread_and_takes_it_back) {
  variant = "present";
  const outcome result = run_in_child([] {
    {
      cachebw roof("DDR Numa-local", 3, idle_kernel, 256, 1024, true, 0.01);
      roof();
      if (library_counter("fake_numa_buffers") != 3) std::abort();
      if (library_counter("fake_numa_bytes") != 3 * 4096) std::abort();
    }
    if (library_counter("fake_numa_bytes") != 0) std::abort();
  });
  expect_clean_exit(result);
  EXPECT_THAT(result.text, testing::HasSubstr("useLocalNuma is 1\n"));
  EXPECT_THAT(result.text, testing::HasSubstr("loaded libnuma.so.1 from " FAKE_LIBNUMA_DIR "/present\n"));
  EXPECT_THAT(result.text, testing::HasSubstr("loaded numa_available from libnuma.so.1\n"));
  EXPECT_THAT(result.text, testing::HasSubstr("data_alloc_numa is initiated\n"));
  EXPECT_THAT(result.text, testing::Not(testing::HasSubstr("data_alloc is initiated.")));
  EXPECT_THAT(result.text, testing::Not(testing::HasSubstr("MORA warn")));
}

TEST(libnuma, present_is_filled_with_the_numbers_of_the_elements) {
  variant = "present";
  const outcome result = run_in_child([] {
    const std::unique_ptr<data_alloc_numa> allocator = create_numa_data(2, 1000);
    if (allocator == nullptr) std::abort();
    for (std::uint32_t thread_id = 0; thread_id < 2; ++thread_id) {
      allocator->init_thread(thread_id);
      for (int i = 0; i < 1000; ++i) {
        if (allocator->get_data(thread_id)[i] != static_cast<float>(i)) std::abort();
      }
    }
    if (allocator->get_data(0) == allocator->get_data(1)) std::abort();
  });
  expect_clean_exit(result);
}

TEST(libnuma, present_but_never_used_is_destroyed_without_freeing_a_buffer) {
  variant = "present";
  expect_clean_exit(run_in_child([] { create_numa_data(4, 1024); }));
}

TEST(libnuma, is_opened_once_in_a_process_and_closed_at_its_exit) {
  variant = "present";
  const outcome result = run_in_child([] {
    measure();
    measure();
    if (opened != 1) std::abort();
    const char text[] = "end of body\n";
    if (write(STDERR_FILENO, text, sizeof(text) - 1) < 0) std::abort();
  });
  expect_clean_exit(result);
  EXPECT_EQ(count_of(result.text, "dlclose of libnuma\n"), 1);
  EXPECT_THAT(result.text, testing::EndsWith("end of body\ndlclose of libnuma\n"));
}

TEST(libnuma, missing_costs_one_warning_with_the_reason_for_each_benchmark_and_plain_memory_serves) {
  variant = "missing";
  const outcome result = run_in_child([] {
    measure();
    measure();
    if (opened != 1) std::abort();
  });
  expect_clean_exit(result);
  EXPECT_EQ(count_of(result.text, "MORA warn couldn't open libnuma.so.1 because " FAKE_LIBNUMA_DIR
                                  "/missing/libnuma.so.1: cannot open shared object file: No such file or directory\n"),
            2);
  EXPECT_EQ(count_of(result.text, "MORA warn"), 2);
  EXPECT_EQ(count_of(result.text, "data_alloc is initiated.\n"), 2);
  EXPECT_EQ(count_of(result.text, "dlclose"), 0);
}

TEST(libnuma, whose_folder_cannot_be_told_costs_a_warning_and_plain_memory_serves) {
  variant = "present";
  no_origin = true;
  const outcome result = run_in_child(measure);
  no_origin = false;
  expect_clean_exit(result);
  // The message ends in a newline of its own.
  EXPECT_THAT(result.text, testing::ContainsRegex("MORA warn dlinfo with RTLD_DI_ORIGIN failed: .+\n\n"));
  EXPECT_THAT(result.text, testing::HasSubstr("data_alloc is initiated.\n"));
}

TEST(libnuma, without_numa_available_costs_a_warning_and_plain_memory_serves) {
  variant = "without_available";
  const outcome result = run_in_child(measure);
  expect_clean_exit(result);
  EXPECT_THAT(result.text, testing::ContainsRegex(
                               "MORA warn couldn't load numa_available from libnuma.so.1 because .*numa_available"));
  EXPECT_THAT(result.text, testing::HasSubstr("data_alloc is initiated.\n"));
}

TEST(libnuma, that_says_not_available_costs_a_warning_and_plain_memory_serves) {
  variant = "not_available";
  const outcome result = run_in_child(measure);
  expect_clean_exit(result);
  EXPECT_THAT(result.text, testing::HasSubstr("MORA warn numa is not enabled on target machine\n"));
  EXPECT_THAT(result.text, testing::Not(testing::HasSubstr("loaded numa_available")));
  EXPECT_THAT(result.text, testing::HasSubstr("data_alloc is initiated.\n"));
}

TEST(libnuma, without_numa_alloc_local_ends_the_process) {
  variant = "without_alloc_local";
  const outcome result = run_in_child(measure);
  EXPECT_TRUE(WIFSIGNALED(result.status)) << result.text;
  EXPECT_EQ(WTERMSIG(result.status), SIGABRT);
  EXPECT_THAT(result.text,
              testing::ContainsRegex(
                  "MORA fatal Couldn't load numa_alloc_local from libnuma.so.1 because .*numa_alloc_local.*\\.\n"));
}

TEST(libnuma, without_numa_free_costs_a_warning_and_the_buffers_stay) {
  variant = "without_free";
  const outcome result = run_in_child([] {
    measure();
    if (library_counter("fake_numa_bytes") != 3 * 4096) std::abort();
    std::_Exit(0);  // What stays is a leak on purpose: no leak checker at the end.
  });
  expect_clean_exit(result);
  EXPECT_THAT(result.text,
              testing::ContainsRegex("MORA warn Couldn't load numa_free from libnuma.so.1 because .*numa_free.*\\.\n"));
}

TEST(libnuma, lines_come_from_the_sources_that_write_them) {
  variant = "present";
  const outcome result = run_in_child(measure);
  EXPECT_THAT(result.text, testing::ContainsRegex(" cachebw:[0-9]+ +MORA debug loaded libnuma.so.1"));
  EXPECT_THAT(result.text, testing::ContainsRegex(" dataalloc:[0-9]+ +MORA debug data_alloc_numa is initiated"));
}

}  // namespace
}  // namespace ceilmeter
