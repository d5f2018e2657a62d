#!/usr/bin/env python3
# Installs what the browser's tests need from the lock file, into the build tree, and runs them:
#   run.py SOURCE_FOLDER WORK_FOLDER CEILVIEW [ARGUMENT]...      the last: how to start ceilview
import json
import os
import pathlib
import shutil
import subprocess
import sys


def main():
    source, work, ceilview = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3:]
    programs = {name: shutil.which(name) for name in ("node", "npm", "chromium")}
    missing = [name for name, path in programs.items() if path is None]
    if missing:
        sys.exit(f"not on this machine: {', '.join(missing)}; scripts/setup test installs it")
    work.mkdir(parents=True, exist_ok=True)
    for path in source.iterdir():
        if path.is_file():
            shutil.copy2(path, work)
    # Installing takes time, so it is left out if the lock file has not changed since.
    lock = (source / "package-lock.json").read_text(encoding="utf-8")
    stamp = work / "installed.json"
    if not stamp.exists() or stamp.read_text(encoding="utf-8") != lock:
        subprocess.run([programs["npm"], "ci", "--ignore-scripts"], cwd=work, check=True)
        stamp.write_text(lock, encoding="utf-8")
    environment = dict(os.environ, CEILVIEW=json.dumps(ceilview), CHROMIUM=programs["chromium"], LC_ALL="C.UTF-8")
    command = [programs["node"], "--test", "--test-reporter=spec", str(work / "pages.test.mjs")]
    return subprocess.run(command, cwd=work, env=environment, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
