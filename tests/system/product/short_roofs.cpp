// The tool's roofs with the same names and kernels, but a thousandth of the work. A second executable of the tool has
// them in the place of the library's machine_roofs, so that tests of everything but the roofs need not wait. The
// figures of such a run mean nothing.
#include <algorithm>
#include <memory>
#include <utility>

#include "benchmarks/roof_list.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t shortening = 1000;

// The members are private to benchmarks; only a class derived from one may name them.
struct shortened : benchmark_std {
  static void shorten(benchmark_std& roof) {
    roof.*& shortened::duration = 0.001;
    std::uint64_t& passes = roof.*&shortened::iterations;
    passes = std::max<std::uint64_t>(passes / shortening, 1);
  }
};

void shorten_all(std::vector<roof_maker>& makers) {
  for (roof_maker& make : makers) {
    make = [full = std::move(make)](std::uint32_t num_threads) {
      std::unique_ptr<benchmark_std> roof = full(num_threads);
      shortened::shorten(*roof);
      return roof;
    };
  }
}

}  // namespace

roof_list machine_roofs() {
  roof_list roofs = full_roofs();
  shorten_all(roofs.measured_once);
  shorten_all(roofs.measured_each_count);
  return roofs;
}

}  // namespace ceilmeter
