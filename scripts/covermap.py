#!/usr/bin/env python3
"""Which test executes which line: runs every unit and end-to-end test of a coverage build
(CVINST_COVERAGE) on its own, with its counters written under a directory of its own
(GCOV_PREFIX), and writes a JSON map of test name -> {source file: [executed lines]} for the
sources of runtime/, installer/ and tools/.

  scripts/covermap.py BUILD-COV OUT.json [--jobs N] [--only REGEX]
  scripts/covermap.py --report OUT.json     lines executed by exactly one test, per test

mutate.sh --covering uses the map to run, for each fault, only the end-to-end tests that
execute its line; the report names the tests that are the only one to execute some line.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

SOURCES = re.compile(r"^(runtime|installer|tools)/.*(?<!_test)\.(cpp|h)$")


def list_tests(build, only):
    out = subprocess.run(["ctest", "--test-dir", build, "-N", "-L", "^(unit|e2e)$",
                          "--show-only=json-v1"], capture_output=True, text=True, check=True).stdout
    names = [t["name"] for t in json.loads(out)["tests"]]
    return [n for n in names if not only or re.search(only, n)]


def run_one(build, root, scratch, index, name, object_dirs):
    prefix = os.path.join(scratch, str(index))
    # Programs that a test runs as uid 65534 write their counters too.
    for d in object_dirs:
        os.makedirs(prefix + d, exist_ok=True)
    for dirpath, dirs, _ in os.walk(prefix):
        os.chmod(dirpath, 0o777)
    env = dict(os.environ, GCOV_PREFIX=prefix)
    proc = subprocess.run(["ctest", "--test-dir", build, "-R", "^%s$" % re.escape(name), "--timeout", "300"],
                          env=env, capture_output=True, text=True)
    lines = collections.defaultdict(set)
    for d in object_dirs:
        here = prefix + d
        gcdas = [f for f in os.listdir(here) if f.endswith(".gcda")] if os.path.isdir(here) else []
        if not gcdas:
            continue
        for f in gcdas:
            gcno = os.path.join(d, f[:-5] + ".gcno")
            if os.path.exists(gcno):
                shutil.copy(gcno, here)
        text = subprocess.run(["gcov", "-t"] + gcdas, cwd=here, capture_output=True, text=True).stdout
        source = None
        for row in text.splitlines():
            parts = row.split(":", 2)
            if len(parts) < 3:
                continue
            count, lineno = parts[0].strip(), parts[1].strip()
            if lineno == "0" and parts[2].startswith("Source:"):
                source = os.path.relpath(parts[2][len("Source:"):], root)
                continue
            if source and SOURCES.match(source) and count[:1].isdigit():
                lines[source].add(int(lineno))
    shutil.rmtree(prefix, ignore_errors=True)
    return name, proc.returncode, {f: sorted(v) for f, v in lines.items()}


def build_map(args):
    build = os.path.realpath(args.build)
    root = os.path.realpath(os.path.join(os.path.dirname(__file__), ".."))
    object_dirs = sorted({dirpath for dirpath, _, files in os.walk(build)
                          if any(f.endswith(".gcno") for f in files)})
    tests = list_tests(build, args.only)
    scratch = tempfile.mkdtemp(prefix="covermap.")
    os.chmod(scratch, 0o755)
    result, failed = {}, []
    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        futures = [pool.submit(run_one, build, root, scratch, i, n, object_dirs) for i, n in enumerate(tests)]
        for done, future in enumerate(concurrent.futures.as_completed(futures), 1):
            name, status, lines = future.result()
            result[name] = lines
            if status != 0:
                failed.append(name)
            print("\r%d/%d" % (done, len(tests)), end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)
    shutil.rmtree(scratch, ignore_errors=True)
    with open(args.out, "w") as fh:
        json.dump({"tests": result, "failed": failed}, fh)
    print("%d tests mapped, %d failed%s" % (len(result), len(failed), ": " + ", ".join(failed) if failed else ""))
    return 1 if failed else 0


def report(path):
    with open(path) as fh:
        tests = json.load(fh)["tests"]
    by_line = collections.defaultdict(list)
    for name, files in tests.items():
        for f, lines in files.items():
            for n in lines:
                by_line[(f, n)].append(name)
    alone = collections.defaultdict(list)
    for key, names in by_line.items():
        if len(names) == 1:
            alone[names[0]].append(key)
    print("%-80s %6s %6s" % ("test", "lines", "alone"))
    for name in sorted(tests, key=lambda n: (len(alone[n]), n)):
        print("%-80s %6d %6d" % (name, sum(len(v) for v in tests[name].values()), len(alone[name])))
    return 0


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("build", nargs="?")
    p.add_argument("out", nargs="?")
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--only", default="")
    p.add_argument("--report")
    args = p.parse_args()
    if args.report:
        return report(args.report)
    if not args.build or not args.out:
        p.error("BUILD-COV and OUT.json are needed")
    return build_map(args)


if __name__ == "__main__":
    sys.exit(main())
