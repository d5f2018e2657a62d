#!/usr/bin/python3
"""Tests the program ceilview: every status with its message, the files that it writes, those that it leaves alone, and
wrong inputs of first-time users.

program_test.py SOURCE EMULATOR... CEILVIEW
"""
import csv
import io
import json
import os
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

source, *command = sys.argv[1:]
command[0] = shutil.which(command[0])  # An absolute path, because one test removes PATH.
results = os.path.join(source, "tests/unit/view/results")
SECONDS = 600  # A run that takes longer hangs.
SMALL = {"regions": {"total": {"flop": 100, "threads": 1, "bbs": [["0", "8", "0", "8", 4, 25, 2, "/home/user/app"]],
                               "l1_bytes": 400, "l2_bytes": 300, "l3_bytes": 200, "ddr_bytes": 100, "time": 1000}},
         "bb_keys": ["start", "end", "dump_start", "dump_end", "flop", "count", "vector_length", "module"],
         "threads": 1}


class program_test(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="ceilview_")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, content):
        if not isinstance(content, (bytes, str)):
            content = json.dumps(content)
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def read(self, name):
        with open(self.path(name), encoding="utf-8", newline="") as file:
            return file.read()

    def run_it(self, *words, **how):
        how.setdefault("stdin", subprocess.DEVNULL)
        done = subprocess.run([*command, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=SECONDS,
                              cwd=self.folder, check=False, **how)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def refuse(self, content, *reasons):
        """`content` as an input gives status 2, one line that names the file, and no output."""
        path = content if isinstance(content, os.PathLike) else self.write("in.json", content)
        status, out, err = self.run_it(path, "-o", "page.html")
        self.assertEqual((status, out), (2, ""), err)
        self.assertTrue(err.startswith(f"ceilview: {os.fspath(path)}:"), err)
        self.assertEqual(err.count("\n"), 1, err)
        for reason in reasons:
            self.assertIn(reason, err)
        self.assertFalse(os.path.exists(self.path("page.html")))

    # Status 0.

    def test_page_is_written_beside_the_file_and_its_path_is_told(self):
        self.write("app.roofline.json", SMALL)
        self.assertEqual(self.run_it("app.roofline.json"), (0, "app.roofline.html\n", ""))
        self.assertEqual(sorted(os.listdir(self.folder)), ["app.roofline.html", "app.roofline.json"])
        page = self.read("app.roofline.html")
        self.assertTrue(page.startswith("<!DOCTYPE html>"), page[:40])
        self.assertTrue(page.rstrip().endswith("</html>"), page[-40:])

    def test_picture_alone_is_svg(self):
        self.write("app.json", SMALL)
        self.assertEqual(self.run_it("--svg", "app.json"), (0, "app.svg\n", ""))
        self.assertIn("<svg", self.read("app.svg"))

    def test_csv_is_read_back_by_another_reader(self):
        self.write("app.json", SMALL)
        status, out, err = self.run_it("--csv", "-o", "-", "app.json")
        self.assertEqual((status, err), (0, ""))
        rows = list(csv.DictReader(io.StringIO(out, newline="")))
        self.assertEqual([(row["level"], row["bytes"], row["flop_per_byte"]) for row in rows],
                         [("L1", "400", "0.25"), ("L2", "300", "0.3333333333333333"), ("L3", "200", "0.5"),
                          ("DDR", "100", "1")])

    def test_standard_input_and_output_serve_in_a_pipe(self):
        with open(self.write("app.json", SMALL), "rb") as file:
            status, out, err = self.run_it("--svg", "-", stdin=file)
        self.assertEqual((status, err), (0, ""))
        self.assertIn("<svg", out)

    def test_named_pipe_can_be_an_input(self):
        os.mkfifo(self.path("pipe"))
        self.write("app.json", SMALL)
        # A program that never opens the pipe must not leave its writer waiting.
        with subprocess.Popen(["timeout", "60", "sh", "-c", "cat app.json > pipe"], cwd=self.folder):
            status, out, err = self.run_it("--table", "pipe")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("  total ", out)

    def test_several_files_a_baseline_and_ranks_give_a_page(self):
        for name in ("a.json", "b.json", "c.json"):
            self.write(name, SMALL)
        self.assertEqual(self.run_it("a.json", "b.json"), (0, "a.html\n", ""))
        self.assertEqual(self.run_it("--baseline", "a.json", "b.json"), (0, "b.html\n", ""))
        self.assertEqual(self.run_it("--ranks", "c.json", "a.json", "b.json"), (0, "c.html\n", ""))

    def test_help_and_version_go_to_standard_output(self):
        status, out, err = self.run_it("--help")
        self.assertEqual((status, err), (0, ""))
        self.assertTrue(out.startswith("usage: ceilview [OPTIONS] FILE...\n"), out)
        status, out, err = self.run_it("-v")
        self.assertEqual((status, err), (0, ""))
        self.assertRegex(out, r"^ceilview version \d+\.\d+\n$")

    def test_same_input_gives_the_same_bytes_in_every_locale(self):
        self.write("app.json", SMALL)
        for locale in ("C", "de_DE.UTF-8", "tr_TR.UTF-8"):
            self.run_it("app.json", "-o", locale, env={**os.environ, "LC_ALL": locale, "LANG": locale})
        self.assertEqual(self.read("C"), self.read("de_DE.UTF-8"))
        self.assertEqual(self.read("C"), self.read("tr_TR.UTF-8"))

    def test_short_paths_take_the_users_folder_out_of_the_page(self):
        self.write("app.json", SMALL)
        self.run_it("app.json", "-o", "long.html")
        self.run_it("app.json", "--short-paths", "-o", "short.html")
        self.assertIn("/home/user/app", self.read("long.html"))
        self.assertNotIn("/home/user", self.read("short.html"))

    def test_modules_that_are_not_at_hand_are_a_warning(self):
        self.write("app.json", SMALL)
        status, out, err = self.run_it("--modules=/nowhere", "app.json")
        self.assertEqual((status, out), (0, "app.html\n"))
        self.assertEqual(err, "ceilview: warning: /home/user/app: its blocks have no names: "
                              "No such file or directory\n")

    def test_browser_gets_the_page_and_its_failure_is_a_warning(self):
        self.write("app.json", SMALL)
        viewer = self.write("viewer", f"#!/bin/sh\nprintf %s \"$1\" > {self.path('seen')}\n")
        os.chmod(viewer, 0o755)
        self.assertEqual(self.run_it("--open", "app.json", env={**os.environ, "BROWSER": viewer}),
                         (0, "app.html\n", ""))
        self.assertEqual(self.read("seen"), "file://" + os.path.realpath(self.path("app.html")))
        status, out, err = self.run_it("--open", "app.json", env={**os.environ, "BROWSER": "", "PATH": "/nowhere"})
        self.assertEqual((status, out), (0, "app.html\n"))
        self.assertEqual(err, "ceilview: warning: no browser could be started; $BROWSER can name one\n")

    def test_pictures_of_the_documents_are_what_it_draws(self):
        subprocess.run([os.path.join(source, "tests/system/view/draw_documents"), self.folder], check=True,
                       env={**os.environ, "ceilview": " ".join(command)}, stdout=subprocess.DEVNULL, timeout=SECONDS)
        names = [name for name in os.listdir(os.path.join(source, "docs/viewer")) if name.endswith(".svg")]
        self.assertEqual(sorted(names), sorted(os.listdir(self.folder)))
        for name in names:
            with open(os.path.join(source, "docs/viewer", name), encoding="utf-8", newline="") as file:
                self.assertTrue(file.read() == self.read(name), f"{name} differs: see docs/development.md, The viewer")

    def test_page_of_200000_blocks_is_small_and_its_sums_are_exact(self):
        with open(self.path("large.json"), "wb") as file:
            subprocess.run([os.path.join(source, "bench/large_result.py")], stdout=file, check=True, timeout=SECONDS)
        with open(self.path("large.json"), encoding="utf-8") as file:
            regions = json.load(file)["regions"]
        self.assertEqual(sum(len(region["bbs"]) for region in regions.values()), 200_000)
        self.assertEqual(self.run_it("large.json"), (0, "large.html\n", ""))
        page = self.read("large.html")
        self.assertLess(len(page.encode()), 6_000_000)
        data = json.loads(re.search(r'<script[^>]* id="ceilview-data"[^>]*>(.*?)</script>', page, re.S)[1])
        listed = 0
        for shown in data["files"][0]["regions"]:
            count, executions, operations = (int(text) for text in shown["rest"])
            blocks = regions[shown["name"]]["bbs"]
            listed += len(shown["blocks"])
            self.assertEqual(len(shown["blocks"]) + count, len(blocks))
            self.assertEqual(sum(int(one[4]) for one in shown["blocks"]) + operations, regions[shown["name"]]["flop"])
            self.assertEqual(sum(int(one[2]) for one in shown["blocks"]) + executions, sum(one[5] for one in blocks))
        self.assertEqual(listed, 10_000)

    # Status 1.

    def test_wrong_command_line_is_told_and_writes_nothing(self):
        self.write("app.json", SMALL)
        for words in ([], ["--nonsense", "app.json"], ["--threads=0", "app.json"], ["--svg", "--csv", "app.json"],
                      ["--baseline=app.json"], ["--open", "--table", "app.json"]):
            status, out, err = self.run_it(*words)
            self.assertEqual((status, out), (1, ""), words)
            first, second, rest = err.split("\n", 2)
            self.assertTrue(first.startswith("ceilview: "), err)
            self.assertEqual((second, rest), ("ceilview: the options are listed by ceilview --help", ""))
        self.assertEqual(os.listdir(self.folder), ["app.json"])

    def test_output_that_is_an_input_is_refused(self):
        self.write("app.json", SMALL)
        os.symlink("app.json", self.path("link.html"))
        os.link(self.path("app.json"), self.path("hard.html"))
        for name in ("app.json", "./app.json", "link.html", "hard.html"):
            self.assertEqual(self.run_it("app.json", "-o", name),
                             (1, "", "ceilview: the output would replace the input app.json\n"))
        with open(self.path("app.json"), "ab") as file:
            status, _, err = self.run_it("app.json", "-o", "-", "--table")
            self.assertEqual(status, 0)
            done = subprocess.run([*command, "--table", "app.json"], stdout=file, stderr=subprocess.PIPE, check=False,
                                  cwd=self.folder, timeout=SECONDS)
            self.assertEqual(done.returncode, 1, err)
        self.assertEqual(json.loads(self.read("app.json")), SMALL)

    # Status 2.

    def test_file_that_is_not_there_is_named(self):
        self.assertEqual(self.run_it("missing.json"), (2, "", "ceilview: missing.json: No such file or directory\n"))

    def test_all_bad_files_are_named_and_no_good_one_is_shown(self):
        self.write("good.json", SMALL)
        status, out, err = self.run_it("missing.json", "good.json", "other.json", "--table")
        self.assertEqual((status, out), (2, ""))
        self.assertEqual(err.count("\n"), 2)

    def test_folder_device_and_file_that_may_not_be_read_are_refused(self):
        os.mkdir(self.path("folder"))
        self.assertEqual(self.run_it("folder"), (2, "", "ceilview: folder: Is a directory\n"))
        self.assertEqual(self.run_it("/dev/zero"), (2, "", "ceilview: /dev/zero: it is a device, not a result file\n"))
        if os.geteuid() != 0:
            os.chmod(self.write("secret.json", SMALL), 0)
            self.assertEqual(self.run_it("secret.json"), (2, "", "ceilview: secret.json: Permission denied\n"))

    def test_empty_file_and_white_space_are_refused(self):
        self.refuse(b"", ":1: ", "the file is empty")
        self.refuse(b" \n\n", "the file is empty")

    def test_program_picture_and_text_are_refused(self):
        self.refuse(b"\x7fELF\x02\x01\x01" + bytes(200))
        self.refuse(b"\x89PNG\r\n\x1a\n" + bytes(range(256)))
        self.refuse("CEILMETER: Start collection for ./app\n", ":1: ")
        self.refuse("<!DOCTYPE html><html></html>\n", ":1: ")

    def test_json_that_is_no_result_file_is_refused(self):
        for other in ("[]", "5", "null", '"text"', "{}", '{"name": "package", "version": "1"}', '{"regions": []}'):
            self.refuse(other)

    def test_cut_file_is_refused_with_the_line_of_the_cut(self):
        text = json.dumps(SMALL, indent=1)
        cut = text[:len(text) // 2]
        self.refuse(cut, f":{cut.count(chr(10)) + 1}: ")

    def test_every_cut_of_a_file_is_refused_or_shown_but_never_a_crash(self):
        with open(os.path.join(results, "all_phases.json"), "rb") as file:
            text = file.read()
        for size in range(0, len(text), 331):
            status, _, err = self.run_it("--table", self.write("cut.json", text[:size]))
            self.assertEqual(status, 2, (size, err))

    def test_quote_in_a_name_gets_a_hint(self):
        text = json.dumps(SMALL, indent=1).replace("/home/user/app", '/home/a"b/app')
        line = text[:text.index('a"b')].count("\n") + 1
        self.refuse(text, f":{line}: ", "quote")

    def test_nesting_bombs_are_refused(self):
        self.refuse("[" * 1_000_000, "nested deeper than")
        self.refuse('{"regions":' * 100_000, "nested deeper than")
        self.refuse('{"regions": {}, "x": ' + "[" * 65 + "]" * 65 + "}", "nested deeper than")

    def test_nul_bytes_are_refused(self):
        self.refuse(json.dumps(SMALL).encode().replace(b"total", b"to\0al"), ":1: ", "NUL")
        self.refuse(bytes(4096))

    # Status 3.

    def test_output_that_cannot_be_written_is_named_and_an_earlier_one_stays(self):
        self.write("app.json", SMALL)
        os.mkdir(self.path("folder"))
        self.assertEqual(self.run_it("app.json", "-o", "missing/page.html"),
                         (3, "", "ceilview: missing/page.html: No such file or directory\n"))
        self.assertEqual(self.run_it("app.json", "-o", "folder"), (3, "", "ceilview: folder: Is a directory\n"))
        self.assertEqual(self.run_it("app.json", "-o", "/dev/full"),
                         (3, "", "ceilview: /dev/full: No space left on device\n"))
        self.assertEqual(sorted(os.listdir(self.folder)), ["app.json", "folder"])

    def test_full_standard_output_is_a_failure(self):
        self.write("app.json", SMALL)
        for words in (["--table", "app.json"], ["--help"], ["--version"], ["-o", "-", "app.json"]):
            with open("/dev/full", "wb") as full:
                done = subprocess.run([*command, *words], stdout=full, stderr=subprocess.PIPE, check=False,
                                      cwd=self.folder, timeout=SECONDS)
            self.assertEqual((done.returncode, done.stderr.decode()),
                             (3, "ceilview: standard output: No space left on device\n"), words)

    def test_earlier_page_is_replaced_in_one_step_and_keeps_its_mode(self):
        self.write("app.json", SMALL)
        os.chmod(self.write("app.html", "old"), 0o600)
        inode = os.stat(self.path("app.html")).st_ino
        self.assertEqual(self.run_it("app.json")[0], 0)
        changed = os.stat(self.path("app.html"))
        self.assertNotEqual(changed.st_ino, inode)
        self.assertEqual(stat.S_IMODE(changed.st_mode), 0o600)
        self.write("bad.json", "{")
        before = self.read("app.html")
        self.assertEqual(self.run_it("bad.json", "-o", "app.html")[0], 2)
        self.assertEqual(self.read("app.html"), before)

    # Odd figures in a well-formed file are shown as they are. They cause no crash, and no number is made up.

    def odd(self, **changes):
        region = {**SMALL["regions"]["total"], **changes}
        path = self.write("odd.json", {**SMALL, "regions": {"total": region}})
        forms = {form: self.run_it(form, "-o", "-", path) for form in ("--table", "--csv", "--svg")}
        forms["page"] = self.run_it("-o", "-", path)
        for form, (status, out, err) in forms.items():
            self.assertEqual(status, 0, (form, err))
            # The page's script may well say NaN; its figures may not.
            number = r'="-?(nan|inf)"' if form == "page" else r'(?i)[\s"(,>=]-?(nan|inf)[\s"),<]'
            self.assertNotRegex(out, number, form)
        return forms["--table"][1]

    def test_figures_of_64_bits_and_beyond_are_survived(self):
        self.odd(flop=2**63 - 1, time=2**63 - 1, l1_bytes=2**63 - 1)
        self.odd(flop=2**64, l1_bytes=2**64 + 5, time=2**65)
        self.odd(time=1, flop=2**63 - 1)

    def test_negative_figures_are_survived(self):
        self.odd(flop=-1, time=-1, l1_bytes=-1, ddr_bytes=-2**63, threads=-4)

    def test_figures_of_another_type_are_survived(self):
        self.odd(flop="100", time="1000", l1_bytes=None, l2_bytes=[1], l3_bytes={"a": 1}, ddr_bytes=True, threads=1.5)
        self.odd(bbs="none")
        self.odd(bbs=[[], [1, 2, 3], {}, None, ["zz", "8", "0", "8", "4", "25", 2, 7]])
        self.odd(bbs=[["0", "8", "0", "8", 2**62, 2**62, 2, "/a"], ["8", "0", "8", "0", -4, -25, -2, "/a"]])

    def test_names_that_want_to_be_something_else_stay_text(self):
        name = "</script><img src=x onerror=alert(1)>=cmd|' /C calc'!A0\u202e\x1b[31m"
        region = SMALL["regions"]["total"]
        text = json.dumps({**SMALL, "regions": {name: region}}, ensure_ascii=False)
        path = self.write("odd.json", text.replace("\\u001b", "\x1b"))
        status, page, err = self.run_it("-o", "-", path)
        self.assertEqual((status, err), (0, ""))
        self.assertNotIn("<img", page)
        self.assertNotIn("\x1b", page)
        status, table, err = self.run_it("--table", path)
        self.assertEqual((status, err), (0, ""))
        self.assertNotIn("\x1b", table)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
