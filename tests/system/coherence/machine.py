"""The virtual machine with the plug-in that judges written code, and engines that leave out a step.

A plan is a list of lines; each has an engine and a command as in the lists of ../engine. The plug-in's account is kept
apart by line.
"""
import collections
import glob
import os
import re
import struct
import subprocess
import sys

SOURCE = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../.."))
ENGINE = "/build/tests/programs/mora_run"
NOP, RET = 0xd503201f, 0xd65f03c0

Line = collections.namedtuple("Line", "engine command")
Fault = collections.namedtuple("Fault", "count address word")


class Run:
    """The outcome of a line: its status, the plug-in's counts, faults by kind, transitions by part, way and classes."""

    def __init__(self, line):
        self.line = line
        self.status = None
        self.counts = collections.Counter()
        self.faults = {}
        self.transitions = collections.Counter()

    def text(self):
        return f"{self.line.command} [{self.line.engine}]: status {self.status}, {self.faults}"


def read_list(name, folder="coherence"):
    with open(os.path.join(SOURCE, "tests/system", folder, name), encoding="utf-8") as file:
        return [line.rstrip("\n") for line in file if line.strip() and not line.startswith("#")]


def read_account(path, runs):
    with open(path, encoding="utf-8") as file:
        for line in file:
            kind, number, *words = line.split()
            number = int(number)
            if number == 0:
                continue
            run = runs[number - 1]
            if kind == "run":
                run.counts.update(dict(zip(words[::2], map(int, words[1::2]))))
            elif kind == "fault":
                run.faults[words[0]] = Fault(int(words[1]), int(words[2], 16), int(words[3], 16))
            else:
                run.transitions[tuple(words[:4])] += int(words[4])


class Machine:
    def __init__(self, build, plugin, folder, cpus=2, seconds=1500):
        self.build, self.plugin, self.folder = build, plugin, folder
        self.cpus, self.seconds = cpus, seconds

    def run(self, lines):
        """Runs the plan and returns a Run for each line."""
        account = os.path.join(self.folder, "account")
        with open(os.path.join(self.folder, "plan"), "w", encoding="utf-8") as file:
            for line in lines:
                file.write("\t".join(line) + "\n")
        command = [os.path.join(SOURCE, "tools/vm/run"), "--build", self.build, "--share", f"mutants={self.folder}",
                   "--plugin", f"{self.plugin},account={account},line=4", "--cpu", "cortex-a72", "--cpus",
                   str(self.cpus), "--timeout", str(self.seconds), "--", "/src/tests/system/coherence/run_marked",
                   "/build/tests/emulator_plugin/mark_run", "/mutants/plan"]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        sys.stderr.write(result.stderr)
        if result.returncode != 0:
            raise AssertionError(f"the machine ended with status {result.returncode}: {result.stdout}")
        runs = [Run(line) for line in lines]
        for line in result.stdout.splitlines():
            number, status, seconds = map(int, line.split())
            runs[number - 1].status = status
            runs[number - 1].counts["seconds"] = seconds
        read_account(account, runs)
        return runs


