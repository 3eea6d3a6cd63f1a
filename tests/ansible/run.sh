#!/usr/bin/env bash
# The Ansible role against three hosts that are all this machine (local connection, forks=3),
# each with its own copy of the distribution, work directory and installation directory:
#   r0  without corvane_accept_license nothing is installed;
#   r1  the first run installs and verifies on all three side by side;
#   r2  a second run changes nothing and starts no installer;
#   r3  a forced reinstall backs up the old configuration on h1 and h2, while h3, whose package
#       holds a damaged file, fails with the installer's own messages;
#   r4  h3 is not taken for up to date by the list its failed verification left: it fails again.
# Usage: run.sh DIST_DIR (the built demo distribution). Exit status 77: ansible-playbook missing.
set -euo pipefail
command -v ansible-playbook >/dev/null || { echo "ansible-playbook not found (Debian package ansible-core)"; exit 77; }
dist=$(cd "$1" && pwd)
repo=$(cd "$(dirname "$0")/../.." && pwd)
t=$(mktemp -d)
trap 'rm -rf "$t"' EXIT
# Nothing from the caller's own Ansible set-up or home directory.
export HOME=$t LC_ALL=C.UTF-8 ANSIBLE_CONFIG=$repo/deploy/ansible/ansible.cfg ANSIBLE_FORKS=3 \
  ANSIBLE_LOCAL_TEMP=$t/.ansible/tmp ANSIBLE_REMOTE_TEMP=$t/.ansible/remote ANSIBLE_HOST_KEY_CHECKING=False

{
  echo '[corvane]'
  for h in h1 h2 h3; do
    cp -r "$dist" "$t/$h-dist"
    echo "$h corvane_dist_dir=$t/$h-dist corvane_install_dir=$t/$h/corvane corvane_work_dir=$t/$h/work" \
      "corvane_backup_dir=$t/$h/backup"
  done
  printf '[corvane:vars]\nansible_connection=local\nansible_python_interpreter={{ ansible_playbook_python }}\n'
} >"$t/hosts"

play() {  # play NAME [options]: the playbook's output goes to $t/NAME.log
  local name=$1
  shift
  ansible-playbook -i "$t/hosts" "$repo/deploy/ansible/site.yml" "$@" </dev/null >"$t/$name.log" 2>&1 || true
}
recap() {  # recap NAME HOST: "changed failed" of HOST in the play recap of run NAME
  awk -v h="$2" '$1 == h && $2 == ":" { for (i = 3; i <= NF; i++) { split($i, kv, "="); n[kv[1]] = kv[2] }
                                         print n["changed"], n["failed"] }' "$t/$1.log"
}
lists() { find "$t/$1/corvane" -maxdepth 1 -regex '.*/distribfilelist\.[0-9]*' | wc -l; }
# The demo's macro translator logs each call, so its log counts the installer runs that got that far.
runs() { wc -l <"$t/$1/corvane/bin/cvtw.log"; }
fails=0
check() {  # check WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; fails=$((fails + 1)); }
}
has() { grep -qF -- "$2" "$t/$1.log"; }
installed() { [[ "$(recap "$1" "$2")" =~ ^[1-9][0-9]*\ 0$ ]]; }  # changed, not failed
failed() { [[ "$(recap "$1" "$2")" =~ \ 1$ ]]; }

play r0
for h in h1 h2 h3; do
  check "r0 $h fails" [ "$(recap r0 $h)" = "0 1" ]
  check "r0 $h creates nothing" [ ! -e "$t/$h" ]
done
check "r0 says why" has r0 'set corvane_accept_license=true to install. Nothing was installed.'

play r1 -e corvane_accept_license=true
for h in h1 h2 h3; do
  check "r1 $h installed" installed r1 $h
  check "r1 $h verified list is the package's" cmp -s <(tar -xzOf "$dist/cvpack" distribfilelist) \
    "$(find "$t/$h/corvane" -name 'distribfilelist.*')"
  check "r1 $h one run, the link, work directory removed" [ "$(runs $h)" = 1 -a -L "$t/$h/corvane/bin/cvt" -a ! -e "$t/$h/work" ]
  check "r1 $h payload" cmp -s "$repo/demo/payload/bin/cv" "$t/$h/corvane/bin/cv"
done

play r2 -e corvane_accept_license=true
for h in h1 h2 h3; do
  check "r2 $h unchanged" [ "$(recap r2 $h)" = "0 0" ]
  check "r2 $h no installer run" [ "$(runs $h)" = 1 -a "$(lists $h)" = 1 -a ! -e "$t/$h/work" ]
  check "r2 $h reported" has r2 "Corvane is installed and verified in $t/$h/corvane (distribfilelist."
done

mkdir "$t/repack"
tar -xzf "$t/h3-dist/cvpack" -C "$t/repack"
size=$(stat -c %s "$t/repack/macros/main.e")
echo '/* damaged */' >>"$t/repack/macros/main.e"
(cd "$t/repack" && tar -czf "$t/h3-dist/cvpack" -- *)
play r3 -e corvane_accept_license=true -e corvane_force_reinstall=true
for h in h1 h2; do
  check "r3 $h reinstalled" installed r3 $h
  check "r3 $h second run, old configuration backed up" [ "$(runs $h)" = 2 -a -f "$t/$h/backup/corv.ini" -a -f "$t/$h/backup/cv" ]
done
failure="fatal: [h3]: FAILED! => {\"changed\": false, \"msg\": [\"cvinst ended with exit status 1 on h3:\", \
\"Corvane Install: Error detected in $t/h3/corvane/macros/main.e. Mismatched size: expected=$size actual=$((size + 14))\", \
\"Corvane Install: Error detected in distribution.\"]}"
check "r3 h3 fails with the installer's messages" failed r3 h3
check "r3 h3 message" has r3 "$failure"

play r4 -e corvane_accept_license=true -l h3
check "r4 h3 runs the installer again and fails" failed r4 h3
check "r4 h3 message" has r4 "$failure"

if [ "$fails" -ne 0 ]; then
  for log in "$t"/r*.log; do echo "=== $log" && cat "$log"; done
  exit 1
fi
echo "ansible role: all checks passed"
