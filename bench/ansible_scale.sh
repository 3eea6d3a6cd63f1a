#!/usr/bin/env bash
# The Ansible role against 1, 4 and 10 hosts, wall time of a first installation and of an
# up-to-date rerun, for the demo release and the 142 MB bench release: today's role over the
# local connection ("after") and over ssh ("ssh": one OpenSSH server of the bench's own per host,
# on loopback ports, reached as root with Ansible's default ssh settings, a terminal included),
# beside the role as it was at cdfa0f4 ("before", local only: it copies the distribution
# directory file by file and decides by the time stamps of the dated list and the link).
#
#   bash bench/ansible_scale.sh [ROUNDS]        (default 3; the figures are medians over rounds)
#
# Every host is this machine, with its own installation and work directories; forks equal the
# hosts. Over ssh, each play gets a new ControlPath directory, so that no connection is reused
# from the play before (as for an administrator's runs some minutes apart). Both roles use the same ansible.cfg (pipelining on,
# no fact gathering). Each round runs, for each release and host count, the two roles in an order
# that alternates with the round, into fresh directories: a first installation, then the rerun.
# Beside them the same installations without Ansible are timed ("installer"): the host count's
# installers started side by side by the shell, each from its own work directory holding
# setup.ini (the new role's way: sh FILE.run; the old one's: cvinst from a copy of the
# distribution directory). The role's own cost per host is (play - installer) / hosts.
#
# Writes build-bench/ansible-scale/{times.txt,table.txt,scale.png} and prints the table, with the
# processor time of the control machine's side (ansible-playbook, its workers, their ssh clients)
# beside the wall times: the figure that a large fleet multiplies. The load
# average (1 minute) is noted with every figure; other jobs on the machine count in everything.
# Environment: BENCH_DISK=1 puts the hosts on disk instead of a tmpfs of their own; HOSTS (default
# "1 4 10"), RELEASES (default "demo full") and ROLES (default "before after ssh") choose a part.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
rounds=${1:-3}
counts=${HOSTS:-1 4 10}
roles=${ROLES:-before after ssh}
releases=${RELEASES:-demo full}
build=$root/build-bench
out=$build/ansible-scale
work=$build/bench-work
runs=$work/fleet
command -v ansible-playbook >/dev/null || { echo "ansible-playbook not found (bash scripts/setup.sh)"; exit 1; }
command -v gnuplot >/dev/null || { echo "gnuplot not found (bash scripts/setup.sh)"; exit 1; }

# The releases: the demo (build-bench/dist and build-bench/corvane-demo.run) and the 142 MB bench
# distribution with its .run, which bench/run.sh builds and caches.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target dist >/dev/null
if [[ " $releases " == *" full "* ]]; then
  ROUNDS=1 bash bench/run.sh selfextract >/dev/null   # builds the 142 MB release when its inputs changed
fi
declare -A run_file=([demo]=$build/corvane-demo.run [full]=$work/full/corvane.run)
declare -A dist_dir=([demo]=$build/dist [full]=$work/full/dist)

# The role as it was before, from git.
before=$(mktemp -d)
mkdir -p "$runs" "$out"
cleanup() {
  cd "$root"
  rm -rf "$before"
  local dir
  for dir in "$runs"/sshd/h*; do [ -d "$dir" ] && sshd_stop "$dir"; done
  if mountpoint -q "$runs"; then umount "$runs"; fi
}
trap cleanup EXIT
git archive cdfa0f4 deploy/ansible | tar -x -C "$before"
declare -A playbook=([before]=$before/deploy/ansible/site.yml [after]=$root/deploy/ansible/site.yml
  [ssh]=$root/deploy/ansible/site.yml)
if [ "${BENCH_DISK:-0}" != 1 ] && ! mountpoint -q "$runs"; then
  mount -t tmpfs -o size=12g,mode=0755 cvfleet "$runs" 2>/dev/null || echo "(no tmpfs: hosts on disk)"
fi

# The new role keeps each release it has checked and unpacked (its cvcheck) in the cache; it is
# emptied before every first installation, which is when a release is new to the control machine.
export XDG_CACHE_HOME=$runs/.cache
export ANSIBLE_CONFIG=$root/deploy/ansible/ansible.cfg ANSIBLE_LOCAL_TEMP=$runs/.control \
  ANSIBLE_REMOTE_TEMP=$runs/.remote ANSIBLE_HOST_KEY_CHECKING=False LC_ALL=C.UTF-8

# One sshd per host, as root with the bench's own key, for the largest host count.
source "$root/tests/ansible/sshd.sh"
declare -A port=()
if [[ " $roles " == *" ssh "* ]]; then
  mkdir -p -m 0700 "$runs/.ssh"
  [ -f "$runs/.ssh/id_ed25519" ] || ssh-keygen -q -t ed25519 -N '' -f "$runs/.ssh/id_ed25519"
  : >"$runs/.ssh/known_hosts"
  most=$(printf '%s\n' $counts | sort -n | tail -n 1)
  for ((i = 1; i <= most; i++)); do
    h=$(printf 'h%02d' "$i")
    sshd_start "$runs/sshd/$h" "$runs/.ssh/id_ed25519.pub" || { echo "ssh: $sshd_why" >&2; exit 1; }
    port[$h]=$sshd_port
    sshd_known_host "$runs/sshd/$h" >>"$runs/.ssh/known_hosts"
  done
