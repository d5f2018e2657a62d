// What the finalizer makes of blocks of generated code, whose instructions were kept when they were translated.
#include "../support/log_capture.h"
#include "collector_config.h"
#include "finalizer_fixture.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using namespace test;

using generated_blocks = tracer_finalizer;

constexpr std::uint64_t place = 0x90000;

// "start-end dump_start-dump_end flop*count vector_length module" of each block of the one region.
std::vector<std::string> blocks_of(const bintracer_report& report) {
  std::vector<std::string> found;
  for (const auto& [key, block] : report.regions.at(0).bbs) {
    char text[160];
    std::snprintf(text, sizeof text, "%lx-%lx %lx-%lx %ld*%ld %d %s", block.start, block.end, block.dump_start,
                  block.dump_end, block.flop, block.count, block.vector_length, block.module.c_str());
    found.emplace_back(text);
  }
  return found;
}

TEST_F(generated_blocks, are_counted_by_the_words_that_were_kept_and_no_file_is_asked_for) {
  start(MODE_TOTAL);
  bintracer_thread& thread = begin_thread();
  run_generated(thread, place, {fmadd_double, nop, fadd_four_singles}, 7);
  tracer->finish_thread(thread);
  const log_capture log(LEVEL_WARN);
  EXPECT_THAT(blocks_of(report()), ElementsAre("90000-9000c 90000-9000c 6*7 4 [generated]"));
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(generated_blocks, of_one_start_with_other_words_are_blocks_of_their_own) {
  start(MODE_TOTAL);
  bintracer_thread& first = begin_thread(1);
  bintracer_thread& second = begin_thread(2);
  run_generated(first, place, {fmadd_double, nop}, 10);
  run_generated(first, place, {fadd_double, nop}, 100);
  run_generated(second, place, {fadd_double, nop}, 1000);
  run_generated(second, place, {nop, nop}, 5);
  tracer->finish_thread(first);
  tracer->finish_thread(second);
  EXPECT_THAT(blocks_of(report()), UnorderedElementsAre("90000-90008 90000-90008 2*10 1 [generated]",
                                                        "90000-90008 90000-90008 1*1100 1 [generated]"));
}

TEST_F(generated_blocks, in_the_place_of_a_module_do_not_mix_with_its_blocks) {
  start(MODE_TOTAL);
  const std::string path = map_module({fmadd_double, nop});
  bintracer_thread& thread = begin_thread();
  run(thread, code, 2, 3);
  tracer->register_replaced(code, code + 0x4000);
  run_generated(thread, code, {fadd_double, nop}, 4);
  tracer->finish_thread(thread);
  EXPECT_THAT(blocks_of(report()),
              UnorderedElementsAre("10000-10008 0-8 2*3 1 " + path, "10000-10008 10000-10008 1*4 1 [generated]"));
}

TEST_F(generated_blocks, scalable_arithmetic_in_them_is_told) {
  start(MODE_TOTAL);
  bintracer_thread& thread = begin_thread();
  constexpr std::uint32_t sve_fadd = 0x65c10000;  // fadd z0.d, z0.d, z1.d
  run_generated(thread, place, {fadd_double, sve_fadd}, 9);
  tracer->finish_thread(thread);
  const log_capture log(LEVEL_WARN);
  report();
  EXPECT_THAT(log.messages(), ElementsAre(::testing::HasSubstr("9 scalable floating-point instructions")));
}

TEST_F(generated_blocks, have_the_names_of_the_perf_map) {
  start(MODE_TOTAL);
  bintracer_thread& thread = begin_thread();
  run_generated(thread, place, {fadd_double}, 1);
  run_generated(thread, place + 0x100, {fadd_double}, 1);
  tracer->finish_thread(thread);
  const std::string path = folder / "perf.map";
  std::ofstream(path) << "90000 10 a function\n";
  bintracer_report result = report();
  name_generated_code(result, perf_map::read(path));
  EXPECT_THAT(blocks_of(result), UnorderedElementsAre("90000-90004 90000-90004 1*1 1 a function",
                                                      "90100-90104 90100-90104 1*1 1 [generated]"));
}

}  // namespace
}  // namespace ceilmeter
