// Scalable arithmetic that was executed and is in no count.
#include <vector>

#include "../support/log_capture.h"
#include "finalizer_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t sve_fadd_doubles = 0x65c20020;  // fadd z0.d, z1.d, z2.d: not counted.

TEST_F(tracer_finalizer, scalable_arithmetic_that_is_not_counted_is_told_with_its_number_and_share) {
  start(MODE_TOTAL);
  map_module({sve_fadd_doubles, sve_fadd_doubles, fadd_double, nop, fmla_two_doubles});
  bintracer_thread& thread = begin_thread();
  run(thread, code, 2, 30);      // Two scalable additions, 30 times: no other work in the block.
  run(thread, code + 8, 3, 10);  // Two counted instructions, 10 times.
  tracer->finish_thread(thread);
  bintracer_thread& second = begin_thread(2);
  run(second, code, 2, 60);
  tracer->finish_thread(second);
  const log_capture log(LEVEL_WARN);
  EXPECT_THAT(report().regions, SizeIs(1));
  EXPECT_THAT(
      log.messages(),
      ElementsAre("warn 180 scalable floating-point instructions (SVE, SME) were executed and not counted, 90.0 % of "
                  "all floating-point instructions: the operations are too low"));
}

TEST_F(tracer_finalizer, scalable_arithmetic_that_is_counted_is_not_told) {
  start(MODE_TOTAL);
  map_module({sve_fmla_doubles, sve_fmul_singles});
  bintracer_thread& thread = begin_thread();
  run(thread, code, 2, 30);
  tracer->finish_thread(thread);
  const log_capture log(LEVEL_WARN);
  EXPECT_THAT(report().regions, SizeIs(1));
  EXPECT_THAT(log.messages(), IsEmpty());
}

}  // namespace
}  // namespace ceilmeter::test
