#!/usr/bin/env bash
# Fails on a broken link between the documents: a relative markdown link to a file that is not
# there, or an #anchor that names no heading of its target (README.md, SECURITY.md, docs/*.md and
# the Ansible roles' READMEs, or the markdown files given). Run by scripts/lint.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 scripts/doclinks.py "$@"
