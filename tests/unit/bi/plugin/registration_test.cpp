// Registration, the plug-ins' own data, and the services that only work at some events.
#include "plugin_fixture.h"

namespace ceilmeter {
namespace {

using test::plugin_test;

int callback(mora_context*) { return 0; }

class plugin_registration_test : public plugin_test {};

TEST_F(plugin_registration_test, the_eleventh_plugin_gets_no_handle_and_counts_all_the_same) {
  for (std::uint32_t number = 0; number < 10; ++number) {
    mora_context* plugin = mora_add_plugin();
    ASSERT_NE(plugin, nullptr) << "plug-in " << number;
    EXPECT_EQ(plugin->plugin_id, number);
  }
  EXPECT_EQ(mora_add_plugin(), nullptr);
  EXPECT_EQ(engine.plugin_count, 11u);
}

TEST_F(plugin_registration_test, an_event_reaches_ten_plugins_when_an_eleventh_was_asked_for) {
  static int calls;
  calls = 0;
  for (int number = 0; number < 11; ++number) {
    if (mora_context* plugin = mora_add_plugin()) {
      mora_on_vm_op(plugin, [](mora_context*) { return ++calls; });
    }
  }
  deliver_vm_op({VM_MAP, 0, 0, 0, 0, -1, 0});
  EXPECT_EQ(calls, 10);
}

TEST_F(plugin_registration_test, all_plugins_are_registered_through_one_record) {
  mora_context* first = mora_add_plugin();
  first->replace = 1;
  mora_context* second = mora_add_plugin();
  EXPECT_EQ(first, second);
  EXPECT_EQ(second->replace, 0);
  EXPECT_EQ(second->thread_data, nullptr);
  EXPECT_EQ(second->event, 0u);
}

TEST_F(plugin_registration_test, each_of_the_eighteen_events_takes_one_callback) {
  using binder = int (*)(mora_context*, mora_callback);
  constexpr binder binders[] = {
      mora_on_pre_inst,      mora_on_post_inst,     mora_on_pre_bb,       mora_on_post_bb,     mora_on_pre_fragment,
      mora_on_post_fragment, mora_on_pre_syscall,   mora_on_post_syscall, mora_on_thread_init, mora_on_thread_exit,
      mora_on_pre_function,  mora_on_post_function, mora_on_exit,         mora_on_vm_op,       mora_on_function_symbol,
      mora_on_elf_load,      mora_on_clone,         mora_on_flush};
  static_assert(std::size(binders) == MORA_FLUSH);
  mora_context* plugin = mora_add_plugin();
  for (std::uint32_t event = 1; event <= MORA_FLUSH; ++event) {
    EXPECT_EQ(binders[event - 1](plugin, callback), 0) << "event " << event;
    EXPECT_EQ(engine.plugins[0][event], reinterpret_cast<std::uint64_t>(&callback)) << "event " << event;
    EXPECT_EQ(binders[event - 1](plugin, callback), -2) << "event " << event;
  }
}

TEST_F(plugin_registration_test, a_second_callback_for_an_event_is_refused_and_the_first_stays) {
  mora_context* plugin = mora_add_plugin();
  EXPECT_EQ(mora_on_exit(plugin, callback), 0);
  EXPECT_EQ(mora_on_exit(plugin, [](mora_context*) { return 1; }), -2);
  EXPECT_EQ(engine.plugins[0][MORA_EXIT], reinterpret_cast<std::uint64_t>(&callback));
}

TEST_F(plugin_registration_test, there_are_no_events_beyond_the_eighteenth_and_none_of_number_0) {
  mora_context* plugin = mora_add_plugin();
  EXPECT_EQ(mora_bind_event(plugin, 19, callback), -3);
  EXPECT_EQ(mora_bind_event(plugin, 0xffffffff, callback), -3);
  EXPECT_EQ(mora_bind_event(plugin, 0, callback), -3);
}

TEST_F(plugin_registration_test, a_plugin_number_beyond_the_ninth_has_no_events) {
  mora_context context{};
  context.plugin_id = 10;
  EXPECT_EQ(mora_on_pre_bb(&context, callback), -1);
}

TEST_F(plugin_registration_test, a_plugin_has_data_of_its_own) {
  int data[2];
  mora_set_plugin_data(mora_add_plugin(), &data[0]);
  mora_context* second = mora_add_plugin();
  EXPECT_EQ(mora_get_plugin_data(second), nullptr);
  EXPECT_EQ(mora_set_plugin_data(second, &data[1]), 0);
  mora_context context{};
  EXPECT_EQ(mora_get_plugin_data(&context), &data[0]);
  context.plugin_id = 1;
  EXPECT_EQ(mora_get_plugin_data(&context), &data[1]);
}

TEST_F(plugin_registration_test, an_unregistered_plugin_has_no_data) {
  mora_add_plugin();
  mora_context context{};
  context.thread_data = thread;
  for (const std::uint32_t id : {1u, 9u, 10u, 0xffffffffu}) {
    context.plugin_id = id;
    EXPECT_EQ(mora_set_plugin_data(&context, this), -1) << id;
    EXPECT_EQ(mora_get_plugin_data(&context), nullptr) << id;
    EXPECT_EQ(mora_set_thread_data(&context, this), -1) << id;
    EXPECT_EQ(mora_get_thread_data(&context), nullptr) << id;
    EXPECT_EQ(mora_set_child_thread_data(&context, this), -1) << id;
  }
}

TEST_F(plugin_registration_test, thread_data_is_kept_per_thread_and_plugin) {
  mora_add_plugin();
  mora_add_plugin();
  mora_context context{};
  context.thread_data = thread;
  context.plugin_id = 1;
  EXPECT_EQ(mora_get_thread_data(&context), nullptr);
  EXPECT_EQ(mora_set_thread_data(&context, this), 0);
  EXPECT_EQ(mora_get_thread_data(&context), this);
  EXPECT_EQ(thread->plugin_thread_data[0], nullptr);
}

TEST_F(plugin_registration_test, a_context_without_thread_has_no_thread_data) {
  mora_context* plugin = mora_add_plugin();
  EXPECT_EQ(mora_set_thread_data(plugin, this), -4);
  EXPECT_EQ(mora_get_thread_data(plugin), nullptr);
  EXPECT_EQ(mora_get_thread_id(plugin), -1);
  EXPECT_EQ(mora_get_next_thread(plugin), nullptr);
}

TEST_F(plugin_registration_test, a_clone_seeds_the_slot_of_the_child) {
  static int seed;
  thread_data* child = nullptr;
  ASSERT_TRUE(allocate_thread_data(&child));
  std::uint64_t args[] = {0x10f00, 0x7000, 0, 0, 0};
  child->clone_args = args;
  static const std::uint64_t* seen_args;
  static std::uint64_t seen_stack;
  mora_add_plugin();
  mora_on_clone(mora_add_plugin(), [](mora_context* ctx) {
    seen_args = mora_get_clone_args(ctx);
    seen_stack = mora_get_child_stack(ctx);
    return mora_set_child_thread_data(ctx, &seed);
  });
  deliver_clone(thread, child);
  EXPECT_EQ(child->plugin_thread_data[1], &seed);
  EXPECT_EQ(child->plugin_thread_data[0], nullptr);
  EXPECT_EQ(thread->plugin_thread_data[1], nullptr);
  EXPECT_EQ(seen_args, args);
  EXPECT_EQ(seen_stack, 0x7000u);
  munmap_record(child);
}

TEST_F(plugin_registration_test, the_next_thread_is_null_in_the_first_threads_init_and_in_no_others) {
  static std::vector<const thread_data*> seen;
  seen.clear();
  mora_on_thread_init(mora_add_plugin(), [](mora_context* ctx) {
    seen.push_back(mora_get_next_thread(ctx));
    return 0;
  });
  thread_data* second = nullptr;
  ASSERT_TRUE(allocate_thread_data(&second));
  register_thread(thread, false);
  register_thread(second, false);
  EXPECT_EQ(seen, (std::vector<const thread_data*>{nullptr, thread}));
  munmap_record(second);
}

TEST_F(plugin_registration_test, a_child_is_seeded_at_clone_alone) {
  mora_add_plugin();
  mora_context context = scan_context();
  EXPECT_EQ(mora_set_child_thread_data(&context, this), -4);
}

TEST_F(plugin_registration_test, the_inverse_of_a_condition_differs_in_its_last_bit) {
  mora_context context = scan_context(MORA_PRE_INST);
  EXPECT_EQ(mora_get_inverted_cond(&context, 0), 1u);
  EXPECT_EQ(mora_get_inverted_cond(&context, 11), 10u);
  EXPECT_FALSE(mora_is_cond(&context));
  context.decoded.cond = 0;
  EXPECT_TRUE(mora_is_cond(&context));
}

TEST_F(plugin_registration_test, an_instruction_has_four_bytes_and_none_where_there_is_none) {
  mora_context context = scan_context(MORA_PRE_INST);
  EXPECT_EQ(mora_get_inst_size(&context), -1);
  context.decoded.inst = 0;
  EXPECT_EQ(mora_get_inst_size(&context), 4);
}

// Events at which a service is refused.
class plugin_service_test : public plugin_test, public testing::WithParamInterface<std::uint32_t> {
 protected:
  bool is_scan() const {
    const std::uint32_t event = GetParam();
    return event <= MORA_POST_FRAGMENT || event == MORA_PRE_FUNCTION || event == MORA_POST_FUNCTION;
  }
  mora_context context() { return scan_context(static_cast<mora_event>(GetParam())); }
};

TEST_P(plugin_service_test, stops_a_scan_only_while_there_is_one) {
  mora_context ctx = context();
  EXPECT_EQ(mora_stop_scan(&ctx), is_scan() ? 0 : -1);
  EXPECT_EQ(stop, is_scan());
}

TEST_P(plugin_service_test, replaces_functions_at_pre_function_alone) {
  mora_context ctx = context();
  const bool is_refused = GetParam() != MORA_PRE_FUNCTION;
  EXPECT_EQ(mora_replace_function(&ctx, 0x1235), is_refused ? -1 : 0);
  EXPECT_EQ(ctx.replace, is_refused ? 0 : 1);
  EXPECT_EQ(mora_get_source_addr(&ctx), is_refused ? 0u : 0x1234u);
}

TEST_P(plugin_service_test, skips_calls_before_them_alone_with_the_first_argument_as_result) {
  std::uint64_t args[] = {1234, 2, 3};
  mora_context ctx = context();
  if (!is_scan()) ctx.args = args;
  if (GetParam() == MORA_PRE_SYSCALL) {
    ctx.skip_syscall = 0;
    EXPECT_EQ(mora_skip_syscall(&ctx), 0);
    EXPECT_EQ(ctx.skip_syscall, 1);
    EXPECT_EQ(mora_get_result(&ctx), 1234u);
  } else {
    EXPECT_EQ(mora_skip_syscall(&ctx), -1);
  }
}

TEST_P(plugin_service_test, sets_results_after_a_call_and_before_one_that_is_skipped) {
  mora_context ctx = context();
  ctx.skip_syscall = 0;
  EXPECT_EQ(mora_set_result(&ctx, 5), GetParam() == MORA_POST_SYSCALL ? 0 : -1);
  if (GetParam() != MORA_PRE_SYSCALL) return;
  ctx.skip_syscall = 1;
  EXPECT_EQ(mora_set_result(&ctx, 5), 0);
  EXPECT_EQ(mora_get_result(&ctx), 5u);
}

TEST_P(plugin_service_test, enters_code_into_the_table_during_a_scan_alone) {
  mora_context ctx = context();
  const auto place = reinterpret_cast<std::uint64_t>(ctx.write_p);
  EXPECT_EQ(mora_add_to_entry_table(&ctx), is_scan() ? 0 : -1);
  EXPECT_EQ(hash_lookup_entry(thread, place), is_scan() ? place : HASH_MISS);
  ctx.write_p = nullptr;
  EXPECT_EQ(mora_add_to_entry_table(&ctx), -1);
}

TEST_P(plugin_service_test, reserves_space_during_a_scan_alone) {
  mora_context ctx = context();
  EXPECT_EQ(mora_reserve_space(&ctx, 300), is_scan() ? 0 : -1);
  EXPECT_EQ(ctx.write_limit - ctx.write_p > 75, is_scan());
}

INSTANTIATE_TEST_SUITE_P(event, plugin_service_test, testing::Range(1u, MORA_FLUSH + 1u));

}  // namespace
}  // namespace ceilmeter
