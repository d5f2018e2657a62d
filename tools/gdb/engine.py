"""Commands of gdb for a process under the engine; load them with `source tools/gdb/engine.py`.

where-am-i [ADDRESS]     What a cache address, or $pc, stands for: fragment, source address, file, function.
dump-fragment [ADDRESS]  The code of the fragment that a cache address, or $pc, lies in: to the process's log.

gdb-multiarch, or gdb on an AArch64 machine, on a live process: gdb has the engine's own functions called, so the
process has to be stopped, and a core file is not enough. Files are read where this gdb runs: with the emulator of a
userland, set `sysroot` to it.
"""
import os
import re
import sys

import gdb  # pylint: disable=import-error

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import elf_symbols  # noqa: E402 pylint: disable=wrong-import-position


def _place(argument):
    return int(gdb.parse_and_eval(argument or "$pc")) & (1 << 64) - 1


def _describe(address):
    """The engine's description of the place. The cast gives gdb the type: a release build has no debug information."""
    function = f"((const char *(*)(unsigned long)) describe_place)({address:#x})"
    return gdb.parse_and_eval(function).string()


def _function(words):
    module = re.search(r" (/.*)\+(0x[0-9a-f]+)$", words)
    if not module:
        return None
    root = gdb.parameter("sysroot")
    for path in (module[1], root + module[1]):
        if os.path.isfile(path):
            return elf_symbols.function_at(path, int(module[2], 16))
    return None


class WhereAmI(gdb.Command):
    """where-am-i [ADDRESS]: what a cache address, or $pc, stands for: fragment, source address, file, function."""

    def __init__(self):
        super().__init__("where-am-i", gdb.COMMAND_STATUS, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, _from_tty):
        words = _describe(_place(argument))
        function = _function(words)
        print(f"{words}, {function[0]}+{function[1]:#x}" if function else words)


class DumpFragment(gdb.Command):
    """dump-fragment [ADDRESS]: the code of the fragment that a cache address, or $pc, lies in, to the process's log."""

    def __init__(self):
        super().__init__("dump-fragment", gdb.COMMAND_STATUS, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, _from_tty):
        words = _describe(_place(argument))
        fragment = re.search(r"fragment (\d+)", words)
        if not fragment:
            raise gdb.GdbError(words)
        gdb.parse_and_eval(f"((void (*)(int)) dump_fragment)({fragment[1]})")


WhereAmI()
DumpFragment()
