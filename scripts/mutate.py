#!/usr/bin/env python3
"""Fault planting for scripts/mutate.sh (standard library only).

A fault is one rewrite of one source line. It is identified by the file, the exact text of the
line, which occurrence of that text in the file it is, the rule and the column, so that a sample
drawn on one revision can be planted again on a later one in which lines have moved. A fault
whose line text no longer exists there is "gone".

Sub-commands (mutate.sh calls them; they also work by hand):
  list    SRC                       every candidate fault of the tree, one JSON object a line
  sample  SRC --seed N --size N     a seeded sample of the candidates, written to --out
  suite   BUILD                     run the test suite once (what a fault is judged by)
  run     SRC BUILD SAMPLE RESULTS  plant each fault, rebuild, run the suite, record the outcome
  restore SRC PRISTINE              put back the files an interrupted run left faulty
  report  RESULTS                   figures and the missed faults of one run
  compare A B                       caught before and after on the faults both runs planted
  matrix  RESULTS                   which test catches which fault (a run with --every)
"""

import argparse
import collections
import ctypes
import hashlib
import json
import os
import random
import re
import shutil
import signal
import statistics
import subprocess
import sys
import time

SOURCE_DIRS = ("runtime", "installer", "tools")

# ---------------------------------------------------------------------------------------------
# Reading C++ lines: comments, string and character literals are blanked so that the rules only
# ever see code. Columns stay those of the original line.


def mask_source(text):
    """Returns the lines of text with comments replaced by blanks and the insides of string and
    character literals replaced by '_', plus a flag per line telling whether it belongs to a
    preprocessor directive."""
    out = []
    i, n = 0, len(text)
    in_block = False
    while i < n:
        c = text[i]
        if in_block:
            if text.startswith("*/", i):
                out.append("  ")
                i += 2
                in_block = False
            else:
                out.append(c if c == "\n" else " ")
                i += 1
        elif text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            out.append(" " * (j - i))
            i = j
        elif text.startswith("/*", i):
            out.append("  ")
            i += 2
            in_block = True
        elif c == 'R' and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            open_paren = text.find("(", i + 2)
            delim = text[i + 2:open_paren]
            close = text.find(")" + delim + '"', open_paren)
            end = n if close < 0 else close + len(delim) + 2
            out.append("".join(ch if ch == "\n" else "_" for ch in text[i:end]))
            i = end
        elif c in "\"'":
            if c == "'" and i > 0 and text[i - 1].isalnum() and text[i - 1] not in "uUL":
                out.append(c)  # digit separator
                i += 1
                continue
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j, n - 1)
            out.append(c + "_" * (j - i - 1) + c)
            i = j + 1
        else:
            out.append(c)
            i += 1
    masked = "".join(out).split("\n")
    preproc = []
    continued = False
    for line in masked:
        is_pp = continued or line.lstrip().startswith("#")
        preproc.append(is_pp)
        continued = is_pp and line.rstrip().endswith("\\")
    return masked, preproc


# ---------------------------------------------------------------------------------------------
# The rule table. Each rule looks at one masked line and yields (column, original, replacement).

CMP_SWAP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
TYPE_START = re.compile(
    r"^\s*(?:static\s+|const\s+|constexpr\s+|unsigned\s+|signed\s+|volatile\s+)*"
    r"(?:char|int|long|short|bool|float|double|size_t|ssize_t|u?int\d+_t|[A-Z]\w*|std::\w+)\b[\s*&]*\w+\s*\[")
DECL_START = re.compile(
    r"^(?:static|const|constexpr|extern|auto|struct|class|enum|union|typedef|using|namespace|"
    r"template|unsigned|signed|char|int|long|short|bool|float|double|void|size_t|u?int\d+_t)\b")
STATEMENT = [
    # a call: f(...); obj.f(...); p->f(...); ns::f(...);
    re.compile(r"^(?:\(void\)!?\s*)?[A-Za-z_][\w:]*(?:\s*(?:\.|->)\s*\w+|\[[^\]]*\])*\s*\(.*\)\s*;$"),
    # an assignment, plain or compound, to a name, member, element or dereference
    re.compile(r"^\**[A-Za-z_][\w:]*(?:\s*(?:\.|->)\s*\w+|\[[^\]]*\])*\s*(?:[-+*/%|&^]|<<|>>)?=(?!=).*;$"),
    # increment or decrement
    re.compile(r"^(?:\+\+|--)\**[A-Za-z_][\w.\->\[\]]*\s*;$"),
    re.compile(r"^\**[A-Za-z_][\w.\->\[\]]*(?:\+\+|--)\s*;$"),
    re.compile(r"^delete(?:\[\])?\s+\w[\w.\->\[\]]*\s*;$"),
]


def rule_cmp(m, ctx):
    for x in re.finditer(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)", m):
        if m[:x.start()].rstrip().endswith("operator"):
            continue
        yield x.start(), x.group(1), CMP_SWAP[x.group(1)]


def rule_logic(m, ctx):
    for x in re.finditer(r"(?<=\s)(&&|\|\|)(?=\s)", m):
        yield x.start(), x.group(1), "||" if x.group(1) == "&&" else "&&"


def rule_not(m, ctx):
    for x in re.finditer(r"(?<![\w)\]!])!(?![=!])", m):
        yield x.start(), "!", ""


def rule_arith(m, ctx):
    for x in re.finditer(r"(?<=[\w)\]] )([-+])(?= [\w(])", m):
        yield x.start(), x.group(1), "-" if x.group(1) == "+" else "+"


def rule_return(m, ctx):
    swaps = {"0": "1", "1": "0", "-1": "0", "true": "false", "false": "true"}
    x = re.search(r"\breturn\s+(-1|0|1|true|false)\s*;", m)
    if x:
        yield x.start(1), x.group(1), swaps[x.group(1)]


def rule_boolean(m, ctx):
    if re.search(r"\breturn\s+(?:true|false)\s*;", m):
        return  # the return rule covers it
    for x in re.finditer(r"\b(true|false)\b", m):
        yield x.start(), x.group(1), "false" if x.group(1) == "true" else "true"


def _shift_literal(token, delta):
    body = token.rstrip("uUlL")
    suffix = token[len(body):]
    if body[:2] in ("0x", "0X"):
        value = int(body, 16) + delta
        digits = format(abs(value), "X" if any(ch.isupper() for ch in body[2:]) else "x")
        text = body[:2] + digits
    elif len(body) > 1 and body[0] == "0":
        value = int(body, 8) + delta
        text = "0" + format(abs(value), "o")
    else:
        value = int(body) + delta
        text = str(abs(value))
    return ("-" if value < 0 else "") + text + suffix


def rule_constant(m, ctx):
    # The size in the brackets of an array being declared is left alone: one byte more or less
    # of buffer is rarely a fault anyone could see.
    skip = (-1, -1)
    if TYPE_START.match(m):
        open_at = m.index("[")
        skip = (open_at, m.find("]", open_at))
    for x in re.finditer(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])", m):
        if skip[0] < x.start() < skip[1]:
            continue
        # One fault per literal, one higher or one lower, chosen by a hash of the place so that
        # constants do not outnumber every other kind of fault.
        token = x.group(0)
        up = hashlib.sha1(("%s@%d" % (m, x.start())).encode()).digest()[0] & 1
        yield x.start(), token, _shift_literal(token, 1 if up else -1), "const+1" if up else "const-1"


def rule_drop(m, ctx):
    body = m.strip()
    if not body.endswith(";") or body.count("(") != body.count(")") or "{" in body or "}" in body:
        return
    if DECL_START.match(body) or body.startswith(("return", "break", "continue", "goto", "case",
                                                  "default", "if", "else", "for", "while", "do",
                                                  "switch", "public", "private", "protected")):
        return
    if not ctx["starts_statement"]:
        return
    if any(p.match(body) for p in STATEMENT):
        yield len(m) - len(m.lstrip()), m.strip(), ";"


# Order matters where two rules give the same rewrite: the first one named keeps it.
RULES = [("return", rule_return), ("cmp", rule_cmp), ("logic", rule_logic), ("not", rule_not),
         ("bool", rule_boolean), ("arith", rule_arith), ("const", rule_constant), ("drop", rule_drop)]


def source_files(src):
    files = []
    for top in SOURCE_DIRS:
        base = os.path.join(src, top)
        if not os.path.isdir(base):
            continue
        # tools/ holds one folder per program: every level is walked.
        for root, dirs, names in os.walk(base):
            dirs.sort()
            for name in sorted(names):
                if name.endswith(".cpp") and not name.endswith("_test.cpp"):
                    files.append(os.path.relpath(os.path.join(root, name), src))
    return sorted(files)


def code_lines(path):
    """Lines of a source file that hold code (not blank, not only a comment)."""
    masked, _ = mask_source(read_text(path))
    return sum(1 for m in masked if m.strip())


def fault_id(f):
    key = "\0".join([f["file"], f["line"], str(f["occ"]), f["rule"], str(f["col"])])
    return hashlib.sha1(key.encode()).hexdigest()[:12]


def file_faults(src, rel):
    text = read_text(os.path.join(src, rel))
    lines = text.split("\n")
    masked, preproc = mask_source(text)
    seen = collections.Counter()
    faults = []
    prev_end = ";"  # how the previous line of code ended
    for number, (line, m, pp) in enumerate(zip(lines, masked, preproc), start=1):
        occ = seen[line]
        seen[line] += 1
        if pp:
            prev_end = ";"
            continue
        if not m.strip():
            continue
        ctx = {"starts_statement": prev_end in (";", "{", "}", ":", ")") or prev_end.endswith("else")}
        prev_end = m.rstrip()[-1:] if not m.rstrip().endswith("else") else "else"
        rewritten = set()
        for rule_name, rule in RULES:
            for hit in rule(m, ctx):
                col, old, new = hit[:3]
                name = hit[3] if len(hit) > 3 else rule_name
                if rule_name == "drop":
                    mutated = line[:col] + new
                else:
                    mutated = line[:col] + new + line[col + len(old):]
                if mutated == line or mutated in rewritten:
                    continue
                rewritten.add(mutated)
                f = {"file": rel, "line": line, "occ": occ, "rule": name, "col": col,
                     "from": line[col:] if rule_name == "drop" else old, "to": new,
                     "lineno": number, "mutated": mutated}
                f["id"] = fault_id(f)
                faults.append(f)
    return faults


def all_faults(src):
    faults = []
    for rel in source_files(src):
        faults.extend(file_faults(src, rel))
    return faults


# ---------------------------------------------------------------------------------------------
# Planting a fault in a tree: find the line by its text and occurrence, rewrite it at the column.


def read_text(path):
    with open(path, encoding="utf-8", errors="surrogateescape", newline="") as fh:
        return fh.read()


def squeeze(text):
    """The text with each run of white space (line ends included) made one blank, none at the ends."""
    return " ".join(text.split())


def squeeze_map(text):
    """squeeze(text), and for each of its characters the offset in text it stands for (a blank:
    the first character of its run of white space)."""
    chars, offsets, blank = [], [], None
    for i, c in enumerate(text):
        if c.isspace():
            if chars and blank is None:
                blank = i
            continue
        if blank is not None:
            chars.append(" ")
            offsets.append(blank)
            blank = None
        chars.append(c)
        offsets.append(i)
    return "".join(chars), offsets


def locate(text, fault):
    """Finds the fault's place in the unchanged text of its file: returns (start, end, how), the
    offsets of the characters the rewrite replaces, or None when the line is gone. The line is
    looked for by its exact text first, then by its text with white space normalised (a line
    that a formatter re-indented or re-spaced), then, when that text occurs exactly once in the
    file's normalised text, across lines (a line that a formatter split, or joined to the next)."""
    lines = text.split("\n")
    starts = [0]
    for line in lines[:-1]:
        starts.append(starts[-1] + len(line) + 1)
    line, col, old = fault["line"], fault["col"], fault["from"]
    hits = [i for i, l in enumerate(lines) if l == line]
    if len(hits) > fault["occ"]:
        index = hits[fault["occ"]]
        if lines[index][col:col + len(old)] == old:
            return starts[index] + col, starts[index] + col + len(old), "exact"
        return None
    # The replaced characters as a span of the normalised line: the rules replace a token (no
    # white space in it) or, dropping a statement, the rest of the line.
    want = squeeze(line)
    at = len(squeeze(line[:col] + "\x01")) - 1
    size = len(squeeze(old))
    if want[at:at + size] != squeeze(old):
        return None
    same = [i for i, l in enumerate(lines) if squeeze(l) == want]
    if len(same) > fault["occ"]:
        index = same[fault["occ"]]
        _, offsets = squeeze_map(lines[index])
        base = starts[index]
        return base + offsets[at], base + offsets[at + size - 1] + 1, "spaced"
    whole, offsets = squeeze_map(text)
    found = []
    pos = whole.find(want)
    while pos >= 0:
        end = pos + len(want)
        if (pos == 0 or whole[pos - 1] == " ") and (end == len(whole) or whole[end] == " "):
            found.append(pos)
        pos = whole.find(want, pos + 1)
    if len(found) != 1 or fault["occ"] != 0:
        return None
    return offsets[found[0] + at], offsets[found[0] + at + size - 1] + 1, "lines"


def write_text(path, text):
    with open(path, "w", encoding="utf-8", errors="surrogateescape", newline="") as fh:
        fh.write(text)


# ---------------------------------------------------------------------------------------------
# Running the suite. The helper makes itself a child subreaper, so that programs the tests leave
# behind (a hung installer in its own process group, a background editor) become its children
# when their parents end, and are ended here by their process ids.


def become_subreaper():
    try:
        libc = ctypes.CDLL(None, use_errno=True)
        libc.prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    except (OSError, AttributeError):
        pass


def own_children():
    me = str(os.getpid())
    kids = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry) as fh:
                fields = fh.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if fields[1] == me:
            kids.append(int(entry))
    return kids


def end_leftovers():
    for _ in range(20):
        kids = own_children()
        if not kids:
            return
        for pid in kids:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        time.sleep(0.05)
        while True:
            try:
                pid, _ = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                break
            if pid == 0:
                break


SUMMARY = re.compile(r"(\d+)% tests passed, (\d+) tests? failed out of (\d+)")


def run_suite(build, jobs, timeout, budget, labels, every=False, e2e=None):
    """Runs the tests of each label in turn (the unit tests first: they take seconds and catch
    many faults), stopping at the first failure, or with every=True running every test of every
    label; e2e, when given, is the list of end-to-end tests to run (none: the label is left out).
    Returns a dict with the number of tests run, the failed and timed-out tests, the failed
    assertions of the test sources (file:line) and the time taken."""
    stop = time.strftime("%H:%M:%S", time.localtime(time.time() + budget))
    started = time.time()
    result = {"status": 0, "total": 0, "failed": [], "timeouts": [], "output": ""}
    for label in labels.split("|"):
        cmd = ["ctest", "--test-dir", build, "-j%d" % jobs, "-L", "^%s$" % label,
               "--timeout", str(timeout), "--stop-time", stop, "--no-tests=error"]
        if label == "e2e" and e2e is not None:
            if not e2e:
                continue
            cmd += ["-R", "^(%s)$" % "|".join(re.escape(n) for n in e2e)]
        cmd += ["--output-on-failure"] if every else ["--stop-on-failure"]
        proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                start_new_session=True)
        out, _ = proc.communicate()
        end_leftovers()
        out = out.decode(errors="replace")
        summary = SUMMARY.search(out)
        result["total"] += int(summary.group(3)) if summary else 0
        # A parameterised test's name is followed by "# GetParam() = <value>".
        name = r"Test\s+#\d+: (\S+)(?:\s+# GetParam\(\) = \S+)? \.+\s*\*+"
        result["failed"] += re.findall(name + "(?:Failed|Timeout|Exception|Not Run)", out)
        result["timeouts"] += re.findall(name + "Timeout", out)
        result["output"] += out
        result["status"] = result["status"] or proc.returncode
        if proc.returncode != 0 and not every:
            break
    # GoogleTest's "path/file.cpp:line: Failure"; the output holds lines of 100000 characters, so
    # only the lines that end so are parsed.
    found = [re.match(r".*?([^/]*):(\d+): Failure$", line) for line in result["output"].splitlines()
             if line.endswith(": Failure")]
    result["assertions"] = sorted(set("%s:%s" % x.groups() for x in found if x and x.group(1).endswith(".cpp")))
    result["seconds"] = round(time.time() - started, 2)
    return result


def object_targets(build):
    """Maps each source path (relative to the tree) to the ninja targets of its object files."""
    out = subprocess.run(["ninja", "-C", build, "-t", "targets", "all"], capture_output=True,
                         text=True, check=True).stdout
    objects = collections.defaultdict(list)
    for line in out.splitlines():
        target = line.split(":")[0]
        x = re.match(r"^(.*)/CMakeFiles/[^/]+\.dir/(.+)\.o$", target)
        if x:
            objects[(x.group(1) + "/" + x.group(2)).lstrip("/")].append(target)
    return objects