fi

load() { cut -d' ' -f1 /proc/loadavg; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", (b - a) / 1e6}'; }
micros() { local t=${EPOCHREALTIME/./}; echo $((10#$t)); }

hosts_of() {  # hosts_of ROLE N: the inventory
  local role=$1 n=$2 i h
  echo '[corvane]'
  for ((i = 1; i <= n; i++)); do
    h=$(printf 'h%02d' "$i")
    echo -n "$h corvane_install_dir=$runs/$role/$h/corvane corvane_work_dir=$runs/$role/$h/work corvane_backup_dir=$runs/$role/$h/old"
    if [ "$role" = ssh ]; then
      mkdir -p "$runs/sshd/$h/tmp"
      echo " ansible_port=${port[$h]} ansible_remote_tmp=$runs/sshd/$h/tmp"
    else
      echo
    fi
  done
  echo '[corvane:vars]'
  if [ "$role" = ssh ]; then
    printf 'ansible_host=127.0.0.1\nansible_user=root\nansible_ssh_private_key_file=%s\n' "$runs/.ssh/id_ed25519"
    echo "ansible_ssh_common_args='-o UserKnownHostsFile=$runs/.ssh/known_hosts'"
  else
    printf 'ansible_connection=local\nansible_python_interpreter={{ ansible_playbook_python }}\n'
  fi
}

play() {  # play ROLE RELEASE N LOG: one play; prints its wall time and the processor time (user +
          # system) of ansible-playbook and all it waited for: its workers and their ssh clients
  local role=$1 rel=$2 n=$3 log=$4 source start end
  source=(-e "corvane_run_file=${run_file[$rel]}")
  [ "$role" = before ] && source=(-e "corvane_dist_dir=${dist_dir[$rel]}")
  plays=$((${plays:-0} + 1))
  start=$(micros)
  ANSIBLE_SSH_CONTROL_PATH_DIR=$runs/.cp/$plays ANSIBLE_FORKS=$n /usr/bin/time -f '%U %S' -o "$out/cpu" \
    ansible-playbook -i "$runs/$role.ini" "${playbook[$role]}" -e corvane_accept_license=true \
    "${source[@]}" </dev/null >"$log" 2>&1 || { echo "play failed, see $log" >&2; exit 1; }
  end=$(micros)
  echo "$(seconds "$start" "$end") $(awk -v mux="$(masters_cpu "$runs/.cp/$plays")" '{printf "%.2f", $1 + $2 + mux}' "$out/cpu")"
}

# masters_cpu DIR: the processor time (s) of the ssh connection masters whose sockets are in DIR,
# which ControlPersist leaves running in the background (so time(1) does not count them, though
# they encrypt everything sent); then closes them.
masters_cpu() {
  local sock pid ticks=0
  for sock in "$1"/*; do
    [ -S "$sock" ] || continue
    pid=$(ssh -O check -S "$sock" bench 2>&1 | sed -n 's/.*pid=\([0-9]*\).*/\1/p')
    [ -n "$pid" ] && [ -r "/proc/$pid/stat" ] && ticks=$((ticks + $(awk '{print $14 + $15}' "/proc/$pid/stat")))
    ssh -O exit -S "$sock" bench 2>/dev/null || true
  done
  awk -v t="$ticks" -v hz="$(getconf CLK_TCK)" 'BEGIN {printf "%.2f", t / hz}'
}

installers() {  # installers ROLE RELEASE N: the N installations side by side without Ansible
  local role=$1 rel=$2 n=$3 i w start end
  local -a pids=()
  rm -rf "${runs:?}/$role"
  for ((i = 1; i <= n; i++)); do
    w=$runs/$role/$i/work
    mkdir -p "$w"
    # (bench/run.sh leaves a setup.ini of its own in the distribution directory)
    if [ "$role" = before ]; then cp -r "${dist_dir[$rel]}/." "$w/"; fi
    printf '[unattended]\nDestinationDir=%s\nBackupDir=%s\nPostInstall=no\n' "$runs/$role/$i/corvane" \
      "$runs/$role/$i/old" >"$w/setup.ini"
  done
  start=$(micros)
  for ((i = 1; i <= n; i++)); do
    w=$runs/$role/$i/work
    if [ "$role" = before ]; then
      (cd "$w" && printf '\nyes\n' | ./cvinst -cleanup >"$out/installer-$i.log" 2>&1) &
    else
      (cd "$w" && printf '\nyes\n' | TMPDIR=$w sh "${run_file[$rel]}" -- -cleanup >"$out/installer-$i.log" 2>&1) &
    fi
    pids+=($!)
  done
  for i in "${pids[@]}"; do wait "$i" || { echo "an installer failed ($role $rel), see $out/installer-*.log" >&2; exit 1; }; done
  end=$(micros)
  rm -rf "${runs:?}/$role"
  echo "$(seconds "$start" "$end") -"
}

times=$out/times.txt
rm -f "$out"/*.dat
echo "# round release hosts role kind seconds cpu-seconds load" >"$times"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
for ((r = 1; r <= rounds; r++)); do
  for rel in $releases; do
    for n in $counts; do
      read -ra order <<<"$roles"
      [ $(((r + n) % 2)) -eq 1 ] && read -ra order <<<"$(printf '%s\n' $roles | tac | tr '\n' ' ')"
      for role in "${order[@]}"; do
        hosts_of "$role" "$n" >"$runs/$role.ini"
        rm -rf "${runs:?}/$role" "$XDG_CACHE_HOME"
        l=$(load) && s=$(play "$role" "$rel" "$n" "$out/last-first.log") && echo "$r $rel $n $role first $s $l" >>"$times"
        grep -q 'changed=0 .*failed=0' "$out/last-first.log" && { echo "first run changed nothing" >&2; exit 1; }
        l=$(load) && s=$(play "$role" "$rel" "$n" "$out/last-rerun.log") && echo "$r $rel $n $role rerun $s $l" >>"$times"
        grep -Eq 'changed=[1-9]' "$out/last-rerun.log" && { echo "the rerun changed something ($role)" >&2; exit 1; }
        rm -rf "${runs:?}/$role"
        [ "$role" = ssh ] && continue  # the same installers as after's
        l=$(load) && s=$(installers "$role" "$rel" "$n") && echo "$r $rel $n $role installer $s $l" >>"$times"
      done
      echo "  round $r $rel $n hosts done (load $(load))"
    done
  done
done

# Medians over the rounds, and the derived figures.
median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
figure() {  # figure RELEASE HOSTS ROLE KIND COLUMN: the median of a column (6 seconds, 7 cpu, 8 load)
  awk -v r="$1" -v n="$2" -v o="$3" -v k="$4" -v c="$5" '$2 == r && $3 == n && $4 == o && $5 == k {print $c}' "$times" | median
}
{
  printf '%-7s %5s %-7s %8s %8s %7s %7s %9s %11s %13s %11s\n' release hosts role "first s" "rerun s" rerun/ "first/" \
    "installer" "role s/host" "control cpu" "load"
  printf '%-7s %5s %-7s %8s %8s %7s %7s %9s %11s %13s %11s\n' "" "" "" "" "" first "1 host" "s" "(first)" \
    "s first/rerun" "first/rerun"
  for rel in $releases; do
    for role in $roles; do
      one=$(figure "$rel" 1 "$role" first 6)
      for n in $counts; do
        first=$(figure "$rel" "$n" "$role" first 6)
        rerun=$(figure "$rel" "$n" "$role" rerun 6)
        inst=$(figure "$rel" "$n" "$([ "$role" = ssh ] && echo after || echo "$role")" installer 6)
        echo "$n $first" >>"$out/$rel-$role-first.dat"
        echo "$n $rerun" >>"$out/$rel-$role-rerun.dat"
        awk -v rel="$rel" -v n="$n" -v role="$role" -v f="$first" -v re="$rerun" -v one="$one" -v inst="$inst" \
          -v l="$(figure "$rel" "$n" "$role" first 8)/$(figure "$rel" "$n" "$role" rerun 8)" \
          -v cpu="$(figure "$rel" "$n" "$role" first 7)/$(figure "$rel" "$n" "$role" rerun 7)" \
          'BEGIN {printf "%-7s %5d %-7s %8.2f %8.2f %7.2f %7.2f %9.2f %11.2f %13s %11s\n", rel, n, role, f, re, re / f, f / one,
                  inst, (f - inst) / n, cpu, l}'
      done
    done
  done
} >"$out/table.txt"
cat "$out/table.txt"

# The plot: wall time against hosts, one panel per release.
panels=$(wc -w <<<"$releases")
{
  echo 'set terminal pngcairo size '$((600 * panels))',520 font "DejaVu Sans,10"'
  echo "set output \"$out/scale.png\""
  echo "set multiplot layout 1,$panels title \"Ansible role corvane: wall time against hosts (forks = hosts, $(nproc) cores; medians of $rounds rounds)\""
  echo 'set xlabel "hosts"; set ylabel "seconds"; set key top left; set grid; set yrange [0:*]'
  echo "set xtics ($(sed 's/ /, /g' <<<"$counts"))"
  declare -A label=([before]="before (local)" [after]="now (local)" [ssh]="now (ssh)")
  for rel in $releases; do
    echo "set title \"$rel release (.run $(($(stat -c %s "${run_file[$rel]}") / 1000)) KB)\""
    plot=
    for role in $roles; do
      plot+="${plot:+, }\"$out/$rel-$role-first.dat\" w lp lw 2 t \"${label[$role]}: first install\""
      plot+=", \"$out/$rel-$role-rerun.dat\" w lp lw 2 dt 2 t \"${label[$role]}: rerun\""
    done
    echo "plot $plot"
  done
  echo 'unset multiplot'
} | gnuplot
echo "plot: $out/scale.png; times: $times"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
