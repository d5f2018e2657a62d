#!/usr/bin/env python3
# The committed part of D3 is what its packages give: page_library_test.py SOURCE_TREE WORK_FOLDER
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

TOP = pathlib.Path(sys.argv[1])
WORK = pathlib.Path(sys.argv[2])
COMMITTED = TOP / "third_party" / "d3"


class PageLibrary(unittest.TestCase):
    def test_the_locked_packages_build_the_committed_files(self):
        npm, node = shutil.which("npm"), shutil.which("node")
        self.assertTrue(npm and node, "npm or node is not on this machine; scripts/setup test installs them")
        shutil.rmtree(WORK, ignore_errors=True)
        shutil.copytree(TOP / "tools" / "page", WORK, ignore=shutil.ignore_patterns("node_modules"))
        subprocess.run([npm, "ci", "--ignore-scripts"], cwd=WORK, check=True)
        subprocess.run([node, "build.mjs", str(WORK / "built")], cwd=WORK, check=True)
        for name in ("d3.js", "LICENSE"):
            built, committed = (WORK / "built" / name).read_bytes(), (COMMITTED / name).read_bytes()
            self.assertTrue(built == committed, f"{name}: {len(built)} bytes built, {len(committed)} committed")

    def test_nothing_in_it_makes_code_of_text(self):
        script = (COMMITTED / "d3.js").read_text(encoding="ascii")
        self.assertNotRegex(script, r"\beval\b|\bFunction\(|document\.write|</script")

    def test_lock_files_name_no_registry(self):
        for folder in ("tools/page", "tests/view/browser"):
            lock = (TOP / folder / "package-lock.json").read_text(encoding="utf-8")
            self.assertNotRegex(lock, r'"resolved"')
            self.assertFalse([url for url in re.findall(r'https?://[^"]+', lock) if "/-/" in url])
            self.assertRegex(lock, r'"integrity"')

    def test_the_pages_own_script_is_small_and_writes_texts_only(self):
        parts = [path.read_text(encoding="ascii") for path in sorted((TOP / "src/view/page").glob("*.js"))]
        self.assertEqual(len(parts), 4)
        script = "".join(parts)
        self.assertNotRegex(script, r"innerHTML|outerHTML|insertAdjacentHTML|document\.write|\beval\b|\bFunction\(")
        # Comments and indentation do not reach the page.
        shipped = "".join(re.sub(r"^\s*(//.*)?\n?", "", line) for line in script.splitlines(keepends=True))
        self.assertLess(len(shipped), 25_000)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
