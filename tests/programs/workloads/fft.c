/* A Fourier transform by halves, forth and back, in the region "fft". Each butterfly is a complex product and two
 * complex sums, ten operations, and N log2(N) / 2 of them make one transform of N points: 5 N log2(N). Prints that
 * number for both transforms, and the largest difference to the input.
 *
 *   fft [LOG2_OF_POINTS] */
#include <math.h>
#include <roofline_events.h>
#include <stdio.h>
#include <stdlib.h>

typedef struct {
  double re, im;
} complex_number;

/* `roots` are the points / 2 first powers of the root of unity. */
__attribute__((noinline)) static void transform(complex_number* data, const complex_number* roots, long points) {
  for (long half = 1; half < points; half *= 2) {
    const long step = points / (2 * half);
    for (long base = 0; base < points; base += 2 * half) {
      for (long at = 0; at < half; ++at) {
        complex_number* a = data + base + at;
        complex_number* b = a + half;
        const complex_number w = roots[at * step];
        const complex_number product = {w.re * b->re - w.im * b->im, w.re * b->im + w.im * b->re};
        *b = (complex_number){a->re - product.re, a->im - product.im};
        *a = (complex_number){a->re + product.re, a->im + product.im};
      }
    }
  }
}

static void reverse_bits(complex_number* data, long points) {
  for (long at = 1, other = 0; at < points; ++at) {
    long bit = points / 2;
    for (; other & bit; bit /= 2) other ^= bit;
    other ^= bit;
    if (at < other) {
      const complex_number kept = data[at];
      data[at] = data[other];
      data[other] = kept;
    }
  }
}

int main(int argc, char** argv) {
  const int log2_points = argc > 1 ? atoi(argv[1]) : 10;
  if (log2_points < 1 || log2_points > 24) return 2;
  const long points = 1L << log2_points;
  complex_number* data = malloc((size_t)points * sizeof *data);
  complex_number* roots = malloc((size_t)points / 2 * sizeof *roots);
  if (data == NULL || roots == NULL) return 1;
  const double pi = acos(-1.0);
  for (long at = 0; at < points; ++at) data[at] = (complex_number){(double)(at % 7), (double)(at % 11)};

  init_perf_roofline_events();
  for (int direction = -1; direction <= 1; direction += 2) {
    for (long at = 0; at < points / 2; ++at) {
      const double angle = direction * 2.0 * pi * (double)at / (double)points;
      roots[at] = (complex_number){cos(angle), sin(angle)};
    }
    reverse_bits(data, points);
    start_perf_roofline_events("fft");
    transform(data, roots, points);
    stop_perf_roofline_events("fft");
  }
  finalize_perf_roofline_events();

  double worst = 0.0;
  for (long at = 0; at < points; ++at) {
    worst = fmax(worst, fabs(data[at].re / (double)points - (double)(at % 7)));
    worst = fmax(worst, fabs(data[at].im / (double)points - (double)(at % 11)));
  }
  printf("%ld operations, %s\n", 2 * 5 * points * log2_points, worst < 1e-9 ? "the input came back" : "wrong");
  free(data);
  free(roots);
  return worst < 1e-9 ? 0 : 1;
}
