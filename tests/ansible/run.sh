#!/usr/bin/env bash
# The Ansible role against three hosts that are all this machine (local connection, forks=3),
# each with its own work and installation directories, the release being the demo's .run:
#   r0  without corvane_accept_license nothing is installed;
#   r1  a signature that does not verify with the keyring stops the play before any host is reached;
#   r2  with a good signature h1 and h2 install, while h3, whose transfer arrives damaged, fails on
#       the checksum and starts nothing;
#   r3  a rerun changes nothing on h1 and h2 (no installer started) and installs h3;
#   r4  h1 with one file cut short (a reinstall killed halfway: the old list and link in place) is
#       reinstalled; h2, forced onto a distribution directory whose package holds a damaged
#       file, fails with the installer's own messages after backing up its configuration;
#   r5  verified: h1 and h3 pass, h2 (a file changed by hand) fails naming that file;
#   r6  check mode with --diff: h2 would be reinstalled, the diff names its changed file, and
#       nothing changes;
#   r7  absent in check mode removes nothing; r8 absent with corvane_purge removes all three;
#   r9  rolling.yml: h1 installs in the first batch, h2's damaged transfer fails the second, and
#       the rollout stops before h3;
#   rw  base directories another user could change (mode 0777, owned by uid 65534) are refused
#       before anything is made in them; one on a full file system says "could not unpack";
#   rt  a variable of the wrong type is refused by the role's declared variable types (meta/argument_specs.yml);
#   r10 the plug-in package from a distribution directory on h1 with corvane_eclipse_dir; r11 its
#       removal takes the Eclipse link file too;
#   r12 an installer that never ends is stopped by corvane_timeout, and the role's files removed;
#   r13 an installer that says it succeeded but installed nothing: the host fails on cvcheck verify;
#   s*  the rows over a real OpenSSH server (ssh_rows.sh).
# Usage: run.sh BUILD_DIR (with dist/, dist-plugin/, eclipse-demo/ and corvane-demo.run built).
# Exit status 77: ansible-playbook missing.
set -euo pipefail
command -v ansible-playbook >/dev/null || { echo "ansible-playbook not found (Debian package ansible-core)"; exit 77; }
build=$(cd "$1" && pwd)
repo=$(cd "$(dirname "$0")/../.." && pwd)
t=$(mktemp -d)
# (others may pass through it: the ssh rows' user has its home below it)
chmod 0711 "$t"
source "$repo/tests/ansible/sshd.sh"
ssh_user=
cleanup() {
  GNUPGHOME=$t/gnupg gpgconf --kill all 2>/dev/null || true
  sshd_stop "$t/sshd"
  local pid
  for pid in $(cat "$t/hang.pids" 2>/dev/null); do kill "$pid" 2>/dev/null || true; done
  if [ -n "$ssh_user" ]; then
    rm -f "/etc/sudoers.d/$ssh_user"
    # (its sessions end with the server; give them a moment)
    for _ in 1 2 3 4 5 6 7 8 9 10; do pgrep -u "$ssh_user" >/dev/null 2>&1 || break; sleep 0.2; done
    userdel -f "$ssh_user" 2>/dev/null || true
  fi
  if mountpoint -q "$t/small"; then umount "$t/small"; fi
  [ -n "${KEEP:-}" ] || rm -rf "$t"
}
trap cleanup EXIT
# Nothing from the caller's own Ansible set-up or home directory.
export HOME=$t LC_ALL=C.UTF-8 ANSIBLE_CONFIG=$repo/deploy/ansible/ansible.cfg ANSIBLE_FORKS=3 \
  ANSIBLE_LOCAL_TEMP=$t/.ansible/tmp ANSIBLE_REMOTE_TEMP=$t/.ansible/remote ANSIBLE_HOST_KEY_CHECKING=False \
  ANSIBLE_CONNECTION_PLUGINS=$repo/tests/ansible/connection_plugins GNUPGHOME=$t/gnupg

