#!/usr/bin/env python3
"""Finds broken links between the project's documents.

Checks every relative markdown link, [text](target) or [text](target#anchor), and every anchor
alone, [text](#anchor), in the given markdown files (by default README.md, SECURITY.md, docs/*.md and
the README of each Ansible role): the target file or directory must exist beside the document, and
an anchor must name a heading of the target as the usual markdown renderers make it (lower case,
punctuation dropped, spaces as hyphens, -1, -2, ... for repeated headings). Links with a scheme
(https:, mailto:) are not followed. Code spans and fenced or indented code are skipped, since
brackets there are not links. Prints one line per broken link, file:line, and exits 1 if there is
any.
"""

import glob
import os
import re
import sys

LINK = re.compile(r"!?\[(?:[^\]\\]|\\.)*\]\(\s*<?([^)\s>]*)>?(?:\s+\"[^\"]*\")?\s*\)")
HEADING = re.compile(r"^ {0,3}(#{1,6})\s+(.*?)\s*#*\s*$")
FENCE = re.compile(r"^ {0,3}(```|~~~)")
CODE_SPAN = re.compile(r"(`+)(?:(?!\1).)+?\1")


def prose_lines(text):
    """Yields (line number, line) for lines outside fenced and indented code blocks."""
    fence = None
    previous_blank = True
    in_indented = False
    for number, line in enumerate(text.split("\n"), 1):
        match = FENCE.match(line)
        if fence:
            if match and match.group(1) == fence:
                fence = None
            continue
        if match:
            fence = match.group(1)
            continue
        blank = not line.strip()
        if line.startswith("    ") and (previous_blank or in_indented) and not blank:
            in_indented = True
            continue
        if not blank:
            in_indented = False
        previous_blank = blank
        yield number, line


def slug(heading):
    """The anchor that GitHub-style renderers give a heading."""
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading)  # a link's text only
    text = text.strip().lower()
    text = re.sub(r"[^\w\- ]", "", text)
    return text.replace(" ", "-")


def anchors(path, cache):
    if path not in cache:
        found = set()
        seen = {}
        with open(path, encoding="utf-8") as source:
            for _, line in prose_lines(source.read()):
                match = HEADING.match(line)
                if not match:
                    continue
                base = slug(match.group(2))
                count = seen.get(base, 0)
                seen[base] = count + 1
                found.add(base if count == 0 else "%s-%d" % (base, count))
        cache[path] = found
    return cache[path]


def check(path, cache):
    problems = []
    with open(path, encoding="utf-8") as source:
        text = source.read()
    for number, line in prose_lines(text):
        for match in LINK.finditer(CODE_SPAN.sub("", line)):
            target = match.group(1)
            if not target or re.match(r"^[a-zA-Z][a-zA-Z0-9+.-]*:", target):
                continue
            name, _, anchor = target.partition("#")
            resolved = os.path.normpath(os.path.join(os.path.dirname(path), name)) if name else path
            where = "%s:%d: %s" % (path, number, target)
            if not os.path.exists(resolved):
                problems.append("%s: no such file %s" % (where, resolved))
            elif anchor and not resolved.endswith(".md"):
                problems.append("%s: an anchor into %s, which is not markdown" % (where, resolved))
            elif anchor and anchor not in anchors(resolved, cache):
                problems.append("%s: %s has no heading #%s" % (where, resolved, anchor))
    return problems


def default_documents():
    names = ["README.md", "SECURITY.md"] + sorted(glob.glob("docs/*.md"))
    names += sorted(glob.glob("deploy/ansible/roles/*/README.md"))
    return [name for name in names if os.path.exists(name)]


def main(argv):
    documents = argv[1:] or default_documents()
    cache = {}
    problems = []
    for document in documents:
        problems += check(document, cache)
    for problem in problems:
        print(problem)
    if problems:
        print("%d broken link(s) in %d document(s)" % (len(problems), len(documents)))
        return 1
    print("no broken links in %d documents" % len(documents))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
