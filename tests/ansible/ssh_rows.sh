# The role over a real OpenSSH server (sourced by run.sh, with its variables and helpers): an sshd
# of the test's own on 127.0.0.1, reached with Ansible's default ssh settings (a terminal for every
# command, ControlPersist, the remote temporary directory in the user's home) by two hosts:
#   s1  an unprivileged user of the test's own, with become (sudo, a sudoers.d file of the test's);
#   s2  root.
#   s1  present installs both (no pager waits on the terminal); the directories Ansible and the
#       role made on the hosts are gone, and Ansible ran no command of its own to remove them;
#   s2  the rerun changes nothing, in four ssh commands a host (counted in Ansible's -vvv lines);
#   s3  verified passes; s4 absent with --diff shows what it removes;
#   s5  the plug-in package over s1 with corvane_eclipse_dir, and its removal;
#   s6  the connection dropped while the installer runs: s1 UNREACHABLE with ssh's own message,
#       and the role's private directory is removed on the host when the installer has ended.
# Skipped, with the reason, where sshd cannot start.

ssh_user=cvfleet$$
ssh_ready() {
  mkdir -m 0700 "$t/.ssh"
  ssh-keygen -q -t ed25519 -N '' -f "$t/.ssh/id_ed25519" || return 1
  useradd -m -d "$t/home/$ssh_user" -s /bin/sh -p '*' "$ssh_user" 2>"$t/useradd.log" || {
    sshd_why="useradd: $(cat "$t/useradd.log")"
    ssh_user=
    return 1
  }
  echo "$ssh_user ALL=(ALL:ALL) NOPASSWD: ALL" >"/etc/sudoers.d/$ssh_user"
  chmod 0440 "/etc/sudoers.d/$ssh_user"
  sshd_start "$t/sshd" "$t/.ssh/id_ed25519.pub" "$ssh_user" || return 1
  sshd_known_host "$t/sshd" >"$t/.ssh/known_hosts"
}

if ! ssh_ready; then
  echo "SKIPPED the rows over ssh: ${sshd_why:-cannot make a client key}"
else
  mkdir -p "$t/s2/tmp"
  {
    echo '[corvane]'
    echo "s1 ansible_user=$ssh_user ansible_become=true corvane_install_dir=$t/s1/corvane corvane_work_dir=$t/s1/work"
    # root's own home is the system's: its temporary directory goes into the test's.
    echo "s2 ansible_user=root ansible_remote_tmp=$t/s2/tmp corvane_install_dir=$t/s2/corvane corvane_work_dir=$t/s2/work"
    echo '[corvane:vars]'
    echo "ansible_host=127.0.0.1"
    echo "ansible_port=$sshd_port"
    echo "ansible_ssh_private_key_file=$t/.ssh/id_ed25519"
    echo "ansible_ssh_common_args='-o UserKnownHostsFile=$t/.ssh/known_hosts'"
    echo "corvane_run_file=$run"
  } >"$t/hosts-ssh"
  ssh_tmp() { find "$t/home/$ssh_user/.ansible/tmp" "$t/s2/tmp" -mindepth 1 2>/dev/null; }

  ssh_play s1 "${yes[@]}"
  for h in s1 s2; do
    check "s1 $h installed" installed s1 $h
    check "s1 $h says what changed" has s1 "installed release corvane-demo in $t/$h/corvane on $h (was: none); "
    check "s1 $h payload" same_as_payload $h bin/cv
    check "s1 $h private directory removed" [ -z "$(ls -A "$t/$h/work")" ]
  done
  check "s1 s1 installed as root through sudo" [ "$(stat -c %U "$t/s1/corvane/bin/cv")" = root ]
  check "s1 no temporary directory left" [ -z "$(ssh_tmp)" ]

  ssh_play s2 "${yes[@]}" -vvv
  for h in s1 s2; do
    check "s2 $h unchanged" [ "$(recap s2 $h)" = "0 0" ]
    check "s2 $h no installer run" [ "$(runs $h)" = 1 ]
  done
  # s1: its home's name, the temporary directory, the transfer, the script; s2 the same but the
  # first, as its temporary directory is given as an absolute path.
  check "s2 four and three ssh commands" [ "$(grep -c 'SSH: EXEC' "$t/s2.log")" = 7 ]
  check "s2 Ansible removed no directory of its own" lacks s2 'rm -f -r'
  check "s2 no temporary directory left" [ -z "$(ssh_tmp)" ]

  ssh_play s3 -e corvane_state=verified
  for h in s1 s2; do
    check "s3 $h passes" [ "$(recap s3 $h)" = "0 0" ]
    check "s3 $h says so" has s3 "Corvane in $t/$h/corvane on $h is as installed: 16 files checked (sha256)"
  done

  ssh_play s4 -e corvane_state=absent -e corvane_purge=true --diff
  for h in s1 s2; do
    check "s4 $h removed" installed s4 $h
    check "s4 $h nothing left" [ ! -e "$t/$h/corvane" ]
  done
  check "s4 the diff names what goes" has s4 "-$t/s2/corvane/bin/cv"
  check "s4 no temporary directory left" [ -z "$(ssh_tmp)" ]

  ssh_play s5 "${yes[@]}" -l s1 -e corvane_run_file= -e "corvane_dist_dir=$t/plugin-dist" \
    -e "corvane_eclipse_dir=$t/eclipse-ssh" -e "corvane_install_dir=$t/s1/corvplugin"
  check "s5 s1 plug-in installed" installed s5 s1
  check "s5 link file" [ "$(cat "$t/eclipse-ssh/eclipse/links/com.corvane.eclipse.plugin.link")" = "path=$t/s1/corvplugin" ]
  ssh_play s5b -l s1 -e corvane_run_file= -e "corvane_dist_dir=$t/plugin-dist" -e corvane_state=absent \
    -e corvane_purge=true -e "corvane_eclipse_dir=$t/eclipse-ssh" -e "corvane_install_dir=$t/s1/corvplugin"
  check "s5b s1 plug-in removed" installed s5b s1
  check "s5b plug-in root gone" [ ! -e "$t/s1/corvplugin" ]

  # The server goes away while the installer (one that never ends) runs on s1.
  : >"$t/hang.pids"
  (
    for ((i = 0; i < 600; i++)); do [ -s "$t/hang.pids" ] && break; sleep 0.1; done
    sshd_stop "$t/sshd"
  ) &
  ssh_play s6 "${yes[@]}" -l s1 -e corvane_run_file= -e "corvane_dist_dir=$t/hang" -e corvane_timeout=120
  wait
  check "s6 s1 unreachable" [ "$(awk '$1 == "s1" {print $5}' "$t/s6.log")" = unreachable=1 ]
  check "s6 ssh's own message" has s6 'UNREACHABLE! => {"changed": false, "msg": "Failed to connect to the host via ssh: '
  check "s6 not Ansible's clean-up" lacks s6 'rm -f -r'
  pid=$(head -n 1 "$t/hang.pids")
  check "s6 the installer ran on" running "$pid"
  kill "$pid" 2>/dev/null || true
  for ((i = 0; i < 50; i++)); do [ -n "$(ls -A "$t/s1/work")" ] || break; sleep 0.1; done
  check "s6 the role's directories removed when it ended" [ -z "$(ls -A "$t/s1/work")$(ssh_tmp)" ]
fi
