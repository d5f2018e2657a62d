/* Does what its arguments say, one word after the other, so that a test can make every mistake with regions:
 *
 *   init  finalize            the two functions
 *   start=NAME  stop=NAME     the other two
 *   work=N                    N rounds of a loop with one fused multiply-add in double precision, two operations
 *   pairs=N:NAME              N times start and stop with one round of work between them
 *   [ WORDS ]                 the words on a thread of its own, which is waited for; may stand inside another one
 *   { WORDS }                 the same without waiting: threads of this kind are joined at "join" or at the end
 *   join                      waits for these
 *   ( WORDS )                 the words in a forked child, which is waited for
 *   chdir=PATH  exit=N        as the C library's functions
 *   descriptors               prints the number of open descriptors
 *   load=PATH                 takes the functions from a library opened now (only in the program that is not linked)
 *
 * It prints "done" at the end. */
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef REGIONS_ARE_LINKED
#include <roofline_events.h>
static void (*init_regions)(void) = init_perf_roofline_events;
static void (*start_region)(const char*) = start_perf_roofline_events;
static void (*stop_region)(const char*) = stop_perf_roofline_events;
static void (*finalize_regions)(void) = finalize_perf_roofline_events;
#else
static void (*init_regions)(void);
static void (*start_region)(const char*);
static void (*stop_region)(const char*);
static void (*finalize_regions)(void);
#endif

enum { most_threads = 64 };

struct words {
  char** first;
  int count;
};

static pthread_t running[most_threads];
static int running_count;

static void fail(const char* what) {
  fprintf(stderr, "region_script: %s\n", what);
  exit(99);
}

/* Noinline: a test compares blocks and counts of this one place. */
__attribute__((noinline)) static void work(long rounds) {
  double value = 0.5;
  __asm__ volatile(
      "1: fmadd %d0, %d0, %d0, %d0\n"
      "   subs  %1, %1, #1\n"
      "   b.ne  1b\n"
      : "+w"(value), "+r"(rounds)
      :
      : "cc");
}

static void* function(void* library, const char* name) {
  void* found = dlsym(library, name);
  if (found == NULL) fail(name);
  return found;
}

static void load(const char* path) {
  void* library = dlopen(path, RTLD_NOW);
  if (library == NULL) fail(dlerror());
  *(void**)&init_regions = function(library, "init_perf_roofline_events");
  *(void**)&start_region = function(library, "start_perf_roofline_events");
  *(void**)&stop_region = function(library, "stop_perf_roofline_events");
  *(void**)&finalize_regions = function(library, "finalize_perf_roofline_events");
}

static void print_descriptors(void) {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == NULL) fail("no /proc/self/fd");
  int count = -1; /* The folder's own. */
  for (struct dirent* entry; (entry = readdir(folder)) != NULL;) count += entry->d_name[0] != '.';
  closedir(folder);
  printf("%d descriptors\n", count);
}

/* The number of words in the group that `open` begins, both brackets included. */
static int group_size(char** words, int count, const char* open, const char* close) {
  int depth = 0;
  for (int at = 0; at < count; ++at) {
    depth += (strcmp(words[at], open) == 0) - (strcmp(words[at], close) == 0);
    if (depth == 0) return at + 1;
  }
  fail("a bracket is not closed");
  return 0;
}

static void join_all(void) {
  while (running_count > 0) pthread_join(running[--running_count], NULL);
}

static void* run(void* argument);

/* Runs the words inside the group on a new thread. Returns how many words the group has. */
static int run_group(char** words, int count, int waited_for) {
  const int size = waited_for ? group_size(words, count, "[", "]") : group_size(words, count, "{", "}");
  struct words* inside = malloc(sizeof *inside);
  if (inside == NULL) fail("no memory");
  *inside = (struct words){words + 1, size - 2};
  pthread_t thread;
  const int error = pthread_create(&thread, NULL, run, inside);
  if (error != 0) fail(strerror(error));
  if (waited_for) {
    pthread_join(thread, NULL);
  } else if (running_count < most_threads) {
    running[running_count++] = thread;
  } else {
    fail("too many threads");
  }
  return size;
}

/* The same in a child. */
static int run_child(char** words, int count) {
  const int size = group_size(words, count, "(", ")");
  fflush(stdout);
  const pid_t child = fork();
  if (child == -1) fail(strerror(errno));
  if (child == 0) {
    struct words* inside = malloc(sizeof *inside);
    if (inside == NULL) fail("no memory");
    *inside = (struct words){words + 1, size - 2};
    run(inside);
    exit(0);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) fail("the child has failed");
  return size;
}

static int is(const char* word, size_t length, const char* name) {
  return length == strlen(name) && memcmp(word, name, length) == 0;
}

static void* run(void* argument) {
  const struct words words = *(struct words*)argument;
  free(argument);
  for (int at = 0; at < words.count; ++at) {
    char* word = words.first[at];
    char* value = strchr(word, '=');
    const size_t length = value == NULL ? strlen(word) : (size_t)(value++ - word);
    if (is(word, length, "init")) {
      init_regions();
    } else if (is(word, length, "finalize")) {
      finalize_regions();
    } else if (is(word, length, "start")) {
      start_region(value);
    } else if (is(word, length, "stop")) {
      stop_region(value);
    } else if (is(word, length, "work")) {
      work(atol(value));
    } else if (is(word, length, "pairs")) {
      char* name = strchr(value, ':');
      if (name == NULL) fail("pairs wants N:NAME");
      for (long pair = atol(value); pair > 0; --pair) {
        start_region(name + 1);
        work(1);
        stop_region(name + 1);
      }
    } else if (is(word, length, "[")) {
      at += run_group(words.first + at, words.count - at, 1) - 1;
    } else if (is(word, length, "{")) {
      at += run_group(words.first + at, words.count - at, 0) - 1;
    } else if (is(word, length, "(")) {
      at += run_child(words.first + at, words.count - at) - 1;
    } else if (is(word, length, "join")) {
      join_all();
    } else if (is(word, length, "chdir")) {
      if (chdir(value) != 0) fail(value);
    } else if (is(word, length, "exit")) {
      exit(atoi(value));
    } else if (is(word, length, "descriptors")) {
      print_descriptors();
    } else if (is(word, length, "load")) {
      load(value);
    } else {
      fail(word);
    }
  }
  return NULL;
}

int main(int argc, char** argv) {
  struct words* all = malloc(sizeof *all);
  if (all == NULL) return 99;
  *all = (struct words){argv + 1, argc - 1};
  run(all);
  join_all();
  puts("done");
  return 0;
}
