#!/usr/bin/python3
"""Installs the packages in the virtual machine, in a root that holds nothing but what the .deb depends on, and collects
there. The root is made of this machine's own arm64 packages: those that the .deb names and what these depend on.

clean_userland_test.py CPACK BUILD SOURCE

prepares a folder and runs clean_userland_inside.py on it in the machine.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

cpack, build, source = sys.argv[1:]


def output(words):
    return subprocess.run(words, capture_output=True, text=True, check=True).stdout


def arm64_package(name):
    """The package's name for dpkg: NAME, or NAME:arm64 on a machine of another architecture."""
    return name if output(["dpkg", "--print-architecture"]).strip() == "arm64" else f"{name}:arm64"


def names_in(depends):
    """The packages of a list of dependencies; the first one where there is a choice."""
    return [re.match(r"[a-z0-9.+-]+", one.strip())[0] for one in depends.split(",") if one.strip()]


def copy_into(root, package):
    """A package's files, and dpkg's list of them."""
    listed = output(["dpkg", "-L", arm64_package(package)]).splitlines()
    for path in listed:
        # Documents are left out, as small systems do; dpkg's list names them all the same.
        if path.startswith("/usr/share/"):
            continue
        # /lib is a link to /usr/lib.
        target = root + re.sub(r"^/(lib|bin|sbin)\b", r"/usr/\1", path)
        if not os.path.isdir(path):
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copy2(path, target, follow_symlinks=False)
    with open(f"{root}/var/lib/dpkg/info/{package}:arm64.list", "w", encoding="utf-8") as file:
        file.write("\n".join(listed) + "\n")


def make_root(root, wanted):
    for folder in ("usr/lib", "usr/bin", "usr/sbin", "var/lib/dpkg/info", "var/lib/dpkg/updates",
                   "var/lib/dpkg/triggers", "tmp", "proc", "etc"):
        os.makedirs(f"{root}/{folder}")
    for folder in ("lib", "bin", "sbin"):
        os.symlink(f"usr/{folder}", f"{root}/{folder}")
    done, stanzas = set(), []
    while wanted:
        package = wanted.pop()
        if package in done:
            continue
        done.add(package)
        stanza = output(["dpkg-query", "-s", arm64_package(package)])
        stanzas.append(stanza)
        for field in re.findall(r"^(?:Pre-)?Depends: (.*)$", stanza, re.M):
            wanted += names_in(field)
        copy_into(root, package)
    with open(f"{root}/var/lib/dpkg/status", "w", encoding="utf-8") as file:
        file.write("\n".join(stanzas))
    return done


def main():
    with tempfile.TemporaryDirectory(prefix="clean_userland_") as folder:
        subprocess.run([cpack, "-G", "DEB;TGZ", "--config", f"{build}/CPackConfig.cmake", "-B", folder], check=True,
                       stdout=subprocess.DEVNULL)
        shutil.rmtree(f"{folder}/_CPack_Packages", ignore_errors=True)
        deb = next(name for name in os.listdir(folder) if name.endswith(".deb"))
        depends = output(["dpkg-deb", "-f", f"{folder}/{deb}", "Depends"])
        packages = make_root(f"{folder}/root", names_in(depends))
        print("the clean root holds " + ", ".join(sorted(packages)), flush=True)
        return subprocess.run([f"{source}/tools/vm/run", "--build", build, "--share", f"packages={folder}",
                               "--timeout", "300", "--", "python3",
                               "/src/tests/system/product/clean_userland_inside.py"], check=False).returncode


sys.exit(main())