def ninja(build, jobs, targets=(), limit=None):
    """Builds; returns (ok, log). A tool of the build that hangs (a faulty message compiler, say)
    is ended after limit seconds."""
    proc = subprocess.Popen(["ninja", "-C", build, "-j%d" % jobs] + list(targets),
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        out, _ = proc.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        out, _ = proc.communicate()
        end_leftovers()
        return False, out.decode(errors="replace") + "\nFAILED: the build did not finish in %d s\n" % limit
    return proc.returncode == 0, out.decode(errors="replace")


# ---------------------------------------------------------------------------------------------
# Sub-commands.


def read_jsonl(path):
    with open(path) as fh:
        return [json.loads(line) for line in fh if line.strip()]


def cmd_list(args):
    faults = all_faults(args.src)
    if args.stats:
        by_rule = collections.Counter(f["rule"] for f in faults)
        by_file = collections.Counter(f["file"] for f in faults)
        print("%d candidate faults" % len(faults))
        for name, count in sorted(by_rule.items()):
            print("  %-8s %5d" % (name, count))
        for name, count in sorted(by_file.items()):
            print("  %-28s %5d" % (name, count))
        return 0
    for f in faults:
        print(json.dumps(f))
    return 0


def cmd_sample(args):
    faults = all_faults(args.src)
    rng = random.Random(args.seed)
    if args.by_lines:
        chosen = sample_by_lines(args.src, faults, args.size, rng)
    else:
        chosen = rng.sample(faults, min(args.size, len(faults)))
    with open(args.out, "w") as fh:
        fh.write(json.dumps({"kind": "sample", "seed": args.seed, "size": len(chosen),
                             "candidates": len(faults), "rev": args.rev,
                             "spread": "lines" if args.by_lines else "faults"}) + "\n")
        for f in chosen:
            fh.write(json.dumps(f) + "\n")
    print("sampled %d of %d candidate faults (seed %d) into %s" % (len(chosen), len(faults), args.seed, args.out))
    return 0


def sample_by_lines(src, faults, size, rng):
    """Draws size faults spread over the files in proportion to their lines of code (largest
    remainder; a file gets at least one when it has candidates), then shuffles them so that a run
    stopped early has measured a spread of files, not the first few."""
    by_file = collections.defaultdict(list)
    for f in faults:
        by_file[f["file"]].append(f)
    lines = {rel: code_lines(os.path.join(src, rel)) for rel in by_file}
    total = sum(lines.values())
    quota = {rel: max(1, int(size * n / total)) for rel, n in lines.items()}
    rest = sorted(lines, key=lambda rel: (size * lines[rel] / total) - int(size * lines[rel] / total),
                  reverse=True)
    for rel in rest:
        if sum(quota.values()) >= size:
            break
        quota[rel] += 1
    chosen = []
    for rel in sorted(by_file):
        chosen.extend(rng.sample(by_file[rel], min(quota[rel], len(by_file[rel]))))
    rng.shuffle(chosen)
    return chosen


def load_sample(path):
    records = read_jsonl(path)
    head = records[0] if records and records[0].get("kind") == "sample" else {}
    return head, [r for r in records if r.get("kind") != "sample"]


def cmd_suite(args):
    become_subreaper()
    result = run_suite(args.build, args.jobs, args.timeout, args.budget, args.labels)
    if result["status"] != 0 or result["total"] == 0:
        sys.stdout.write(result["output"])
        return 1
    print("%d %.1f" % (result["total"], result["seconds"]))
    return 0


def load_covering(path):
    """file -> line -> end-to-end tests that execute it, and the number of end-to-end tests."""
    with open(path) as fh:
        tests = json.load(fh)["tests"]
    lines = collections.defaultdict(lambda: collections.defaultdict(set))
    e2e = [name for name in tests if "/E2E." in name]
    for name in e2e:
        for rel, numbers in tests[name].items():
            for n in numbers:
                lines[rel][n].add(name)
    return lines, len(e2e)


def cmd_run(args):
    become_subreaper()
    head, sample = load_sample(args.sample)
    if args.covering:
        args.covering, args.e2e_count = load_covering(args.covering)

        # Faults on lines that no end-to-end test executes need the whole suite: they go last.
        def uncovered(f):
            path = os.path.join(args.src, f["file"])
            text = read_text(path) if os.path.exists(path) else None
            place = locate(text, f) if text is not None else None
            return place is None or not args.covering.get(f["file"], {}).get(text.count("\n", 0, place[0]) + 1)
        sample.sort(key=uncovered)
    os.makedirs(args.results, exist_ok=True)
    results_path = os.path.join(args.results, "results.jsonl")
    pristine_dir = os.path.join(args.work, "pristine")
    restore_pristine(args.src, pristine_dir)

    done = {}
    if os.path.exists(results_path):
        old = read_jsonl(results_path)
        if old and old[0].get("kind") == "run" and old[0].get("commit") == args.commit and \
                old[0].get("sample_sha1") == sha1_of(args.sample):
            done = {r["id"]: r for r in old if "id" in r}
            print("resuming: %d faults already measured" % len(done), flush=True)
        else:
            os.rename(results_path, results_path + ".old")
    out = open(results_path, "a")
    if not done:
        out.write(json.dumps({"kind": "run", "rev": args.rev, "commit": args.commit,
                              "sample": os.path.abspath(args.sample), "sample_sha1": sha1_of(args.sample),
                              "seed": head.get("seed"), "planted": len(sample),
                              "baseline_tests": args.tests, "baseline_seconds": args.baseline_seconds,
                              "started": time.strftime("%Y-%m-%d %H:%M:%S")}) + "\n")
        out.flush()

    objects = object_targets(args.build)
    # What the build directory holds now; whatever a faulty run leaves behind in it (a file a
    # test checks is absent, say) is swept away before the next fault.
    before = snapshot(args.build)
    total = len(sample)
    count = len(done)
    # Faults are planted in the order of the sample (a shuffled sample spreads a run stopped early
    # over the files). Every fault is planted in the unchanged text, never on top of the one
    # before it; a file is put back when the next fault is in another file, and the build of
    # that next fault recompiles both.
    current, original, planted_any = None, None, False
    try:
        for f in sample:
            if f["id"] in done:
                continue
            rel = f["file"]
            path = os.path.join(args.src, rel)
            if rel != current:
                restore_pristine(args.src, pristine_dir)
                current = rel
                original = read_text(path) if os.path.exists(path) else None
            count += 1
            record = measure_one(args, f, path, original, pristine_dir, objects.get(rel, []))
            swept = sweep(args.build, before)
            if swept:
                record["swept"] = swept
            planted_any = planted_any or record["status"] != "gone"
            out.write(json.dumps(record) + "\n")
            out.flush()
            print("[%d/%d] %-12s %-8s %s:%s  %s" % (count, total, record["status"], f["rule"],
                  rel, record.get("lineno", "?"), record.get("detail", "")), flush=True)
    finally:
        restore_pristine(args.src, pristine_dir)
        if planted_any:
            ok, log = ninja(args.build, args.jobs)
            if not ok:
                sys.stdout.write(log)
                print("the restored tree does not build; stopping", flush=True)
                return 1
    # The unchanged suite must still pass, or what the faulty runs left behind decided outcomes.
    suite = run_suite(args.build, args.jobs, args.timeout, args.budget, args.labels)
    clean = suite["status"] == 0 and suite["total"] == args.tests
    out.write(json.dumps({"kind": "end", "finished": time.strftime("%Y-%m-%d %H:%M:%S"),
                          "unchanged_suite_after": "passed" if clean else "FAILED: " + " ".join(suite["failed"])}) + "\n")
    out.close()
    return cmd_report(argparse.Namespace(results=results_path, out=os.path.join(args.results, "summary.txt")))


def snapshot(build):
    paths = set()
    for root, dirs, names in os.walk(build):
        for name in dirs + names:
            paths.add(os.path.relpath(os.path.join(root, name), build))
    return paths


def sweep(build, before):
    removed = []
    for root, dirs, names in os.walk(build):
        for name in list(dirs) + names:
            full = os.path.join(root, name)
            rel = os.path.relpath(full, build)
            if rel in before or rel.startswith("Testing" + os.sep):
                continue
            if os.path.isdir(full) and not os.path.islink(full):
                shutil.rmtree(full, ignore_errors=True)
                dirs.remove(name)
            else:
                os.remove(full)
            removed.append(rel)
    return removed


def sha1_of(path):
    with open(path, "rb") as fh:
        return hashlib.sha1(fh.read()).hexdigest()


def restore_pristine(src, pristine_dir):
    if not os.path.isdir(pristine_dir):
        return
    for root, _, names in os.walk(pristine_dir):
        for name in names:
            saved = os.path.join(root, name)
            rel = os.path.relpath(saved, pristine_dir)
            with open(saved, "rb") as fh:
                data = fh.read()
            target = os.path.join(src, rel)
            with open(target, "wb") as fh:
                fh.write(data)
            os.remove(saved)


def measure_one(args, f, path, original, pristine_dir, objects):
    record = {"id": f["id"], "file": f["file"], "rule": f["rule"], "line": f["line"],
              "mutated": f["mutated"]}
    place = locate(original, f) if original is not None else None
    if place is None:
        record["status"] = "gone"
        return record
    start, end, how = place
    record["lineno"] = original.count("\n", 0, start) + 1
    if how != "exact":
        record["match"] = how
    if not objects:
        record["status"] = "not-compiled"
        record["detail"] = "not part of the build"
        return record
    saved = os.path.join(pristine_dir, f["file"])
    if not os.path.exists(saved):
        os.makedirs(os.path.dirname(saved), exist_ok=True)
        with open(path, "rb") as src_fh, open(saved, "wb") as dst:
            dst.write(src_fh.read())
    write_text(path, original[:start] + f["to"] + original[end:])

    # One build of everything; a failure in the faulty file's own object means the fault does
    # not compile, any later failure (a tool of the build that now fails) counts as caught.
    started = time.time()
    ok, log = ninja(args.build, args.jobs, limit=args.budget)
    record["build_seconds"] = round(time.time() - started, 2)
    if not ok:
        failed = [l[len("FAILED:"):].strip() for l in log.splitlines() if l.startswith("FAILED:")]
        if not failed or any(target in line for target in objects for line in failed):
            record["status"] = "not-compiled"
            errors = [l for l in log.splitlines() if "error:" in l]
            record["detail"] = errors[0].split("error:", 1)[1].strip()[:160] if errors else ""
        else:
            record["status"] = "caught-build"
            record["detail"] = failed[0][:160]
        return record
    # With a coverage map, only the end-to-end tests that execute the faulty line run (all of
    # them when none does: a declaration has no count of its own but may change what runs). A
    # fault in a program that the build itself runs (cvmkdist packs the demo distribution, cvbc
    # compiles its message file) reaches every test through what it built: all of them run.
    e2e, expected = None, args.tests
    if args.covering and not re.search(r"Linking \S+ executable bin/(cvmkdist|cvbc)$", log, re.M):
        lines = args.covering.get(f["file"], {})
        first = record["lineno"]
        last = first + f["to"].count("\n") + original.count("\n", start, end)
        e2e = sorted(set().union(*(lines.get(n, set()) for n in range(first, last + 1))))
        if not e2e:
            e2e = None
        else:
            expected = args.tests - args.e2e_count + len(e2e)
            record["covering"] = len(e2e)
    suite = run_suite(args.build, args.jobs, args.timeout, args.budget, args.labels, args.every, e2e)
    record["test_seconds"] = suite["seconds"]
    if args.every:
        record["failed"] = suite["failed"]
        record["assertions"] = suite["assertions"]
    if suite["timeouts"]:
        record["status"] = "caught-timeout"
        record["detail"] = suite["timeouts"][0]
    elif suite["status"] != 0:
        record["status"] = "caught"
        record["detail"] = suite["failed"][0] if suite["failed"] else "ctest status %d" % suite["status"]
    elif suite["total"] < expected:
        record["status"] = "caught"
        record["detail"] = "only %d of %d tests found" % (suite["total"], expected)
    else:
        record["status"] = "missed"
    return record


def outcome(status):
    if status.startswith("caught"):
        return "caught"
    return status


def fmt_minutes(seconds):
    return "%dm%02ds" % (seconds // 60, seconds % 60)


def cmd_report(args):
    records = read_jsonl(args.results)
    head = records[0] if records and records[0].get("kind") == "run" else {}
    end = records[-1] if records and records[-1].get("kind") == "end" else {}
    faults = [r for r in records if "id" in r]
    counts = collections.Counter(r["status"] for r in faults)
    caught = sum(v for k, v in counts.items() if k.startswith("caught"))
    gone = counts["gone"]
    not_compiled = counts["not-compiled"]
    compiled = len(faults) - gone - not_compiled
    lines = []
    lines.append("revision %s (%s), sample %s, seed %s" % (head.get("rev"), (head.get("commit") or "")[:10],
                                                          head.get("sample"), head.get("seed")))
    unfinished = len(faults) != head.get("planted", len(faults))
    lines.append("faults in the sample %4d%s" % (len(faults), "  (of %d: run not finished)" % head["planted"]
                                                  if unfinished else ""))
    lines.append("gone                 %4d  (line text not found in this revision; excluded)" % gone)
    moved = collections.Counter(r.get("match") for r in faults if r.get("match"))
    lines.append("planted              %4d%s" % (len(faults) - gone, "  (%d found with white space normalised, %d across lines)"
                                                 % (moved["spaced"], moved["lines"]) if moved else ""))
    lines.append("not compiled         %4d  (excluded)" % not_compiled)
    lines.append("compiled             %4d" % compiled)
    pct = 100.0 * caught / compiled if compiled else 0.0
    lines.append("caught               %4d  (%.1f%% of compiled: %d by a failing test, %d by a timeout, %d by the build)"
                 % (caught, pct, counts["caught"], counts["caught-timeout"], counts["caught-build"]))
    lines.append("missed               %4d" % counts["missed"])
    per_fault = [r.get("build_seconds", 0) + r.get("test_seconds", 0) for r in faults if r["status"] != "gone"]
    if per_fault:
        lines.append("time per fault       median %.1f s, range %.1f-%.1f s, total %s (builds and tests)"
                     % (statistics.median(per_fault), min(per_fault), max(per_fault), fmt_minutes(sum(per_fault))))
    if end:
        lines.append("unchanged suite after the run: %s" % end["unchanged_suite_after"])
    swept = sorted(set(p for r in faults for p in r.get("swept", [])))
    if swept:
        lines.append("left behind by faulty runs and swept: %s" % ", ".join(swept[:10]))
    missed = [r for r in faults if r["status"] == "missed"]
    if missed:
        lines.append("")
        lines.append("missed faults (file:line rule: original -> mutated):")
        for rel in sorted(set(r["file"] for r in missed)):
            lines.append("  %s" % rel)
            for r in sorted((r for r in missed if r["file"] == rel), key=lambda r: r.get("lineno", 0)):
                lines.append("    %s:%s %s: %s  ->  %s" % (rel, r.get("lineno", "?"), r["rule"],
                                                         r["line"].strip(), r["mutated"].strip()))
    if not_compiled:
        lines.append("")
        lines.append("not compiled (excluded):")
        for r in sorted((r for r in faults if r["status"] == "not-compiled"), key=lambda r: (r["file"], r.get("lineno", 0))):
            lines.append("    %s:%s %s: %s  ->  %s" % (r["file"], r.get("lineno", "?"), r["rule"],
                                                     r["line"].strip(), r["mutated"].strip()))
    text = "\n".join(lines) + "\n"
    sys.stdout.write(text)
    if getattr(args, "out", None):
        with open(args.out, "w") as fh:
            fh.write(text)
    return 0


def cmd_compare(args):
    def load(path):
        if os.path.isdir(path):
            path = os.path.join(path, "results.jsonl")
        records = read_jsonl(path)
        return {r["id"]: r for r in records if "id" in r}
    before, after = load(args.before), load(args.after)
    usable = ("caught", "missed")
    common = [i for i in before if i in after
              and outcome(before[i]["status"]) in usable and outcome(after[i]["status"]) in usable]
    gone = [i for i in before if i in after and "gone" in (before[i]["status"], after[i]["status"])]
    only = len(set(before) ^ set(after))
    cb = sum(1 for i in common if outcome(before[i]["status"]) == "caught")
    ca = sum(1 for i in common if outcome(after[i]["status"]) == "caught")
    print("faults in both runs, compiled on both sides: %d" % len(common))
    print("excluded: %d gone, %d not compiled on one side, %d in only one run"
          % (len(gone), sum(1 for i in before if i in after) - len(common) - len(gone), only))
    print("caught before  %4d  (%.1f%%)" % (cb, 100.0 * cb / len(common) if common else 0))
    print("caught after   %4d  (%.1f%%)" % (ca, 100.0 * ca / len(common) if common else 0))
    lost = [i for i in common if outcome(before[i]["status"]) == "caught" and outcome(after[i]["status"]) == "missed"]
    won = [i for i in common if outcome(before[i]["status"]) == "missed" and outcome(after[i]["status"]) == "caught"]
    for title, ids in (("caught before, missed after", lost), ("missed before, caught after", won)):
        print("%s: %d" % (title, len(ids)))
        for i in sorted(ids, key=lambda i: (after[i]["file"], after[i].get("lineno", 0))):
            r = after[i]
            print("    %s:%s %s: %s  ->  %s" % (r["file"], r.get("lineno", "?"), r["rule"],
                                             r["line"].strip(), r["mutated"].strip()))
    return 0


def cmd_matrix(args):
    """Which test catches which fault, from a run with --every: per test (and per failed
    assertion of a unit test) the faults it catches and those that no other test catches."""
    faults = [r for r in read_jsonl(args.results) if "id" in r and "failed" in r]
    if not faults:
        print("no fault in %s was run with --every" % args.results)
        return 1
    for key, title in (("failed", "test"), ("assertions", "assertion")):
        catchers = collections.defaultdict(set)
        for r in faults:
            for name in r.get(key, []):
                catchers[name].add(r["id"])
        alone = collections.Counter()
        for r in faults:
            if len(r.get(key, [])) == 1:
                alone[r[key][0]] += 1
        print("%-70s %7s %7s" % (title, "catches", "alone"))
        for name in sorted(catchers, key=lambda n: (-alone[n], -len(catchers[n]), n)):
            print("%-70s %7d %7d" % (name, len(catchers[name]), alone[name]))
        print()
    caught = [r for r in faults if r["failed"]]
    print("faults run with --every: %d, caught by a test: %d, by exactly one test: %d"
          % (len(faults), len(caught), sum(1 for r in caught if len(r["failed"]) == 1)))
    return 0


def main():
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # quietly stop when the reader goes (| head)
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)
    s = sub.add_parser("list")
    s.add_argument("src")
    s.add_argument("--stats", action="store_true")
    s = sub.add_parser("sample")
    s.add_argument("src")
    s.add_argument("--seed", type=int, required=True)
    s.add_argument("--size", type=int, required=True)
    s.add_argument("--rev", default="")
    s.add_argument("--out", required=True)
    s.add_argument("--by-lines", action="store_true")
    for name in ("suite", "run"):
        s = sub.add_parser(name)
        if name == "run":
            s.add_argument("src")
        s.add_argument("build")
        if name == "run":
            s.add_argument("sample")
            s.add_argument("results")
            s.add_argument("--work", required=True)
            s.add_argument("--rev", default="")
            s.add_argument("--commit", default="")
            s.add_argument("--tests", type=int, required=True)
            s.add_argument("--baseline-seconds", type=float, default=0)
            s.add_argument("--every", action="store_true")
            s.add_argument("--covering", help="coverage map of scripts/covermap.py")
        s.add_argument("--jobs", type=int, default=2)
        s.add_argument("--timeout", type=int, default=60)
        s.add_argument("--budget", type=int, default=180)
        s.add_argument("--labels", default="unit|e2e")
    s = sub.add_parser("restore")
    s.add_argument("src")
    s.add_argument("pristine")
    s = sub.add_parser("report")
    s.add_argument("results")
    s.add_argument("--out")
    s = sub.add_parser("matrix")
    s.add_argument("results")
    s = sub.add_parser("compare")
    s.add_argument("before")
    s.add_argument("after")
    args = p.parse_args()
    if args.cmd == "restore":
        restore_pristine(args.src, args.pristine)
        return 0
    return {"list": cmd_list, "sample": cmd_sample, "suite": cmd_suite, "run": cmd_run,
            "report": cmd_report, "compare": cmd_compare, "matrix": cmd_matrix}[args.cmd](args)


if __name__ == "__main__":
    sys.exit(main())
