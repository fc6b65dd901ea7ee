#!/usr/bin/env python3
"""Plants faults in the library and its stand-in, one at a time, and tells which of them the tests notice.

  scripts/mutate.py [--count N] [--seed S] [FILE ...]

Works on a copy of the tracked files, built once. A fault is one small change in a line of code (a comparison, an
operator, a constant, a condition turned round, a statement taken out). What does not compile, or leaves the object
code as it was, is not counted. The tests run with a time limit, as a user of their own without rights and in
process numbers of their own, so that a fault in code that sends signals reaches nothing else.
Prints every survivor as file, line and change, and the share noticed by file. Same seed, same faults.
"""
import argparse
import collections
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

USER = 61234  # nobody's, and not the one that daemons share
FIRST = {  # the tests of a family; then all the others
    "string": ["text_test"], "simd": ["simd_test", "text_test", "video_test"], "video": ["video_test"],
    "audio": ["audio_test"], "ini": ["ini_test", "failure_test"], "process": ["process_test"],
    "signal": ["signal_test"], "timer": ["timer_test"], "usage": ["usage_test"], "userdata": ["userdata_test"],
    "reader": ["reader_test"], "platform": ["basecheck"],
}

# What is looked for in code whose comments and texts are blanked out, and what takes its place. Binary operators
# stand between spaces here, which tells them from template arguments, references and pointers.
SWAPS = [
    (r" < ", [" <= ", " >= "]), (r" <= ", [" < "]), (r" > ", [" >= ", " <= "]), (r" >= ", [" > "]),
    (r" == ", [" != "]), (r" != ", [" == "]), (r" && ", [" || "]), (r" \|\| ", [" && "]),
    (r" \+ ", [" - "]), (r" - ", [" + "]), (r" \* ", [" / "]), (r" / ", [" * "]), (r" % ", [" / "]),
    (r" << ", [" >> "]), (r" >> ", [" << "]), (r" & ", [" | "]), (r" \| ", [" & "]), (r" \^ ", [" & "]),
    (r" \+= ", [" -= "]), (r" -= ", [" += "]), (r" \|= ", [" &= "]), (r" &= ", [" |= "]),
    (r"\+\+", ["--"]), (r"--", ["++"]), (r"(?<=[(\s])!(?=[\w(])", [""]), (r"(?<=[(\s])~(?=[\w(])", [""]),
    (r"\btrue\b", ["false"]), (r"\bfalse\b", ["true"]), (r"\bbreak;", [";"]), (r"\bcontinue;", [";"]),
]
NUMBER = re.compile(r"(?<![\w.])(0[xX][0-9A-Fa-f]+|\d+)(?=[uUlL]*\b)(?!\.)")
CONDITION = re.compile(r"\b(?:if|while) \((.+)\) (?:\{|\S.*;)$|\b(?:if|while) \((.+)\)$")
STATEMENT = re.compile(r"^\s*(?!return|using|typedef|static|else|case|default|goto|delete|break|continue)"
                       r"(?:[\w:.>\[\]*-]+\(.*\)|[\w.>\[\]*()-]+ [-+*/|&^]?= .*|(?:\+\+|--)\w+);$")
NO_CODE = re.compile(r"^\s*(?:#|\}|static_assert|using |typedef |namespace |template |extern )")

Fault = collections.namedtuple("Fault", "file line before after")
Test = collections.namedtuple("Test", "target program command")


def blank_comments_and_texts(source):
    """The source with every comment, text and character as blanks, each in its place."""
    pattern = r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\''
    return re.sub(pattern, lambda found: re.sub(r"[^\n]", " ", found[0]), source, flags=re.S)


