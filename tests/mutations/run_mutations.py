#!/usr/bin/python3
"""Breaks the product in one place after another, and shows whether the suite notices.

    run_mutations.py FOLDER [--list] [NAME...]

Works on a copy of the tracked sources in FOLDER/source, which is built in FOLDER/build and, for what
is Windows' only, FOLDER/build-windows. They are kept for the next run. Ends with "N passed, N
failed": a mutation that survives has failed."""
import argparse
import os
import shutil
import subprocess
import sys
import time

from mutations import MUTATIONS

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# Mutations may hang: their tests may take this many seconds, or this many times what they take if
# nothing is broken, whichever is more.
PATIENCE = 45
PATIENCE_FACTOR = 5


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def run(command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode != 0:
        raise RuntimeError(done.stdout.decode(errors="replace")[-3000:])


def update(source):
    """Makes the folder a copy of the tracked sources."""
    listed = subprocess.run(["git", "-C", ROOT, "ls-files", "-z"], check=True,
                            stdout=subprocess.PIPE).stdout.decode().split("\0")
    tracked = {name for name in listed if os.path.isfile(os.path.join(ROOT, name))}
    for name in tracked:
        origin, copied = os.path.join(ROOT, name), os.path.join(source, name)
        os.makedirs(os.path.dirname(copied), exist_ok=True)
        if os.path.exists(copied):
            with open(origin, "rb") as left, open(copied, "rb") as right:
                if left.read() == right.read():
                    continue
        shutil.copy(origin, copied)
    for folder, _, names in os.walk(source):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.relpath(path, source) not in tracked:
                os.remove(path)


class Build:
    """A build of the copy, and its test programs."""

    OPTIONS = ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g0 -w"]
    runner = []
    suffix = ""
    environment = None

    def __init__(self, source, folder):
        self.folder = folder
        run(["cmake", "-G", "Ninja", "-S", source, "-B", folder, *self.OPTIONS])

    def end(self):
        pass

    def compile(self, programs):
        run(["ninja", "-C", self.folder, *sorted(programs)])

    def refusal(self, program):
        """Why the program does not compile, if it is for a static assertion; empty if it does."""
        try:
            self.compile([program])
        except RuntimeError as problem:
            if "static assertion failed" not in str(problem):
                raise
            return "a static assertion"
        return ""

    def failed_tests(self, program, tests, limit=600):
        """What failed; empty if everything passed. Raises if no test ran."""
        command = [*self.runner, os.path.join(self.folder, "bin", program + self.suffix),
                   f"--gtest_filter={tests}", "--gtest_fail_fast", "--gtest_brief=1"]
        try:
            done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  env=self.environment, timeout=limit)
        except subprocess.TimeoutExpired:
            return "the tests do not end"
        lines = done.stdout.decode(errors="replace").splitlines()
        if "[==========] 0 tests from 0 test suites ran." in "\n".join(lines):
            raise RuntimeError(f"{program} has no test {tests}")
        if done.returncode == 0:
            return ""
        failed = [line.split("]")[1].split("(")[0].strip() for line in lines
                  if line.startswith("[  FAILED  ]") and "." in line]
        return failed[0].rstrip(",") if failed else f"{program} ended with {done.returncode}"


class WindowsBuild(Build):
    """Made by the cross compiler; the programs are run by Wine."""

    OPTIONS = Build.OPTIONS + [
        "--toolchain", os.path.join(ROOT, "cmake", "mingw-w64.cmake")]
    runner = ["wine"]
    suffix = ".exe"

    def __init__(self, source, folder):
        super().__init__(source, folder)
        self._prefix = os.path.join(folder, "wine-prefix")
        self.environment = {
            name: value for name, value in os.environ.items()
            if name not in ("DISPLAY", "WAYLAND_DISPLAY")}
        self.environment.update(
            WINEPREFIX=self._prefix, WINEARCH="win64", WINEDEBUG="-all", LC_ALL="C.UTF-8",
            WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe,winedbg.exe=")
        self._wine_prefix("make")

    def end(self):
        self._wine_prefix("remove")

    def _wine_prefix(self, action):
        run([os.path.join(ROOT, "tests", "wine_prefix.sh"), action, self._prefix],
            env=self.environment)

    def failed_tests(self, program, tests, limit=600):
        try:
            return super().failed_tests(program, tests, limit)
        finally:  # the program of a run that was broken off is not Wine's child
            subprocess.run(["wineserver", "-k"], env=self.environment, check=False)


def try_mutation(source, build, mutation, limit):
    """The failures that the suite noticed; empty if none."""
    path = os.path.join(source, mutation.file)
    original = read(path)
    if original.count(mutation.old) != 1:
        raise RuntimeError(f"{mutation.file} has the text to replace "
                           f"{original.count(mutation.old)} times")
    write(path, original.replace(mutation.old, mutation.new))
    try:
        return (build.refusal(mutation.program) or
                build.failed_tests(mutation.program, mutation.tests, limit))
    finally:
        write(path, original)


def play(source, build, chosen):
    """How many of the mutations, which are all of one build, failed."""
    build.compile({mutation.program for mutation in chosen})
    limits = {}
    for program, tests in sorted({(mutation.program, mutation.tests) for mutation in chosen}):
        begin = time.monotonic()
        noticed = build.failed_tests(program, tests)
        if noticed:
            raise RuntimeError(f"{program}, not broken: {noticed}")
        limits[program, tests] = max(PATIENCE, PATIENCE_FACTOR * (time.monotonic() - begin))
    failed = 0
    for mutation in chosen:
        begin = time.monotonic()
        try:
            noticed = try_mutation(source, build, mutation,
                                   limits[mutation.program, mutation.tests])
            verdict = f"caught by {noticed}" if noticed else f"SURVIVED: {mutation.rule}"
        except RuntimeError as problem:
            noticed, verdict = "", f"not tried: {problem}"
        failed += not noticed
        print(f"{mutation.name:32} {time.monotonic() - begin:4.0f} s  {verdict}", flush=True)
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("names", nargs="*")
    arguments = parser.parse_args()
    known = {mutation.name: mutation for mutation in MUTATIONS}
    unknown = [name for name in arguments.names if name not in known]
    if unknown:
        sys.exit(f"there is no mutation '{unknown[0]}'; --list shows them")
    chosen = [known[name] for name in arguments.names] or list(MUTATIONS)
    if arguments.list:
        for mutation in chosen:
            print(f"{mutation.name:32} {mutation.rule}")
        return
    source = os.path.join(arguments.folder, "source")
    update(source)
    failed = 0
    for kind, folder, windows in (Build, "build", False), (WindowsBuild, "build-windows", True):
        own = [mutation for mutation in chosen if mutation.windows == windows]
        if not own:
            continue
        build = kind(source, os.path.join(arguments.folder, folder))
        try:
            failed += play(source, build, own)
        except RuntimeError as problem:
            sys.exit(str(problem))
        finally:
            build.end()
    print(f"{len(chosen) - failed} passed, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
