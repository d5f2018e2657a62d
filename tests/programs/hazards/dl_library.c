// A library of dl_cycle, built twice. The functions of the two differ only in their sum.
int calls;
long work(long value);
static long (*volatile next)(long);
static __attribute__((noinline)) long last(long value) { return value DL_OPERATION; }
long work(long value) {
  ++calls;
  next = last;
  return next(value);
}