def changes(code):
    """Every (start, end, replacement) to be made in a line of code."""
    if not code.strip() or NO_CODE.match(code):
        return
    for pattern, replacements in SWAPS:
        for found in re.finditer(pattern, code):
            for replacement in replacements:
                yield found.start(), found.end(), replacement
    for found in NUMBER.finditer(code):
        digits = found[0].lower()
        value = int(digits, 16 if digits.startswith("0x") else 8 if digits.startswith("0") else 10)
        for other in {value + 1, max(value - 1, 0)} - {value}:
            yield found.start(), found.end(), str(other)
    found = CONDITION.search(code)
    if found:
        group = 1 if found[1] else 2
        yield found.start(group), found.end(group), "!({})"
    if STATEMENT.match(code):
        yield len(code) - len(code.lstrip()), len(code), ";"


def faults_of(root, file):
    source = (root / file).read_text()
    lines = source.split("\n")
    for index, code in enumerate(blank_comments_and_texts(source).split("\n")):
        for start, end, replacement in changes(code):
            line = lines[index]
            after = line[:start] + replacement.replace("{}", line[start:end]) + line[end:]
            yield Fault(file, index + 1, line, after)


class Build:
    """The copy of the tree, its build and its tests."""

    def __init__(self, root):
        self.root = root
        self.folder = root / "build" / "mutate"
        subprocess.run(["cmake", "-S", root, "-B", self.folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                        "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1", "-DQMX_BUILD_EXAMPLES=OFF"],
                       check=True, stdout=subprocess.DEVNULL)
        self.make("src/all", "qmxutil_plain_objects", "platform/all", "tests/all", "fuzz/all", "qmxutil_command",
                  check=True)
        self.made = {path: path.stat().st_mtime_ns for path in self.compiled()}
        shutil.copytree(self.folder, root / "made", symlinks=True)
        self.tests = {path.name: Test(path.name, path, [path, "--gtest_fail_fast", "--gtest_brief=1"])
                      for path in sorted((self.folder / "tests").iterdir())
                      if re.search(r"_test(_plain)?$", path.name)}
        for path in sorted((self.folder / "fuzz").glob("*_seeds")):
            self.tests[path.name] = Test(path.name, path, [path, root / "fuzz" / "corpus" / path.name[:-6]])
        tool, deviating = self.folder / "tools" / "qmxutil", self.folder / "tests" / "deviating_command"
        recording = root / "tests" / "data" / "timed-metadata.mov"
        self.tests["basecheck"] = Test("qmxutil_command", tool, [
            "sh", "-c", '"$0" basecheck --limit 60 --media "$1" | grep -q " hold, 0 differ, 0 differ "', tool, recording])
        for name in ("tools", "streams"):
            script = root / "tests" / f"{name}_command_test.sh"
            self.tests[name] = Test("qmxutil_command", tool, [script, tool])
        self.tests["deviations"] = Test("deviating_command", deviating, [root / "tests" / "basecheck_test.sh",
                                                                       deviating])
        self.home = root / "home"
        self.home.mkdir()
        if os.getuid() == 0:
            os.chown(self.home, USER, USER)
        self.limits = {}
        for name in self.tests:
            started = time.monotonic()
            if not self.passes(name, 300):
                sys.exit(f"mutate.py: {name} fails without any fault")
            self.limits[name] = 10 + 5 * (time.monotonic() - started)

    def make(self, *targets, check=False):
        command = ["ninja", "-C", self.folder, "-j", str(os.cpu_count()), *targets]
        return subprocess.run(command, check=check, stdout=subprocess.DEVNULL).returncode == 0

    def compiled(self):
        """What is made of src/ and platform/: objects, those of the plain kernels too, and libraries."""
        return [path for part in ("src", "platform") for path in sorted((self.folder / part).rglob("*"))
                if re.search(r"\.o$|\.so[.\d]*$", path.name) and not path.is_symlink()]

    def compile(self):
        """Whether the source compiles, and to other objects than before."""
        return self.make("src/all", "qmxutil_plain_objects", "platform/all") and any(
            path.suffix == ".o" and path.read_bytes() != self.as_made(path).read_bytes() for path in self.changed())

    def changed(self):
        return [path for path, when in self.made.items() if not path.exists() or path.stat().st_mtime_ns != when]

    def as_made(self, path):
        return self.root / "made" / path.relative_to(self.folder)

    def restore(self):
        """Everything as it was made first, so that the next fault costs one compilation."""
        for path in self.changed():
            shutil.copy2(self.as_made(path), path)
        for test in self.tests.values():  # linked with what is now gone
            test.program.unlink(missing_ok=True)

    def passes(self, name, limit):
        guard = ["unshare", "--pid", "--fork", "--mount-proc", "--kill-child"]
        if os.getuid() == 0:
            guard += ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups", "--no-new-privs"]
        else:
            guard.insert(1, "--map-current-user")
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.home), "TMPDIR": str(self.home)}
        tests = subprocess.Popen([*guard, *self.tests[name].command], cwd=self.home, env=environment,
                                 start_new_session=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        try:
            return tests.wait(limit) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            if tests.poll() is None:
                os.killpg(tests.pid, signal.SIGKILL)  # the first of the process numbers goes, and all others with it
                tests.wait()

    def noticed_by(self, file):
        """The first test that notices, or None. What is not linked yet is linked as it is needed."""
        first = [name for part, names in FIRST.items() if part in file for name in names]
        for name in sorted(self.tests, key=lambda name: (name not in first, "_test" not in name, "plain" in name)):
            if not self.make(self.tests[name].target) or not self.passes(name, self.limits[name]):
                return name
        return None


def try_fault(build, fault):
    """Whether the fault counts, and who notices it."""
    path = build.root / fault.file
    original, when = path.read_text(), path.stat()
    lines = original.split("\n")
    lines[fault.line - 1] = fault.after
    path.write_text("\n".join(lines))
    try:
        return (True, build.noticed_by(fault.file)) if build.compile() else (False, None)
    finally:
        path.write_text(original)
        os.utime(path, ns=(when.st_atime_ns, when.st_mtime_ns))
        build.restore()


def copy_of_tree(folder):
    source = Path(__file__).resolve().parent.parent
    files = subprocess.run(["git", "-C", source, "ls-files", "-z"], check=True, stdout=subprocess.PIPE)
    for name in files.stdout.decode().rstrip("\0").split("\0"):
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(source / name, folder / name, follow_symlinks=False)


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--count", type=int, default=200, help="faults that count (200)")
    options.add_argument("--seed", type=int, default=1)
    options.add_argument("files", nargs="*", metavar="FILE", help="source files, else all of src/ and platform/")
    wanted = options.parse_args()
    if subprocess.run(["unshare", "--pid", "--fork", "--mount-proc"] + ["--map-current-user"] * (os.getuid() != 0)
                      + ["true"], stderr=subprocess.DEVNULL).returncode != 0:
        sys.exit("mutate.py: process numbers of their own (unshare --pid) are not permitted here, and without them "
                 "a fault can signal everything that this user runs")
    with tempfile.TemporaryDirectory(prefix="qmxutil-mutate-") as folder:
        root = Path(folder)
        root.chmod(0o755)
        copy_of_tree(root)
        build = Build(root)
        sources = wanted.files or sorted(str(path.relative_to(root)) for part in ("src", "platform")
                                         for path in (root / part).rglob("*") if path.suffix in (".h", ".cpp"))
        faults = [fault for file in sources for fault in faults_of(root, file)]
        random.Random(wanted.seed).shuffle(faults)
        noticed, counted = collections.Counter(), collections.Counter()
        for fault in faults:
            if counted.total() == wanted.count:
                break
            counts, test = try_fault(build, fault)
            counted[fault.file] += counts
            noticed[fault.file] += test is not None
            if counts and test is None:
                print(f"survived: {fault.file}:{fault.line}\n  - {fault.before.strip()}\n  + {fault.after.strip()}",
                      flush=True)
        for file in sorted(+counted):
            print(f"{noticed[file]:4} of {counted[file]:4} noticed  {file}")
        print(f"{noticed.total():4} of {counted.total():4} noticed")


if __name__ == "__main__":
    main()