# The release as published: the .run with its .sha256, signed with a throwaway key.
mkdir -m 700 "$t/gnupg" "$t/rel" "$t/bad"
cp "$build/corvane-demo.run" "$build/corvane-demo.run.sha256" "$t/rel/"
cp "$build/corvane-demo.run" "$build/corvane-demo.run.sha256" "$t/bad/"
gpg --batch --passphrase '' --quick-gen-key 'Fleet Test <fleet@example.org>' future-default default never 2>/dev/null
gpg --export >"$t/key.gpg"
gpg --batch --detach-sign -o "$t/rel/corvane-demo.run.sig" "$t/rel/corvane-demo.run" 2>/dev/null
# A signature, by the same key, of something else.
gpg --batch --detach-sign -o "$t/bad/corvane-demo.run.sig" "$t/bad/corvane-demo.run.sha256" 2>/dev/null
run=$t/rel/corvane-demo.run

# A distribution directory whose package holds a damaged macro, released with matching sums.
cp -r "$build/dist" "$t/broken"
mkdir "$t/repack"
tar -xzf "$t/broken/cvpack" -C "$t/repack"
size=$(stat -c %s "$t/repack/macros/main.e")
echo '/* damaged */' >>"$t/repack/macros/main.e"
(cd "$t/repack" && tar -czf "$t/broken/cvpack" -- *)
(cd "$t/broken" && sha256sum cdinst.cvb cvcheck cvinst cvpack license.txt >SHA256SUMS)
cp -r "$build/dist-plugin" "$t/plugin-dist"
cp -r "$build/eclipse-demo" "$t/eclipse"
cp -r "$build/eclipse-demo" "$t/eclipse-ssh"

# A release whose installer says it succeeded and installs nothing, with matching sums.
cp -r "$build/dist" "$t/liar"
printf '#!/bin/sh\necho "INSTALLATION SUCCESSFULLY COMPLETED"\nexit 0\n' >"$t/liar/cvinst"
(cd "$t/liar" && sha256sum cdinst.cvb cvcheck cvinst cvpack license.txt >SHA256SUMS)
# A release whose installer never ends (it notes its process id, then waits), with matching sums.
cp -r "$build/dist" "$t/hang"
printf '#!/bin/sh\necho $$ >>%s\nwhile :; do sleep 1; done\n' "$t/hang.pids" >"$t/hang/cvinst"
(cd "$t/hang" && sha256sum cdinst.cvb cvcheck cvinst cvpack license.txt >SHA256SUMS)

inventory() {  # inventory FILE [HOST SETTINGS]...: the three hosts, some with settings of their own
  local file=$1 h
  shift
  declare -A own=()
  while [ $# -gt 1 ]; do own[$1]=$2 && shift 2; done
  {
    echo '[corvane]'
    for h in h1 h2 h3; do
      echo "$h corvane_install_dir=$t/$h/corvane corvane_work_dir=$t/$h/work corvane_backup_dir=$t/$h/backup ${own[$h]:-}"
    done
    printf '[corvane:vars]\nansible_connection=local\nansible_python_interpreter={{ ansible_playbook_python }}\n'
    echo "corvane_run_file=$run"
  } >"$file"
}
inventory "$t/hosts"
inventory "$t/hosts-damaged" h3 ansible_connection=damaging_local
inventory "$t/hosts-broken" h2 "corvane_run_file='' corvane_dist_dir=$t/broken corvane_force_reinstall=true"
inventory "$t/hosts-rolling" h2 ansible_connection=damaging_local
inventory "$t/hosts-plugin" h1 "corvane_install_dir=$t/h1/corvplugin corvane_run_file='' corvane_dist_dir=$t/plugin-dist corvane_eclipse_dir=$t/eclipse"

play() {  # play NAME INVENTORY [options]: the playbook's output goes to $t/NAME.log
  local name=$1 hosts=$2 playbook=site.yml
  shift 2
  if [ "${1:-}" = rolling ]; then playbook=rolling.yml && shift; fi
  ansible-playbook -i "$t/$hosts" "$repo/deploy/ansible/$playbook" "$@" </dev/null >"$t/$name.log" 2>&1 || true
}
# ssh_play NAME [options]: a play over ssh with Ansible's own defaults (the remote temporary
# directory in the user's home, host keys checked against the known_hosts file given)
ssh_play() {
  local name=$1
  shift
  env -u ANSIBLE_REMOTE_TEMP -u ANSIBLE_HOST_KEY_CHECKING ansible-playbook -i "$t/hosts-ssh" \
    "$repo/deploy/ansible/site.yml" "$@" </dev/null >"$t/$name.log" 2>&1 || true
}
recap() {  # recap NAME HOST: "changed failed" of HOST in the play recap of run NAME
  awk -v h="$2" '$1 == h && $2 == ":" { for (i = 3; i <= NF; i++) { split($i, kv, "="); n[kv[1]] = kv[2] }
                                         print n["changed"], n["failed"] }' "$t/$1.log"
}
# The demo's macro translator logs each call, so its log counts the installer runs that got that far.
runs() { if [ -f "$t/$1/corvane/bin/cvtw.log" ]; then wc -l <"$t/$1/corvane/bin/cvtw.log"; else echo 0; fi; }
fails=0
check() {  # check WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; fails=$((fails + 1)); }
}
has() { grep -qF -- "$2" "$t/$1.log"; }
lacks() { ! has "$@"; }
installed() { [[ "$(recap "$1" "$2")" =~ ^1\ 0$ ]]; }  # changed, not failed
failed() { [[ "$(recap "$1" "$2")" =~ \ 1$ ]]; }
same_as_payload() { cmp -s "$repo/demo/payload/$2" "$t/$1/corvane/$2"; }
yes=(-e corvane_accept_license=true)

