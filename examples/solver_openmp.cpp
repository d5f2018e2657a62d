// The solver of solver.c in C++ with OpenMP, and the same three regions marked by objects whose life is the region.
//
//   solver_openmp [POINTS [ITERATIONS]]        OMP_NUM_THREADS says on how many threads
//
// The marks stand inside the parallel regions, so that every thread marks the work that it does itself. An empty
// parallel region comes first: OpenMP then makes its threads while no region has been started yet.
#include <roofline_events.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

class marked_region {
 public:
  explicit marked_region(std::string name) : m_name(std::move(name)) { start_perf_roofline_events(m_name.c_str()); }
  ~marked_region() { stop_perf_roofline_events(m_name.c_str()); }
  marked_region(const marked_region&) = delete;
  marked_region& operator=(const marked_region&) = delete;

 private:
  std::string m_name;
};

double exact(double x, double y) { return x * (1.0 - x) * y * (1.0 - y); }

// y = A x for the five-point Laplacian on an n by n grid of inner points, zero on the boundary.
void apply(const std::vector<double>& x, std::vector<double>& y, long n) {
#pragma omp parallel
  {
    const marked_region region("stencil");
#pragma omp for nowait
    for (long row = 0; row < n; ++row) {
      for (long column = 0; column < n; ++column) {
        const std::size_t at = static_cast<std::size_t>(row * n + column);
        const std::size_t up = static_cast<std::size_t>(n);
        double value = 4.0 * x[at];
        if (row > 0) value -= x[at - up];
        if (row < n - 1) value -= x[at + up];
        if (column > 0) value -= x[at - 1];
        if (column < n - 1) value -= x[at + 1];
        y[at] = value;
      }
    }
  }
}

double dot(const std::vector<double>& x, const std::vector<double>& y) {
  double sum = 0.0;
#pragma omp parallel reduction(+ : sum)
  {
    const marked_region region("vectors");
#pragma omp for nowait
    for (std::size_t at = 0; at < x.size(); ++at) sum += x[at] * y[at];
  }
  return sum;
}

// y = a x + b y
void combine(double a, const std::vector<double>& x, double b, std::vector<double>& y) {
#pragma omp parallel
  {
    const marked_region region("vectors");
#pragma omp for nowait
    for (std::size_t at = 0; at < x.size(); ++at) y[at] = a * x[at] + b * y[at];
  }
}

}  // namespace

int main(int argc, char** argv) {
  const long n = argc > 1 ? std::atol(argv[1]) : 96;
  const long iterations = argc > 2 ? std::atol(argv[2]) : 200;
  if (n < 1 || n > 20000 || iterations < 0) {
    std::fprintf(stderr, "usage: solver_openmp [POINTS [ITERATIONS]]\n");
    return 2;
  }
#pragma omp parallel
  {}
  init_perf_roofline_events();

  const std::size_t size = static_cast<std::size_t>(n * n);
  const double step = 1.0 / static_cast<double>(n + 1);
  std::vector<double> solution(size), residual(size), image(size);
#pragma omp parallel
  {
    const marked_region region("assembly");
#pragma omp for nowait
    for (long row = 0; row < n; ++row) {
      for (long column = 0; column < n; ++column) {
        const double x = static_cast<double>(column + 1) * step;
        const double y = static_cast<double>(row + 1) * step;
        residual[static_cast<std::size_t>(row * n + column)] = 2.0 * (x * (1.0 - x) + y * (1.0 - y)) * step * step;
      }
    }
  }
  std::vector<double> direction = residual;

  double norm = dot(residual, residual);
  for (long iteration = 0; iteration < iterations && norm > 1e-28; ++iteration) {
    apply(direction, image, n);
    const double alpha = norm / dot(direction, image);
    combine(alpha, direction, 1.0, solution);
    combine(-alpha, image, 1.0, residual);
    const double next = dot(residual, residual);
    combine(1.0, residual, next / norm, direction);
    norm = next;
  }
  finalize_perf_roofline_events();

  double error = 0.0;
  for (long row = 0; row < n; ++row) {
    for (long column = 0; column < n; ++column) {
      const double expected = exact(static_cast<double>(column + 1) * step, static_cast<double>(row + 1) * step);
      error = std::max(error, std::fabs(solution[static_cast<std::size_t>(row * n + column)] - expected));
    }
  }
  std::printf("points %zu, residual %.3e, largest error %.3e\n", size, std::sqrt(norm), error);
  return error < 1e-3 ? 0 : 1;
}
