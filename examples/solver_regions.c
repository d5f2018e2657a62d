/* The solver of solver.c with three regions marked, for ceilmeter --mode=region: "assembly", "stencil" and "vectors".
 * Everything else is as it was; started without ceilmeter it also behaves as it did.
 *
 *   solver_regions [POINTS [ITERATIONS]]
 *
 * The right-hand side is chosen so that the exact solution is known; the program prints the residual and the largest
 * error against it. Two kinds of loops dominate: the five-point stencil and the vector updates, both bound by memory
 * once the grid has outgrown the caches. */
#include <math.h>
#include <roofline_events.h>
#include <stdio.h>
#include <stdlib.h>

static double exact(double x, double y) { return x * (1.0 - x) * y * (1.0 - y); }

/* y = A x for the five-point Laplacian on an n by n grid of inner points, zero on the boundary. */
static void apply(const double* x, double* y, long n) {
  for (long row = 0; row < n; ++row) {
    for (long column = 0; column < n; ++column) {
      const long at = row * n + column;
      double value = 4.0 * x[at];
      if (row > 0) value -= x[at - n];
      if (row < n - 1) value -= x[at + n];
      if (column > 0) value -= x[at - 1];
      if (column < n - 1) value -= x[at + 1];
      y[at] = value;
    }
  }
}

static double dot(const double* x, const double* y, long size) {
  double sum = 0.0;
  for (long at = 0; at < size; ++at) sum += x[at] * y[at];
  return sum;
}

/* y = y + a x */
static void add_scaled(double* y, double a, const double* x, long size) {
  for (long at = 0; at < size; ++at) y[at] += a * x[at];
}

static double largest_error(const double* solution, long n, double step) {
  double error = 0.0;
  for (long row = 0; row < n; ++row) {
    for (long column = 0; column < n; ++column) {
      const double difference =
          fabs(solution[row * n + column] - exact((double)(column + 1) * step, (double)(row + 1) * step));
      if (difference > error) error = difference;
    }
  }
  return error;
}

int main(int argc, char** argv) {
  const long n = argc > 1 ? atol(argv[1]) : 96;
  const long iterations = argc > 2 ? atol(argv[2]) : 200;
  if (n < 1 || n > 20000 || iterations < 0) {
    fprintf(stderr, "usage: solver_regions [POINTS [ITERATIONS]]\n");
    return 2;
  }
  const long size = n * n;
  const double step = 1.0 / (double)(n + 1);
  double* solution = calloc((size_t)size, sizeof *solution);
  double* residual = calloc((size_t)size, sizeof *residual);
  double* direction = calloc((size_t)size, sizeof *direction);
  double* image = calloc((size_t)size, sizeof *image);
  if (solution == NULL || residual == NULL || direction == NULL || image == NULL) {
    fprintf(stderr, "solver_regions: no memory for %ld points\n", size);
    return 1;
  }

  init_perf_roofline_events();
  start_perf_roofline_events("assembly");
  /* Assembly: the right-hand side is minus the Laplacian of the exact solution, times the square of the step. */
  for (long row = 0; row < n; ++row) {
    for (long column = 0; column < n; ++column) {
      const double x = (double)(column + 1) * step;
      const double y = (double)(row + 1) * step;
      residual[row * n + column] = 2.0 * (x * (1.0 - x) + y * (1.0 - y)) * step * step;
      direction[row * n + column] = residual[row * n + column];
    }
  }
  stop_perf_roofline_events("assembly");

  double norm = dot(residual, residual, size);
  for (long iteration = 0; iteration < iterations && norm > 1e-28; ++iteration) {
    start_perf_roofline_events("stencil");
    apply(direction, image, n);
    stop_perf_roofline_events("stencil");

    start_perf_roofline_events("vectors");
    const double alpha = norm / dot(direction, image, size);
    add_scaled(solution, alpha, direction, size);
    add_scaled(residual, -alpha, image, size);
    const double next = dot(residual, residual, size);
    const double beta = next / norm;
    for (long at = 0; at < size; ++at) direction[at] = residual[at] + beta * direction[at];
    norm = next;
    stop_perf_roofline_events("vectors");
  }
  finalize_perf_roofline_events();

  const double error = largest_error(solution, n, step);
  printf("points %ld, residual %.3e, largest error %.3e\n", size, sqrt(norm), error);
  free(solution);
  free(residual);
  free(direction);
  free(image);
  return error < 1e-3 ? 0 : 1;
}