play r0 hosts
for h in h1 h2 h3; do
  check "r0 $h fails" [ "$(recap r0 $h)" = "0 1" ]
  check "r0 $h creates nothing" [ ! -e "$t/$h" ]
done
check "r0 says why" has r0 'set corvane_accept_license=true to install. Nothing was installed.'

play r1 hosts "${yes[@]}" -e corvane_run_file="$t/bad/corvane-demo.run" -e corvane_keyring="$t/key.gpg"
check "r1 refused" has r1 "The signature $t/bad/corvane-demo.run.sig does not verify with the keyring $t/key.gpg"
check "r1 the play ends there" has r1 "NO MORE HOSTS LEFT"
check "r1 no host examined" lacks r1 'Examine the installation'
for h in h1 h2 h3; do check "r1 $h untouched" [ ! -e "$t/$h" ]; done
check "r1 nothing sent" [ -z "$(ls -A "$t/.ansible/remote" 2>/dev/null)" ]

play r2 hosts-damaged "${yes[@]}" -e corvane_keyring="$t/key.gpg"
for h in h1 h2; do
  check "r2 $h installed" installed r2 $h
  check "r2 $h one run, the link" [ "$(runs $h)" = 1 -a -L "$t/$h/corvane/bin/cvt" ]
  check "r2 $h private directory removed" [ -z "$(ls -A "$t/$h/work")" ]
  check "r2 $h says what changed" has r2 "installed release corvane-demo in $t/$h/corvane on $h (was: none); "
  check "r2 $h payload" same_as_payload $h bin/cv
done
check "r2 h3 fails" failed r2 h3
check "r2 h3 checksum message" has r2 "corvane-demo.run arrived damaged on h3: its SHA-256 there is "
check "r2 h3 names the released sum" has r2 "not $(cut -d' ' -f1 "$run.sha256") as released. The transfer failed; nothing was started on this host."
check "r2 h3 nothing installed" [ ! -e "$t/h3/corvane" ]
check "r2 no transfer left behind" [ -z "$(ls -A "$t/.ansible/remote")" ]

play r3 hosts "${yes[@]}"
for h in h1 h2; do
  check "r3 $h unchanged" [ "$(recap r3 $h)" = "0 0" ]
  check "r3 $h no installer run" [ "$(runs $h)" = 1 ]
  check "r3 $h reported" has r3 "Corvane is installed and verified in $t/$h/corvane on $h (distribfilelist."
done
check "r3 h3 installed" installed r3 h3
check "r3 h3 payload" same_as_payload h3 bin/cv

truncate -s 100 "$t/h1/corvane/bin/cv"
play r4 hosts-broken "${yes[@]}"
check "r4 h1 reinstalled" installed r4 h1
check "r4 h1 says why" has r4 "installed release corvane-demo in $t/h1/corvane on h1 (was: 1 installed files differed: $t/h1/corvane/bin/cv (size"
check "r4 h1 second run, file whole again" [ "$(runs h1)" = 2 ]
check "r4 h1 payload" same_as_payload h1 bin/cv
check "r4 h3 unchanged" [ "$(recap r4 h3)" = "0 0" ]
check "r4 h2 fails with the installer's messages" failed r4 h2
check "r4 h2 status" has r4 '"cvinst ended with exit status 1 on h2:",'
check "r4 h2 message" has r4 "\"Corvane Install: Error detected in $t/h2/corvane/macros/main.e. Mismatched size: expected=$size actual=$((size + 14))\","
check "r4 h2 last message" has r4 '"Corvane Install: Error detected in distribution."'
check "r4 h2 old configuration backed up" [ -f "$t/h2/backup/corv.ini" ]
play r4b hosts "${yes[@]}" -l h2
check "r4b h2 repaired" installed r4b h2

echo '; changed by hand' >>"$t/h2/corvane/macros/main.e"
play r5 hosts -e corvane_state=verified
for h in h1 h3; do
  check "r5 $h passes" [ "$(recap r5 $h)" = "0 0" ]
  check "r5 $h says so" has r5 "Corvane in $t/$h/corvane on $h is as installed: 16 files checked (sha256)"
done
check "r5 h2 fails" failed r5 h2
check "r5 h2 names the file" has r5 "\"$t/h2/corvane/macros/main.e (size: listed with $size bytes, has $((size + 18)))\""

play r6 hosts "${yes[@]}" --check --diff
check "r6 h2 would be reinstalled" [ "$(recap r6 h2)" = "1 0" ]
check "r6 h2 says why" has r6 "Check mode: would install release corvane-demo in $t/h2/corvane on h2 (was: 1 installed files differed"
check "r6 h2 diff header" has r6 "+++ after: $t/h2/corvane on h2 (release corvane-demo)"
check "r6 h2 diff names the file" has r6 "-$t/h2/corvane/macros/main.e (size: listed with $size bytes, has $((size + 18)))"
check "r6 h1 unchanged" [ "$(recap r6 h1)" = "0 0" ]
check "r6 h2 nothing done" [ "$(tail -c 18 "$t/h2/corvane/macros/main.e")" = '; changed by hand' ]

play r7 hosts -e corvane_state=absent --check
for h in h1 h2 h3; do
  check "r7 $h would remove" [ "$(recap r7 $h)" = "1 0" ]
  check "r7 $h removes nothing" [ -L "$t/$h/corvane/bin/cvt" ]
done
check "r7 reports" has r7 "cvcheck: would remove 28 entries of $t/h3/corvane/, kept 5 on h3"

play r8 hosts -e corvane_state=absent -e corvane_purge=true
for h in h1 h2 h3; do
  check "r8 $h removed" installed r8 $h
  check "r8 $h nothing left" [ ! -e "$t/$h/corvane" -a -z "$(ls -A "$t/$h/work")" ]
done
play r8b hosts -e corvane_state=absent
check "r8b absent again: unchanged" [ "$(recap r8b h1)" = "0 0" ]

# Base directories another user could change are refused before anything is made in them; one
# too small for the release says so rather than reporting the installer's status.
mkdir -m 0777 "$t/shared"
mkdir "$t/theirs" && chown 65534:65534 "$t/theirs"
small=yes
mkdir "$t/small" && mount -t tmpfs -o size=128k cvfleet-small "$t/small" 2>/dev/null || small=
inventory "$t/hosts-bases" h1 "corvane_work_dir=$t/shared/w" h2 "corvane_work_dir=$t/theirs" h3 "corvane_work_dir=$t/small/w"
play rw hosts-bases "${yes[@]}"
check "rw h1 refused" failed rw h1
check "rw h1 says why" has rw "Install Corvane on h1: corvane_work_dir: $t/shared is writable by others without the sticky bit (mode drwxrwxrwx)"
check "rw h1 nothing made there" [ -z "$(ls -A "$t/shared")" ]
check "rw h2 refused" failed rw h2
check "rw h2 says why" has rw "Install Corvane on h2: corvane_work_dir: $t/theirs is owned by user 65534, neither root nor the connecting user"
check "rw h2 nothing made there" [ -z "$(ls -A "$t/theirs")" ]
for h in h1 h2; do check "rw $h nothing installed" [ ! -e "$t/$h/corvane" ]; done
if [ -n "$small" ]; then
  check "rw h3 fails" failed rw h3
  check "rw h3 could not unpack" has rw "could not unpack into $t/small/w/corvane."
  check "rw h3 names the reason" has rw "on h3: no space left on device. Nothing was installed."
  check "rw h3 not the installer's status" lacks rw 'cvinst ended with exit status'
  check "rw h3 private directory removed" [ -z "$(ls -A "$t/small/w")" ]
  umount "$t/small"
else
  echo "SKIPPED rw h3 (no space left): cannot mount a tmpfs here"
fi

# A value of the wrong type is refused by the role's declared variable types before any task.
play rt hosts "${yes[@]}" -e corvane_timeout=soon -l h1
check "rt refused" failed rt h1
check "rt names the variable" has rt "argument 'corvane_timeout' is of type <class 'str'>"
check "rt no release checked" lacks rt 'Check the settings and the release'

play r9 hosts-rolling rolling "${yes[@]}"
check "r9 h1 installed in the first batch" installed r9 h1
check "r9 h2 fails in the second" has r9 "corvane-demo.run arrived damaged on h2"
check "r9 the rollout stops" [ ! -e "$t/h3/corvane" ]
check "r9 h3 not in the recap" [ -z "$(recap r9 h3)" ]

play r10 hosts-plugin "${yes[@]}" -l h1
link=$t/eclipse/eclipse/links/com.corvane.eclipse.plugin.link
check "r10 h1 plug-in installed" installed r10 h1
check "r10 link file" [ "$(cat "$link")" = "path=$t/h1/corvplugin" ]
check "r10 core plug-in verified" [ -L "$t/h1/corvplugin/eclipse/plugins/com.corvane.core_10.0.0/bin/cvt" ]
play r11 hosts-plugin -e corvane_state=absent -e corvane_purge=true -l h1
check "r11 h1 removed" installed r11 h1
check "r11 link file gone" [ ! -e "$link" ]
check "r11 plug-in root gone" [ ! -e "$t/h1/corvplugin" ]

# An installer that never ends is stopped by corvane_timeout with all it started, and what the
# role put on the host is removed.
inventory "$t/hosts-hang" h2 "corvane_run_file='' corvane_dist_dir=$t/hang corvane_timeout=3"
play r12 hosts-hang "${yes[@]}" -l h2
check "r12 h2 fails" failed r12 h2
check "r12 h2 names the step and the limit" has r12 "Install Corvane on h2 did not end within corvane_timeout (3 s); it was stopped, and what the role had put on the host was removed ($t/h2/work/corvane."
check "r12 the installer ran" [ -s "$t/hang.pids" ]
gone() { [ ! -e "/proc/$1" ] || grep -q '^State:.*zombie' "/proc/$1/status"; }  # ended (a zombie where no init reaps)
running() { [ -n "$1" ] && ! gone "$1"; }
check "r12 the installer stopped" gone "$(tail -n 1 "$t/hang.pids")"
check "r12 private directory removed" [ -z "$(ls -A "$t/h2/work")" ]
check "r12 nothing sent left" [ -z "$(ls -A "$t/.ansible/remote")" ]

# An installer that reports success is not believed: the verification after it decides.
inventory "$t/hosts-liar" h2 "corvane_run_file='' corvane_dist_dir=$t/liar"
play r13 hosts-liar "${yes[@]}" -l h2
check "r13 h2 fails" failed r13 h2
check "r13 h2 says the installation does not verify" has r13 "cvinst ended with status 0 on h2, but the installation in $t/h2/corvane on h2 does not verify: cannot open $t/h2/corvane"
check "r13 h2 not reported installed" lacks r13 'installed release'

source "$repo/tests/ansible/ssh_rows.sh"

if [ "$fails" -ne 0 ]; then
  for log in "$t"/r*.log; do echo "=== $log" && cat "$log"; done
  exit 1
fi
echo "ansible role: all checks passed"
