/* Marks regions of an application for ceilmeter, from C and C++.
 *
 *   init_perf_roofline_events();                  once, before the first region
 *   ...
 *   start_perf_roofline_events("stencil");        around the code that interests, on every thread that runs it
 *   stop_perf_roofline_events("stencil");
 *   ...
 *   finalize_perf_roofline_events();              once, after the last region, before the program ends
 *
 * Link with libroofline_events: `pkg-config --cflags --libs roofline_events`, or in CMake
 * `find_package(roofline_events)` and `target_link_libraries(app roofline_events::roofline_events)`. Then
 *
 *   ceilmeter --mode=region -o /path/to/result.json ./app
 *
 * runs the application once under hardware counters and once under the tracer. The same marks serve both, and each
 * region stands in the result file under its name. docs/regions.md of ceilmeter walks through it.
 *
 * Without the tool. Started by itself the marked application runs unchanged: init finds that nobody asked for a report,
 * nothing is counted, printed or written, and every call returns after the test of one flag. The marks can stay in.
 *
 * Threads. A region belongs to the thread that starts it. Several threads may be in regions of the same or of different
 * names at once, and of those of one name the bytes and operations are added up and the time is that during which at
 * least one thread was inside. init and finalize are for one thread, while no other is in a region.
 * Under the counters, what a thread counts also follows every thread and process that it makes after its first start of
 * the region: such a thread that starts the same region itself is counted twice. So make threads first, and mark the
 * work on the threads that do it.
 *
 * Names. UTF-8 text without double quotes, backslashes and control characters, which the result file could not hold;
 * compared byte by byte. It is copied: the string may go when the call has returned. Null is not allowed; it ends the
 * program (as a C++ exception, std::logic_error) unless the calls do nothing anyway.
 *
 * Regions do not nest. The counters would keep two regions of one thread apart, but for the tracer a thread is in one
 * region: a start inside another region ends that one, and what has run since its start is told under the new name.
 *
 * Errors. The functions return nothing and the application goes on, whatever becomes of the counters. What went wrong
 * is in the tool's log (ceilmeter --log-level, --log-file).
 *
 * Cost. Without the tool a start and a stop are a load, a test and a return each. Under the counters each of them looks
 * the thread's region up under a lock and makes one system call; the first start of a region on a thread opens its six
 * counters, some twenty-five system calls and six descriptors, which stay open until finalize. The library raises the
 * process's soft limit of descriptors and keeps its own beyond the numbers that the application had. Under the tracer
 * the pair is some ten
 * thousand instructions, more for a thread that runs much code, since a stop goes through all blocks that the
 * thread has run. So mark loops, not the inside of loops. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* The calls go to the library also from code that is compiled with hidden visibility. */
#pragma GCC visibility push(default)

/* Gets ready to count, or finds that there is nothing to count and turns the other functions off for the rest of the
 * process. Under the counters it prints the line "ROOFLINE_EVENTS are initialized." on standard output. Call it once,
 * on one thread, before the first region, and not before main begins. Without it the regions are counted all the same,
 * also outside the tool and under the tracer, where they should not be, and the log stays on standard error. */
void init_perf_roofline_events(void);

/* Begins `region` on the calling thread. A region may be entered as often as wanted: what is counted adds up. A second
 * start without a stop between goes on counting but loses the time since the first. Any thread. */
void start_perf_roofline_events(const char* region);

/* Ends `region`: on the thread that started it, with the same text. Anything else is not counted as a stop and leaves a
 * warning in the log. Any thread. */
void stop_perf_roofline_events(const char* region);

/* Reads the counters of all regions, closes them and writes the result file. Regions that are still open are counted up
 * to here, without their last stretch of time. Call it once, on one thread, when no other is in a region, and before
 * the program ends: not from a destructor of a static object or a function registered with atexit. A program that ends
 * without it leaves no counters. The file named on the tool's command line is read, brought up to date and written; if
 * its path is relative, it is so to the application's folder at this moment. A damaged file stays as it is, and the
 * counters go into a new one beside it. Other processes that finalize at the same time wait for each other. */
void finalize_perf_roofline_events(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif
