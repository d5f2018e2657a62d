/* C = A B of square matrices by OpenBLAS, which is opened when the program runs, in the region "product". Prints 2 n^3.
 *
 *   matrix_product [N [PRODUCTS]] */
#include <dlfcn.h>
#include <roofline_events.h>
#include <stdio.h>
#include <stdlib.h>

enum { row_major = 101, not_transposed = 111 };

typedef void (*dgemm_function)(int, int, int, int, int, int, double, const double*, int, const double*, int, double,
                               double*, int);

int main(int argc, char** argv) {
  const int n = argc > 1 ? atoi(argv[1]) : 64;
  const int products = argc > 2 ? atoi(argv[2]) : 1;
  void* library = dlopen("libopenblas.so.0", RTLD_NOW);
  dgemm_function dgemm = NULL;
  if (library != NULL) *(void**)&dgemm = dlsym(library, "cblas_dgemm");
  if (dgemm == NULL) {
    fprintf(stderr, "matrix_product: %s\n", dlerror());
    return 77;
  }
  const size_t size = (size_t)n * (size_t)n;
  double* a = malloc(3 * size * sizeof *a);
  if (a == NULL) return 1;
  double* b = a + size;
  double* c = b + size;
  for (size_t at = 0; at < size; ++at) {
    a[at] = (double)(at % 5);
    b[at] = 1.0;
    c[at] = 0.0;
  }
  init_perf_roofline_events();
  for (int product = 0; product < products; ++product) {
    start_perf_roofline_events("product");
    dgemm(row_major, not_transposed, not_transposed, n, n, n, 1.0, a, n, b, n, 0.0, c, n);
    stop_perf_roofline_events("product");
  }
  finalize_perf_roofline_events();
  double expected = 0.0;
  for (int column = 0; column < n; ++column) expected += a[column];
  printf("%ld operations, %s\n", 2L * n * n * n * products, c[n - 1] == expected ? "right" : "wrong");
  return c[n - 1] == expected ? 0 : 1;
}
