// The region interface and a result file that others write, or that is damaged.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "perfmon/region_result.h"
#include "result_damage.h"
#include "regions_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class regions_result_test : public regions_test {
 protected:
  process_traces run_one_region() {
    return run_under_tool([] {
      start_perf_roofline_events("new");
      stop_perf_roofline_events("new");
      finalize_perf_roofline_events();
    });
  }

  // The application goes on, the file stays, and the counters are beside it.
  void expect_refused(const std::string& content, const std::string& reason) {
    SCOPED_TRACE(content);
    write_file(report_path(), content);
    const process_traces traces = run_one_region();
    EXPECT_THAT(traces.log, ElementsAre("warn " + report_path() + " is damaged (" + reason +
                                        ") and stays as it is: the counters go to " + path_beside(report_path())));
    EXPECT_EQ(content_of(report_path()), content);
    EXPECT_THAT(content_of(path_beside(report_path())), HasSubstr("\"new\": {"));
  }
};

TEST_F(regions_result_test, a_block_whose_module_is_no_text_is_refused) {
  expect_refused(R"({"regions": {"r": {"bbs": [["1", "2", "3", "4", 5, 6, 7, 8]]}}, "threads": 1})",
                 "a block without a module");
}

TEST_F(regions_result_test, roofs_of_no_number_of_threads_are_refused) {
  for (const std::string key : {"many", "", "-1", "4 ", "99999999999999999999"}) {
    expect_refused("{\"regions\": {}, \"roofs_by_num_threads\": {\"" + key + "\": []}}",
                   "roofs without a number of threads");
  }
}

TEST_F(regions_result_test, a_file_that_was_cut_off_is_refused) {
  const std::string whole = "{\"regions\": {\"r\": {\"flop\": 1}}, \"threads\": 1}";
  for (const std::size_t length : {1UL, 12UL, 25UL, whole.size() - 1}) {
    write_file(report_path(), whole.substr(0, length));
    const process_traces traces = run_one_region();
    ASSERT_EQ(traces.log.size(), 1u) << length;
    EXPECT_THAT(traces.log[0], HasSubstr(" is damaged ("));
    EXPECT_EQ(content_of(report_path()), whole.substr(0, length));
  }
}

TEST_F(regions_result_test, a_file_that_is_no_result_at_all_is_refused) { expect_refused("[1, 2]", "no object"); }

TEST_F(regions_result_test, a_block_of_too_few_fields_and_a_missing_part_are_no_damage) {
  for (const std::string content : {R"({"regions": {"r": {"bbs": [["1", "2"], 7, []]}}})", R"({"regions": 3})", R"({})",
                                    R"({"regions": {"r": 5}, "roofs_by_num_threads": {"16": []}})"}) {
    write_file(report_path(), content);
    EXPECT_EQ(find_result_damage(report_path()), std::nullopt) << content;
    run_one_region();
    EXPECT_THAT(region_names(), ElementsAre("new"));
  }
}

TEST_F(regions_result_test, an_empty_file_is_written_like_a_missing_one) {
  write_file(report_path(), "");
  run_one_region();
  EXPECT_THAT(region_names(), ElementsAre("new"));
}

TEST_F(regions_result_test, finalize_waits_for_a_process_that_has_the_result) {
  const process_traces traces = run_under_tool([this] {
    start_perf_roofline_events("new");
    const int other = open(path("").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    bool written_early = true;
    std::thread release([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      written_early = access(report_path().c_str(), F_OK) == 0;
      close(other);
    });
    finalize_perf_roofline_events();
    release.join();
    EXPECT_FALSE(written_early);
  });
  EXPECT_THAT(traces.log, IsEmpty());
  EXPECT_THAT(region_names(), ElementsAre("new"));
}

TEST_F(regions_result_test, the_lock_is_free_again_after_finalize) {
  run_one_region();
  const int folder = open(path("").c_str(), O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(flock(folder, LOCK_EX | LOCK_NB), 0);
  close(folder);
}

}  // namespace
}  // namespace ceilmeter::test
