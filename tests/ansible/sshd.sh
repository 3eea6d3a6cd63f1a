# OpenSSH servers of the tests' and benchmarks' own, on 127.0.0.1 (bash, sourced). Each has its
# host key, configuration, authorized_keys, log and pid file in its own directory, never the
# system's; it accepts only the client key given, for root and the users listed.
#
#   sshd_start DIR CLIENT_KEY.pub USER...   starts one on a free high port; sets sshd_port, or
#                                           returns 1 with the reason in sshd_why
#   sshd_stop DIR                           stops it (its pid file's process and its sessions)
#   sshd_known_host DIR                     the known_hosts line of its host key

sshd_free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

sshd_start() {
  local dir=$1 key=$2 _
  shift 2
  sshd_why=
  if [ ! -x /usr/sbin/sshd ]; then
    sshd_why='/usr/sbin/sshd is missing (Debian package openssh-server)'
    return 1
  fi
  # The privilege separation directory that sshd insists on (the system service makes it too).
  [ -d /run/sshd ] || mkdir -m 0755 /run/sshd 2>/dev/null || true
  mkdir -p "$dir"
  chmod 0755 "$dir"
  [ -f "$dir/host_ed25519" ] || ssh-keygen -q -t ed25519 -N '' -f "$dir/host_ed25519" || {
    sshd_why='ssh-keygen cannot make a host key'
    return 1
  }
  install -m 0644 "$key" "$dir/authorized_keys"
  for _ in 1 2 3; do
    sshd_port=$(sshd_free_port)
    cat >"$dir/sshd_config" <<EOF
Port $sshd_port
ListenAddress 127.0.0.1
HostKey $dir/host_ed25519
PidFile $dir/sshd.pid
AuthorizedKeysFile $dir/authorized_keys
AllowUsers root $*
PermitRootLogin prohibit-password
PubkeyAuthentication yes
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
MaxStartups 100:30:200
MaxSessions 100
Subsystem sftp internal-sftp
EOF
    rm -f "$dir/sshd.pid"
    if /usr/sbin/sshd -f "$dir/sshd_config" -E "$dir/sshd.log" 2>>"$dir/sshd.log"; then
      local i
      for ((i = 0; i < 50; i++)); do
        [ -s "$dir/sshd.pid" ] && return 0
        sleep 0.1
      done
    fi
  done
  sshd_why="sshd did not start: $(tail -n 1 "$dir/sshd.log" 2>/dev/null)"
  return 1
}

sshd_stop() {
  local pid child
  [ -s "$1/sshd.pid" ] || return 0
  pid=$(cat "$1/sshd.pid")
  # The sessions first (each is a child of the listener), then the listener.
  for child in $(pgrep -P "$pid" 2>/dev/null); do kill "$child" 2>/dev/null || true; done
  kill "$pid" 2>/dev/null || true
  rm -f "$1/sshd.pid"
}

sshd_known_host() {
  echo "[127.0.0.1]:$(awk '$1 == "Port" {print $2}' "$1/sshd_config") $(cut -d' ' -f1-2 "$1/host_ed25519.pub")"
}
