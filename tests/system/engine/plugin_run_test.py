"""Programs under the engine with the plug-ins of plugin_run: what the plug-ins tell, and what the programs say.

plugin_run_test.py BUILD_DIR [--only CLASS] [--counts PLUGIN] [EMULATOR...]: PLUGIN is the emulator's counting plug-in,
with which the number of instructions is compared; without it that comparison is left out.
"""
import os
import subprocess
import sys
import tempfile
import unittest
import unittest.mock

TIMEOUT = 300  # Only a hang takes that long.

build = ""
counts = None
emulator = []


def program(name):
    return os.path.join(build, "tests/programs", name)


def run(plugin, *command):
    """Standard output and the plug-in's account, by name, of a run that must end with status 0."""
    environment = dict(os.environ, PLUGIN_RUN=plugin, LC_ALL="C")
    result = subprocess.run([*emulator, program("plugin_run"), *command], env=environment, timeout=TIMEOUT,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        raise AssertionError(f"status {result.returncode}\n{result.stdout}{result.stderr}")
    account = {}
    for line in result.stderr.splitlines():
        name, _, value = line.rpartition(" ")
        account[name] = int(value) if value.isdigit() else line
    return result.stdout, account


def native(*command):
    return subprocess.run([*emulator, *command], timeout=TIMEOUT, stdout=subprocess.PIPE, text=True, check=True).stdout


def emulators_count(*command):
    """How many instructions a native run executes."""
    with tempfile.TemporaryDirectory() as folder:
        summary = os.path.join(folder, "summary")
        subprocess.run([emulator[0], "-plugin", f"{counts},summary={summary}", *emulator[1:], *command],
                       timeout=TIMEOUT, check=True, stdout=subprocess.DEVNULL)
        with open(summary, encoding="ascii") as lines:
            return next(int(line.split()[1]) for line in lines if line.startswith("total "))


class Events(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.output, cls.account = run("events", program("plugin/all_events"))

    def test_the_program_runs_as_it_does_natively(self):
        self.assertEqual(self.output, native(program("plugin/all_events")))

    def test_every_event_comes(self):
        names = [name for name in self.account if name not in ("wrong_contexts", "trace_fragments")]
        self.assertEqual(len(names), 18, self.account)
        self.assertEqual([name for name in names if self.account[name] == 0], [])

    def test_every_context_tells_what_its_event_promises(self):
        self.assertEqual(self.account["wrong_contexts"], 0)

    def test_plugins_are_told_of_the_fragments_of_traces(self):
        self.assertGreater(self.account["trace_fragments"], 0)

    def test_each_event_of_a_threads_life_comes_once_per_thread(self):
        self.assertEqual([self.account[name] for name in ("thread_init", "thread_exit", "clone", "exit", "elf_load")],
                         [2, 2, 1, 1, 1])

    def test_instructions_blocks_and_fragments_end_as_often_as_they_begin(self):
        for name in ("inst", "bb", "fragment"):
            self.assertEqual(self.account["pre_" + name], self.account["post_" + name], name)
        self.assertLess(self.account["pre_fragment"], self.account["pre_bb"])

    def test_calls_that_do_not_come_back_have_no_end(self):
        # exit_group, and the exit of the second thread.
        self.assertEqual(self.account["pre_syscall"], self.account["post_syscall"] + 2)

    def test_a_function_is_told_per_thread_that_runs_it(self):
        self.assertEqual([self.account["pre_function"], self.account["post_function"]], [2, 2])


class Forks(unittest.TestCase):
    def test_the_child_of_a_fork_has_a_thread_init_of_its_own_with_the_data_of_the_thread_that_forked(self):
        output, account = run("forks", program("plugin/fork_child"))
        self.assertEqual(output, native(program("plugin/fork_child")))
        self.assertEqual(account, {name: 1 for name in ("thread_init", "thread_init_in_child", "child_is_alone",
                                                        "child_keeps_its_data", "child_has_its_own_id")})


class Instructions(unittest.TestCase):
    def test_inline_counters_give_the_number_known_of_a_loop(self):
        loop = os.path.join(build, "tests/emulator_plugin/counted_loop")
        if not os.path.exists(loop):
            self.skipTest("built with the counting plug-in alone")
        _, account = run("instructions", loop)
        self.assertEqual(account["instructions"], 2003)

    def test_inline_counters_agree_with_the_emulators_count(self):
        if counts is None:
            self.skipTest("no counting plug-in for the emulator")
        shapes = program("plugin/counted_shapes")
        _, account = run("instructions", shapes)
        self.assertEqual(account["instructions"], emulators_count(shapes))


class Runs(unittest.TestCase):
    """Blocks counted by the engine's service. What is counted must not depend on how the engine lays the code out."""
    programs = [["plugin/counted_shapes"], ["traces/bare_phases"], ["traces/bare_entered_tbz_far"],
                ["traces/bare_entered_cbz_between"], ["traces/bare_abandoned"], ["traces/bare_flush_while_built"],
                ["traces/bare_too_long_for_tbz"]]

    def account(self, plugin, command, **variables):
        with unittest.mock.patch.dict(os.environ, variables):
            return run(plugin, program(command[0]), *command[1:])[1]

    def test_they_are_as_many_with_traces_and_without(self):
        for command in self.programs:
            without = self.account("runs", command, MORA_BI_TRACES="off")
            self.assertGreater(without["blocks"], 0)
            for variables in ({}, {"MORA_BI_HOT": "3"}, {"MORA_BI_HOT": "1"}, {"MORA_BI_MAX_TRACES": "1"},
                              {"MORA_BI_HOT": "3", "MORA_BI_TRACES": "checked"}):
                with self.subTest(program=command, **variables):
                    self.assertEqual(self.account("runs", command, **variables), without)

    def test_they_are_those_that_code_in_each_block_counts(self):
        for command in [*self.programs, ["plugin/all_events"], ["plugin/recursion"], ["plugin/fork_child"]]:
            for hot in ("3", "255"):
                with self.subTest(program=command, hot=hot):
                    self.assertEqual(self.account("runs_twice", command, MORA_BI_HOT=hot)["differences"], 0)

    def path_counts(self, kind, **variables):
        """How often each block of counted_paths.S has run, by its place."""
        with unittest.mock.patch.dict(os.environ, RUNS_BLOCKS="1", **variables):
            output, account = run("runs", program("traces/counted_paths"), kind)
        begin, end, pairs, pairs_end = (int(word) for word in output.split()[:4])
        # With a kernel of its own, an interrupt makes a store-exclusive fail now and then, and the loop goes round.
        left_out = range(0) if emulator else range(pairs, pairs_end)
        blocks = {tuple(name.split()): value for name, value in account.items() if "block " in name}
        return {(whose, int(start) - begin): count for (whose, start), count in blocks.items()
                if begin <= int(start) < end and int(start) not in left_out}

    def test_faults_signals_threads_forks_and_dropped_code_change_no_count(self):
        for kind in ("faults", "threads", "forks", "drops", "signals"):
            without = self.path_counts(kind, MORA_BI_TRACES="off")
            self.assertGreater(len(without), 10)
            for variables in ({}, {"MORA_BI_HOT": "3"}, {"MORA_BI_HOT": "3", "MORA_BI_TRACES": "checked"}):
                with self.subTest(kind=kind, **variables):
                    self.assertEqual(self.path_counts(kind, **variables), without)

    def test_their_instructions_are_those_that_the_emulator_counts(self):
        if counts is None:
            self.skipTest("no counting plug-in for the emulator")
        for command in self.programs:
            total = emulators_count(program(command[0]), *command[1:])
            for variables in ({}, {"MORA_BI_HOT": "3"}):
                with self.subTest(program=command, **variables):
                    self.assertEqual(self.account("runs", command, **variables)["instructions"], total)


class GuardedCalls(unittest.TestCase):
    def check(self, plugin):
        output, account = run(plugin, program("plugin/kept_state"))
        self.assertEqual(output, "kept\n")
        self.assertGreater(account["calls"], 1000)
        self.assertEqual(account["wrong_arguments"], 0)

    def test_a_function_called_at_every_block_leaves_the_applications_state_as_it_was(self):
        self.check("blocks_called")

    def test_so_does_one_that_gets_eight_constants(self):
        self.check("blocks_called_by_constants")

    def test_at_most_64_bytes_change_below_the_stack_pointer(self):
        output, account = run("blocks_called_by_constants", program("hazards/below_sp"))
        self.assertEqual(output, "done\n")
        self.assertGreater(account["calls"], 1000)

    def test_so_it_is_with_counters_in_the_blocks_and_with_watched_functions(self):
        for plugin in ("instructions", "watched_entries", "watched_returns"):
            with self.subTest(plugin=plugin):
                self.assertEqual(run(plugin, program("hazards/below_sp"))[0], "done\n")

    def test_calls_at_every_block_leave_libraries_unharmed(self):
        output, _ = run("blocks_called", program("plugin/recursion"))
        self.assertEqual(output, native(program("plugin/recursion")))

    def test_a_signal_that_comes_during_such_a_call_reaches_a_loop_of_linked_blocks(self):
        output, account = run("blocks_called", program("plugin/signal_in_call"))
        self.assertEqual(output, "arrived\n")
        self.assertGreater(account["calls"], 1000)

    def test_signals_that_come_during_such_calls_reach_loops_that_never_leave_the_cache(self):
        output, account = run("blocks_called", program("plugin/signal_in_loop"))
        self.assertEqual(output, "100 signals\n")
        self.assertGreater(account["calls"], 100)

    def test_a_process_ends_while_other_threads_are_in_such_calls(self):
        output, _ = run("blocks_called", program("plugin/exit_while_calling"))
        self.assertEqual(output, "ending\n")


class Watches(unittest.TestCase):
    def check(self, plugin):
        output, account = run(plugin, program("plugin/recursion"))
        self.assertEqual(output, native(program("plugin/recursion")))
        return account

    def test_two_thousand_functions_of_the_library_are_watched_at_entry_and_return(self):
        account = self.check("watched_returns")
        self.assertEqual(account["watched"], 2000)
        self.assertGreater(account["entries"], 500)
        self.assertEqual(account["entries"], account["returns"])

    def test_every_level_of_a_recursion_is_entered_and_left(self):
        account = self.check("watched_returns")
        self.assertEqual([account["recursive_entries"], account["recursive_returns"]], [1093, 1093])

    def test_a_return_that_nobody_writes_code_for_is_told_once_and_let_alone(self):
        account = self.check("watched_entries")
        self.assertEqual(account["recursive_entries"], 1093)
        self.assertEqual(account["returns"], 0)
        self.assertGreater(account["told_returns"], 10)
        self.assertLess(account["told_returns"], account["entries"])

    def test_every_function_there_is_can_be_watched_by_the_engines_own_choice(self):
        account = self.check("watched_all")
        self.assertEqual(account["watched"], 0)
        self.assertGreater(account["entries"], 1093)


class SystemCalls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        output, cls.account = run("system_calls", program("plugin/changed_calls"))
        cls.lines = output.splitlines()

    def test_a_replaced_call_has_the_plugins_result(self):
        self.assertIn("getppid 4242", self.lines)
        self.assertEqual(self.account["replaced_call_told"], 1)

    def test_a_skipped_call_without_a_result_has_its_first_argument_as_one(self):
        self.assertIn(f"umask {0o1234567}", self.lines)

    def test_a_changed_argument_reaches_the_kernel(self):
        self.assertIn("0123456789write 10", self.lines)

    def test_the_result_of_a_call_that_the_engine_handles_can_be_changed_behind_it(self):
        self.assertIn("close 7", self.lines)

    def test_the_result_of_a_call_that_the_kernel_has_made_stays_the_kernels(self):
        self.assertIn("getpgid 1", self.lines)

    def test_results_before_a_skip_and_skips_behind_a_call_are_refused(self):
        self.assertEqual(self.account["refusals"], 2)


if __name__ == "__main__":
    arguments = sys.argv[1:]
    build = arguments.pop(0)
    only = []
    if arguments[:1] == ["--only"]:
        only = [arguments[1]]
        del arguments[:2]
    if arguments[:1] == ["--counts"]:
        counts = arguments[1]
        del arguments[:2]
    emulator = arguments
    unittest.main(argv=sys.argv[:1] + only, verbosity=2)
