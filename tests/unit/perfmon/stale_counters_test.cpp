// Counters of an earlier run. They are recognised by comparing with the result file before the application ran.
#include "perfmon/stale_counters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../support/fake_log.h"
#include "../support/scratch_folder.h"
#include "common/log.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class stale_counters_test : public ::testing::Test {
 protected:
  stale_counters_test() { reset_log(LEVEL_WARN); }

  static collector_report with_bytes(std::uint64_t bytes) {
    collector_report report;
    region_metric region;
    region.name = "r";
    region.metrics.insert("l1_bytes", bytes);
    report.regions.push_back(std::move(region));
    return report;
  }

  std::string result() const { return folder_ / "result.json"; }

  const scratch_folder folder_;
};

TEST_F(stale_counters_test, a_file_that_the_application_has_not_written_is_told) {
  folder_.write("result.json", "earlier");
  note_result_before_run(result());
  warn_of_stale_counters(result(), with_bytes(16));
  EXPECT_THAT(logged_texts(LEVEL_WARN),
              ElementsAre("the application has written no counters: bytes and time of the regions in " + result() +
                          " are those of an earlier run"));
}

TEST_F(stale_counters_test, a_file_that_was_rewritten_is_not_even_with_the_same_content_at_once) {
  for (int round = 0; round < 20; ++round) {
    folder_.write("result.json", "same");
    note_result_before_run(result());
    folder_.write("result.json", "same");
    warn_of_stale_counters(result(), with_bytes(16));
  }
  EXPECT_THAT(logged_texts(LEVEL_WARN), IsEmpty());
}

TEST_F(stale_counters_test, a_file_without_counters_has_none_to_tell_of) {
  folder_.write("result.json", "roofs alone");
  note_result_before_run(result());
  warn_of_stale_counters(result(), with_bytes(0));
  warn_of_stale_counters(result(), {});
  EXPECT_THAT(logged_texts(LEVEL_WARN), IsEmpty());
}

TEST_F(stale_counters_test, a_file_that_was_not_there_before_is_new) {
  note_result_before_run(result());
  folder_.write("result.json", "new");
  warn_of_stale_counters(result(), with_bytes(16));
  EXPECT_THAT(logged_texts(LEVEL_WARN), IsEmpty());
}

}  // namespace
}  // namespace ceilmeter::test
