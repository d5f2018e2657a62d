// What the engine tells before it ends the process by a fatal line.
#include "bi/signals/last_words.h"

#include <sys/mman.h>

#include "bi/kernel/module_name.h"
#include "bi/signals/signals.h"
#include "common/log.h"
#include "signals_fixture.h"

namespace ceilmeter::test {

namespace {

SOURCE(one_ret);
SOURCE(loop_to_itself);

constexpr engine_log log{"src/test"};

std::string module_of(std::uint64_t address, std::size_t size = 256) {
  std::string name(size, '\0');
  name_module(address, name.data(), size);
  return name.c_str();
}

class last_words : public signals_fixture {
 protected:
  ~last_words() override { log_state::engine_log_level = LEVEL_WARN; }
  [[noreturn]] static void end_fatally() {
    install_last_words();
    log(LEVEL_FATAL, "the end");
    std::abort();
  }
};
using last_words_death = last_words;

TEST_F(last_words_death, a_fault_names_signal_place_and_module) {
  EXPECT_EXIT(arrive(SIGSEGV, reinterpret_cast<const void*>(&name_module)), testing::KilledBySignal(SIGABRT),
              "signal 11, SIGSEGV \\(code 1, address .*\\) at pc 0x[0-9a-f]+, /.*/engine_test\\+0x[0-9a-f]+\n"
              ".*MORA fatal synchronous signal outside the code cache\n");
}

TEST_F(last_words_death, a_fault_of_a_called_function_names_the_fragment_that_has_called_it_and_shows_its_code) {
  const std::int32_t id = scan_block(loop_to_itself);
  context().regs[30] = address_of(block(id) + 2);
  EXPECT_DEATH(arrive(SIGBUS, &engine), "called from fragment " + std::to_string(id) +
                                            " at 0x[0-9a-f]+, of source 0x[0-9a-f]+, /.*/engine_test\\+0x.*" +
                                            "fragment " + std::to_string(id) + ": source .*MORA fatal synchronous");
}

TEST_F(last_words_death, a_fault_that_no_fragment_has_called_names_the_newest_one) {
  const std::int32_t id = scan_block(loop_to_itself);
  EXPECT_DEATH(arrive(SIGBUS, &engine),
               "at pc 0x.*: the newest fragment is " + std::to_string(id) + ", .*MORA fatal synchronous");
}

TEST_F(last_words_death, a_fatal_line_is_preceded_by_the_newest_fragment) {
  const std::int32_t id = scan_block(one_ret);
  EXPECT_DEATH(end_fatally(), ": the newest fragment is " + std::to_string(id) +
                                  ", of source 0x[0-9a-f]+, /.*/engine_test\\+0x.*" + "fragment " + std::to_string(id) +
                                  ": source .*MORA fatal the end\n");
}

TEST_F(last_words_death, a_thread_without_fragments_tells_nothing) {
  EXPECT_DEATH(end_fatally(), "^[^\n]*MORA fatal the end\n");
}

TEST_F(last_words_death, a_thread_that_is_not_the_engines_tells_nothing) {
  scan_block(one_ret);
  current_thread = nullptr;
  EXPECT_DEATH(end_fatally(), "^[^\n]*MORA fatal the end\n");
  current_thread = thread;
}

TEST_F(last_words_death, the_log_level_none_leaves_the_fatal_line_alone) {
  scan_block(one_ret);
  log_state::engine_log_level = LEVEL_FATAL;
  EXPECT_DEATH(end_fatally(), "^[^\n]*MORA fatal the end\n");
}

TEST_F(last_words_death, a_fatal_line_of_the_tools_own_is_preceded_by_nothing) {
  scan_block(one_ret);
  install_last_words();
  EXPECT_DEATH(tool_log{"src/test"}(LEVEL_FATAL, "the end"), "^[^\n]*MORA fatal the end\n");
}

// The record of the newest fragment points to memory that is not mapped.
TEST_F(last_words_death, damaged_records_end_the_telling_and_the_fatal_line_follows) {
  const std::int32_t id = scan_block(one_ret);
  thread->metas[id].linked_from = reinterpret_cast<cc_link*>(8);
  EXPECT_EXIT(end_fatally(), testing::KilledBySignal(SIGABRT),
              "the newest fragment is .*the records of the thread cannot be read any further\n.*MORA fatal the end\n");
}

TEST_F(last_words_death, damaged_records_end_the_telling_inside_a_handler_of_the_same_signal_too) {
  const std::int32_t id = scan_block(loop_to_itself);
  thread->metas[id].linked_from = reinterpret_cast<cc_link*>(8);
  const auto fault = [this] {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGSEGV);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    arrive(SIGSEGV, &engine);
  };
  EXPECT_EXIT(fault(), testing::KilledBySignal(SIGABRT), "cannot be read any further\n.*MORA fatal synchronous");
}

TEST_F(last_words_death, the_process_tells_once) {
  scan_block(one_ret);
  const auto fault_twice = [this] {
    siginfo_t info{};
    info.si_signo = SIGSEGV;
    log_fault(thread, info, context());
    arrive(SIGSEGV, &engine);
  };
  const auto tells_once = [](const std::string& text) {
    const std::size_t first = text.find(" signal 11");
    return first != std::string::npos && text.find(" signal 11", first + 1) == std::string::npos &&
           text.find("MORA fatal synchronous") != std::string::npos;
  };
  EXPECT_DEATH(fault_twice(), testing::Truly(tells_once));
}

TEST_F(last_words, a_fault_of_the_applications_tells_nothing) {
  struct sigaction before {};
  sigaction(SIGSEGV, nullptr, &before);
  const std::int32_t id = scan_block(loop_to_itself);
  testing::internal::CaptureStderr();
  EXPECT_EQ(arrive(SIGSEGV, block(id) + 2), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  sigaction(SIGSEGV, &before, nullptr);
}

TEST_F(last_words_death, with_the_log_level_info_a_fault_that_ends_the_application_is_told) {
  const std::int32_t id = scan_block(loop_to_itself);
  log_state::engine_log_level = LEVEL_INFO;
  const auto fault = [this, id] {
    arrive(SIGSEGV, block(id) + 2);
    raise(SIGSEGV);
  };
  EXPECT_EXIT(fault(), testing::KilledBySignal(SIGSEGV),
              "signal 11, SIGSEGV \\(code 1, .*it ends the application in fragment " + std::to_string(id) +
                  " at 0x[0-9a-f]+, of source 0x[0-9a-f]+, /.*/engine_test\\+0x.*" + "fragment " + std::to_string(id) +
                  ": source ");
}

TEST(module_name, an_address_without_a_file_is_one_of_its_mapping) {
  constexpr std::size_t size = 65536;
  void* pages = mmap(nullptr, size, PROT_NONE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  const std::string name = module_of(address_of(pages) + 16);
  munmap(pages, size);
  EXPECT_NE(name, "nowhere");
  EXPECT_THAT(name, testing::HasSubstr("+0x"));
}

TEST(module_name, an_address_that_is_not_mapped_is_nowhere) { EXPECT_EQ(module_of(8), "nowhere"); }

TEST(module_name, a_long_name_is_cut) {
  const std::string whole = module_of(address_of(reinterpret_cast<const void*>(&name_module)));
  EXPECT_EQ(module_of(address_of(reinterpret_cast<const void*>(&name_module)), 9), whole.substr(0, 8));
}

}  // namespace

}  // namespace ceilmeter::test
