// Where the region interface's descriptors go. Each test changes the limits of a process of its own.
#include "perfmon/descriptor_room.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <set>

#include "regions_fixture.h"

namespace ceilmeter::test {
namespace {

void limit_descriptors(rlim_t soft, rlim_t hard) {
  const rlimit limit{soft, hard};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

rlim_t soft_limit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

int open_null() { return open("/dev/null", O_RDONLY); }

class descriptor_room_test : public regions_test {};

TEST_F(descriptor_room_test, descriptors_go_beyond_the_soft_limit_that_was_and_the_application_keeps_its_own) {
  run([] {
    limit_descriptors(64, 4096);
    const int lowest = open_null();
    std::set<int> moved;
    for (int group = 0; group < 170; ++group) {
      reserve_descriptor_room(6);
      for (int event = 0; event < 6; ++event) moved.insert(move_to_descriptor_room(open_null()));
    }
    EXPECT_EQ(moved.size(), 170u * 6u);
    EXPECT_GE(*moved.begin(), 64);
    EXPECT_EQ(open_null(), lowest + 1);
  });
}

TEST_F(descriptor_room_test, the_soft_limit_rises_no_further_than_needed) {
  run([] {
    limit_descriptors(64, 1 << 14);
    reserve_descriptor_room(6);
    EXPECT_EQ(soft_limit(), 64u + 1024u);
    reserve_descriptor_room(1000);
    EXPECT_EQ(soft_limit(), 64u + 2048u);
  });
}

TEST_F(descriptor_room_test, a_limit_that_is_high_already_stays) {
  run([] {
    limit_descriptors(1 << 13, 1 << 13);
    reserve_descriptor_room(6);
    EXPECT_EQ(soft_limit(), 1u << 13);
    EXPECT_EQ(move_to_descriptor_room(open_null()), 4096);
  });
}

TEST_F(descriptor_room_test, under_a_hard_limit_descriptors_go_into_the_upper_quarter) {
  run([] {
    limit_descriptors(64, 64);
    reserve_descriptor_room(6);
    EXPECT_EQ(move_to_descriptor_room(open_null()), 48);
  });
}

TEST_F(descriptor_room_test, without_any_room_a_descriptor_stays_where_it_is) {
  run([] {
    limit_descriptors(16, 16);
    reserve_descriptor_room(6);
    int fd = open_null();
    while (fd < 15) fd = open_null();
    EXPECT_EQ(move_to_descriptor_room(fd), fd);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
  });
}

TEST_F(descriptor_room_test, a_moved_descriptor_is_closed_on_exec) {
  run([] {
    reserve_descriptor_room(1);
    EXPECT_EQ(fcntl(move_to_descriptor_room(open_null()), F_GETFD), FD_CLOEXEC);
  });
}

}  // namespace
}  // namespace ceilmeter::test
