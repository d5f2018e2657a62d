// Makes a record as mora_run does for the first thread, but starts nothing.
#include "engine_fixture.h"

#include <unistd.h>

#include "bi/a64/helpers.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"

namespace ceilmeter::test {

word_list joined(const std::vector<word_list>& parts) {
  word_list all;
  for (const word_list& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

engine_test::engine_test() {
  engine = {};
  owned_lock_init(&engine.thread_list_lock);
  owned_lock_init(&engine.signal_handlers_lock);
  owned_lock_init(&engine.brk_lock);
  owned_lock_init(&engine.function_watch_lock);
  interval_map_init(&engine.exec_ranges, EXEC_RANGES_CAPACITY);
  owned_lock_init(&engine.code_epoch_lock);
  robin_map_init(&engine.function_watches, 264);
  if (!allocate_thread_data(&thread)) throw std::bad_alloc();
  current_thread = thread;
  thread->process = getpid();
  init_thread(thread);
  thread->tid = gettid();
}

engine_test::~engine_test() {
  current_thread = nullptr;
  free_thread_data(thread);
  robin_map_destroy(&engine.function_watches);
}

std::int32_t engine_test::scan_block(const std::uint32_t* source) {
  return cc_addr_to_bb_id(thread, scan(thread, address_of(source), 0));
}

std::uint32_t* engine_test::block(std::int32_t bb_id) const {
  return reinterpret_cast<std::uint32_t*>(thread->code_cache + std::size_t{BB_SIZE} * static_cast<std::size_t>(bb_id));
}

word_list engine_test::written(const std::uint32_t* place,
                               const std::function<void(std::uint32_t** write)>& write) const {
  constexpr std::size_t most = 64;
  auto* at = const_cast<std::uint32_t*>(place);
  const word_list before = words(at, most);
  std::uint32_t* end = at;
  write(&end);
  const word_list result(at, end);
  std::copy(before.begin(), before.end(), at);
  return result;
}

word_list engine_test::counter_code(std::int32_t bb_id) const {
  return written(block(bb_id) + 1, [&](std::uint32_t** write) {
    constexpr std::uint32_t x30 = 30;
    *(*write)++ = PUSH_X1_X30;
    const std::uint64_t counter = address_of(&thread->exit_counters[bb_id]);
    const auto offset = a64_load_page(write, 1, counter);
    a64_ldr_str_unsigned((*write)++, 0, 0, 1, offset, 1, x30);
    a64_add_sub_imm((*write)++, 0, 1, 0, 0, 1, x30, x30);
    a64_ldr_str_unsigned((*write)++, 0, 0, 0, offset, 1, x30);
    a64_cbnz_helper(*write, address_of(*write + 2), 0, x30);
    ++*write;
    a64_bl((*write)++, thread->hot_counter_stub_addr);
    *(*write)++ = POP_X1_X30;
  });
}

word_list engine_test::branch_jump(const std::uint32_t* place, std::uint64_t target, std::int32_t bb_id) const {
  return written(place, [&](std::uint32_t** write) {
    a64_load_const(write, 0, target);
    a64_load_const(write, 1, static_cast<std::uint64_t>(bb_id));
    a64_branch((*write)++, thread->dispatcher_stub_addr);
  });
}

std::uint64_t engine_test::dispatched(std::uint64_t target, std::int32_t source_index) {
  std::uint64_t next[2] = {0, target};  // As in the stub's frame: cache address, source address.
  dispatcher(target, source_index, next, thread);
  source_of_next = next[1];
  return next[0];
}

std::vector<std::uint64_t> engine_test::links_to(std::int32_t bb_id) const {
  std::vector<std::uint64_t> places;
  for (const cc_link* link = meta(bb_id).linked_from; link != nullptr; link = link->next) places.push_back(link->word);
  return places;
}

}  // namespace ceilmeter::test
