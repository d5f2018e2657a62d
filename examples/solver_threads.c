/* The solver of solver.c on POSIX threads, each with rows of its own, and the same three regions marked.
 *
 *   solver_threads [POINTS [ITERATIONS [THREADS]]]
 *
 * Every thread marks the work that it does itself. The threads are made before the first region is started: counters
 * would follow a thread that is made later, and its work would be counted for its maker as well. */
#include <math.h>
#include <pthread.h>
#include <roofline_events.h>
#include <stdio.h>
#include <stdlib.h>

enum { most_threads = 64 };

static long n, size, iterations, threads;
static double *solution, *residual, *direction, *image;
static double partial[most_threads][16]; /* A cache line and more for each thread's sum. */
static pthread_barrier_t barrier;

static double exact(double x, double y) { return x * (1.0 - x) * y * (1.0 - y); }

/* Rows from first to last - 1 of y = A x for the five-point Laplacian. */
static void apply(const double* x, double* y, long first, long last) {
  for (long row = first; row < last; ++row) {
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

/* The sum over all threads' elements. Every thread gets the same number. */
static double dot(const double* x, const double* y, long first, long last, long self) {
  double sum = 0.0;
  for (long at = first; at < last; ++at) sum += x[at] * y[at];
  pthread_barrier_wait(&barrier); /* Nobody still reads the sums of the time before. */
  partial[self][0] = sum;
  pthread_barrier_wait(&barrier);
  sum = 0.0;
  for (long thread = 0; thread < threads; ++thread) sum += partial[thread][0];
  return sum;
}

static void* solve(void* argument) {
  const long self = *(const long*)argument;
  const long first_row = n * self / threads, last_row = n * (self + 1) / threads;
  const long first = first_row * n, last = last_row * n;
  const double step = 1.0 / (double)(n + 1);

  start_perf_roofline_events("assembly");
  for (long row = first_row; row < last_row; ++row) {
    for (long column = 0; column < n; ++column) {
      const double x = (double)(column + 1) * step, y = (double)(row + 1) * step;
      residual[row * n + column] = 2.0 * (x * (1.0 - x) + y * (1.0 - y)) * step * step;
      direction[row * n + column] = residual[row * n + column];
    }
  }
  stop_perf_roofline_events("assembly");

  double norm = dot(residual, residual, first, last, self);
  for (long iteration = 0; iteration < iterations && norm > 1e-28; ++iteration) {
    pthread_barrier_wait(&barrier); /* The neighbours' rows of `direction` are complete. */
    start_perf_roofline_events("stencil");
    apply(direction, image, first_row, last_row);
    stop_perf_roofline_events("stencil");

    start_perf_roofline_events("vectors");
    const double alpha = norm / dot(direction, image, first, last, self);
    for (long at = first; at < last; ++at) solution[at] += alpha * direction[at];
    for (long at = first; at < last; ++at) residual[at] -= alpha * image[at];
    const double next = dot(residual, residual, first, last, self);
    for (long at = first; at < last; ++at) direction[at] = residual[at] + next / norm * direction[at];
    norm = next;
    stop_perf_roofline_events("vectors");
  }
  partial[self][1] = norm;
  return NULL;
}

int main(int argc, char** argv) {
  n = argc > 1 ? atol(argv[1]) : 96;
  iterations = argc > 2 ? atol(argv[2]) : 200;
  threads = argc > 3 ? atol(argv[3]) : 2;
  if (n < 1 || n > 20000 || iterations < 0 || threads < 1 || threads > most_threads) {
    fprintf(stderr, "usage: solver_threads [POINTS [ITERATIONS [THREADS]]]\n");
    return 2;
  }
  size = n * n;
  double* memory = calloc((size_t)size * 4, sizeof *memory);
  if (memory == NULL) {
    fprintf(stderr, "solver_threads: no memory for %ld points\n", size);
    return 1;
  }
  solution = memory;
  residual = memory + size;
  direction = memory + 2 * size;
  image = memory + 3 * size;
  pthread_barrier_init(&barrier, NULL, (unsigned)threads);

  init_perf_roofline_events();
  pthread_t others[most_threads];
  long numbers[most_threads];
  for (long thread = 0; thread < threads; ++thread) numbers[thread] = thread;
  for (long thread = 1; thread < threads; ++thread) {
    if (pthread_create(&others[thread], NULL, solve, &numbers[thread]) != 0) {
      fprintf(stderr, "solver_threads: cannot make thread %ld\n", thread);
      return 1;
    }
  }
  solve(&numbers[0]);
  for (long thread = 1; thread < threads; ++thread) pthread_join(others[thread], NULL);
  finalize_perf_roofline_events();

  const double step = 1.0 / (double)(n + 1);
  double error = 0.0;
  for (long row = 0; row < n; ++row) {
    for (long column = 0; column < n; ++column) {
      const double difference =
          fabs(solution[row * n + column] - exact((double)(column + 1) * step, (double)(row + 1) * step));
      if (difference > error) error = difference;
    }
  }
  printf("points %ld, residual %.3e, largest error %.3e\n", size, sqrt(partial[0][1]), error);
  pthread_barrier_destroy(&barrier);
  free(memory);
  return error < 1e-3 ? 0 : 1;
}