class Image:
    """An ELF file's bytes, changed by address."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = bytearray(file.read())
        first, = struct.unpack_from("<Q", self.data, 32)
        size, count = struct.unpack_from("<HH", self.data, 54)
        headers = [struct.unpack_from("<IIQQQQQQ", self.data, first + size * index) for index in range(count)]
        self.loads = [(header[3], header[2], header[5]) for header in headers if header[0] == 1]

    def place(self, address):
        for start, offset, size in self.loads:
            if start <= address < start + size:
                return offset + address - start
        raise AssertionError(f"no segment holds {address:#x}")

    def word(self, address):
        return struct.unpack_from("<I", self.data, self.place(address))[0]

    def put(self, address, word):
        struct.pack_into("<I", self.data, self.place(address), word)

    def write(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(self.data)
        os.chmod(path, 0o755)


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def has_emulator():
    """Whether there is an emulator for the plug-in. A missing one is fetched; if that fails, the fetch says why."""
    return subprocess.run([os.path.join(SOURCE, "tools/vm/emulator/fetch")], stdout=subprocess.DEVNULL,
                          check=False).returncode == 0


def symbol(nm, path, name):
    """The address of a symbol, and its size."""
    match = re.search(rf"^([0-9a-f]+) ([0-9a-f]+) . {name}$", output_of(nm, "-S", path), re.MULTILINE)
    return int(match[1], 16), int(match[2], 16)


# The steps of the engine's routine that makes written code executable, and the words that are left out for each.
STEPS = {"clean": 0xd50b7b20, "first_barrier": 0xd5033b9f, "invalidation": 0xd50b7520, "second_barrier": 0xd5033b9f,
         "synchronisation": 0xd5033fdf}
ALL_STEPS = "all_steps"


def only_place(places, expected, what):
    if len(places) != expected:
        raise AssertionError(f"{len(places)} places for {what} in the engine, not {expected}")
    return places


class Engines:
    """Copies of the engine, as the machine names them, in a folder that the machine sees as /mutants.

    In each of these routines a line has one word, so that a forgotten word is not made executable with its neighbours.
    """

    def __init__(self, program, folder, nm, objcopy):
        self.program, self.folder = program, folder
        self.stripped = os.path.join(folder, "stripped")
        subprocess.run([objcopy, "--strip-debug", program, self.stripped], check=True)
        begin, size = symbol(nm, program, "maintain_caches")
        self.routine = range(begin, begin + size, 4)

    def image(self):
        image = Image(self.stripped)
        # lsl line, four, logarithm
        sizes = [at for at in self.routine if image.word(at) & 0xffe0fc00 == 0x1ac02000]
        for place in only_place(sizes, 2, "a line's size"):
            word = image.word(place)
            image.put(place, 0x2a0003e0 | (word >> 5 & 31) << 16 | word & 31)  # mov line, four
        return image

    def write(self, image, name):
        image.write(os.path.join(self.folder, name))
        return f"/mutants/{name}"

    def with_all_steps(self):
        return self.write(self.image(), ALL_STEPS)

    def without_step(self, step):
        image = self.image()
        operand = 31 if step in ("clean", "invalidation") else 0
        places = [at for at in self.routine if image.word(at) & ~operand == STEPS[step]]
        only_place(places, 2 if step.endswith("_barrier") else 1, step)
        image.put(places[-1] if step == "second_barrier" else places[0], NOP)
        return self.write(image, step)

    def without_place(self, function, sites):
        """Leaves what the function writes as it is."""
        image = self.image()
        for address, is_call in sites:
            image.put(address, NOP if is_call else RET)
        return self.write(image, function)


def function_at(file, number):
    """The name of the function that holds a line of a source: its head begins in the first column."""
    paths = glob.glob(os.path.join(SOURCE, "src/bi/**", file), recursive=True)
    paths += glob.glob(os.path.join(SOURCE, "tests/programs/engine", file))
    with open(only_place(paths, 1, file)[0], encoding="utf-8") as source:
        lines = source.read().splitlines()
    heads = (re.match(r"\w[^=;]*?(\w+)\(", line) for line in reversed(lines[:number]))
    return next(head[1] for head in heads if head)


def call_sites(engine, objdump, addr2line):
    """The places where the engine makes written words executable, or notes them for the end of the visit, by the
    function that its source names: addresses and whether each is a call; else it is a jump."""
    sites = collections.defaultdict(list)
    for line in output_of(objdump, "-d", "-C", "--no-show-raw-insn", engine).splitlines():
        match = re.match(r"\s*([0-9a-f]+):\s+(bl?)\s.*<ceilmeter::(?:clear_instruction_cache|note_written)\([^)+]*\)>",
                         line)
        if not match:
            continue
        # By its line: the name of a function that the compiler has put into another one is not always told.
        file, number = output_of(addr2line, "-s", "-i", "-e", engine, match[1]).splitlines()[0].split()[0].split(":")
        sites[function_at(file, int(number))].append((int(match[1], 16), match[2] == "bl"))
    return sites
