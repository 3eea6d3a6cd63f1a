#!/usr/bin/env bash
# The Ansible role against 1, 3, 10 and 20 hosts, wall time of a first installation and of an
# up-to-date rerun, for the demo release and the 142 MB bench release, today's role beside the
# role as it was at cdfa0f4 ("before": it copies the distribution directory file by file and
# decides by the time stamps of the dated list and the link).
#
#   bash bench/ansible_scale.sh [ROUNDS]        (default 3; the figures are medians over rounds)
#
# Every host is this machine, reached with the local connection, with its own installation and
# work directories; forks equal the hosts. Both roles use the same ansible.cfg (pipelining on,
# no fact gathering). Each round runs, for each release and host count, the two roles in an order
# that alternates with the round, into fresh directories: a first installation, then the rerun.
# Beside them the same installations without Ansible are timed ("installer"): the host count's
# installers started side by side by the shell, each from its own work directory holding
# setup.ini (the new role's way: sh FILE.run; the old one's: cvinst from a copy of the
# distribution directory). The role's own cost per host is (play - installer) / hosts.
#
# Writes build-bench/ansible-scale/{times.txt,table.txt,scale.png} and prints the table. The load
# average (1 minute) is noted with every figure; other jobs on the machine count in everything.
# Environment: BENCH_DISK=1 puts the hosts on disk instead of a tmpfs of their own; HOSTS (default
# "1 3 10 20") and RELEASES (default "demo full") choose a part.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
rounds=${1:-3}
counts=${HOSTS:-1 3 10 20}
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
ROUNDS=1 bash bench/run.sh selfextract >/dev/null   # builds the 142 MB release when its inputs changed
declare -A run_file=([demo]=$build/corvane-demo.run [full]=$work/full/corvane.run)
declare -A dist_dir=([demo]=$build/dist [full]=$work/full/dist)

# The role as it was before, from git.
before=$(mktemp -d)
mkdir -p "$runs" "$out"
cleanup() {
  cd "$root"
  rm -rf "$before"
  if mountpoint -q "$runs"; then umount "$runs"; fi
}
trap cleanup EXIT
git archive cdfa0f4 deploy/ansible | tar -x -C "$before"
declare -A playbook=([before]=$before/deploy/ansible/site.yml [after]=$root/deploy/ansible/site.yml)
if [ "${BENCH_DISK:-0}" != 1 ] && ! mountpoint -q "$runs"; then
  mount -t tmpfs -o size=12g,mode=0755 cvfleet "$runs" 2>/dev/null || echo "(no tmpfs: hosts on disk)"
fi

# The new role keeps each release it has checked and unpacked (its cvcheck) in the cache; it is
# emptied before every first installation, which is when a release is new to the control machine.
export XDG_CACHE_HOME=$runs/.cache
export ANSIBLE_CONFIG=$root/deploy/ansible/ansible.cfg ANSIBLE_LOCAL_TEMP=$runs/.control \
  ANSIBLE_REMOTE_TEMP=$runs/.remote ANSIBLE_HOST_KEY_CHECKING=False LC_ALL=C.UTF-8

load() { cut -d' ' -f1 /proc/loadavg; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", (b - a) / 1e6}'; }
micros() { local t=${EPOCHREALTIME/./}; echo $((10#$t)); }

hosts_of() {  # hosts_of ROLE N: the inventory
  local role=$1 n=$2 i h
  echo '[corvane]'
  for ((i = 1; i <= n; i++)); do
    h=$(printf 'h%02d' "$i")
    echo "$h corvane_install_dir=$runs/$role/$h/corvane corvane_work_dir=$runs/$role/$h/work corvane_backup_dir=$runs/$role/$h/old"
  done
  printf '[corvane:vars]\nansible_connection=local\nansible_python_interpreter={{ ansible_playbook_python }}\n'
}

play() {  # play ROLE RELEASE N LOG: one play; prints its wall time; fails unless every host passed
  local role=$1 rel=$2 n=$3 log=$4 source start end
  source=(-e "corvane_run_file=${run_file[$rel]}")
  [ "$role" = before ] && source=(-e "corvane_dist_dir=${dist_dir[$rel]}")
  start=$(micros)
  ANSIBLE_FORKS=$n ansible-playbook -i "$runs/$role.ini" "${playbook[$role]}" -e corvane_accept_license=true \
    "${source[@]}" </dev/null >"$log" 2>&1 || { echo "play failed, see $log" >&2; exit 1; }
  end=$(micros)
  seconds "$start" "$end"
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
  seconds "$start" "$end"
}

times=$out/times.txt
rm -f "$out"/*.dat
echo "# round release hosts role kind seconds load" >"$times"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
for ((r = 1; r <= rounds; r++)); do
  for rel in $releases; do
    for n in $counts; do
      order=(before after)
      [ $(((r + n) % 2)) -eq 1 ] && order=(after before)
      for role in "${order[@]}"; do
        hosts_of "$role" "$n" >"$runs/$role.ini"
        rm -rf "${runs:?}/$role" "$XDG_CACHE_HOME"
        l=$(load) && s=$(play "$role" "$rel" "$n" "$out/last-first.log") && echo "$r $rel $n $role first $s $l" >>"$times"
        grep -q 'changed=0 .*failed=0' "$out/last-first.log" && { echo "first run changed nothing" >&2; exit 1; }
        l=$(load) && s=$(play "$role" "$rel" "$n" "$out/last-rerun.log") && echo "$r $rel $n $role rerun $s $l" >>"$times"
        grep -Eq 'changed=[1-9]' "$out/last-rerun.log" && { echo "the rerun changed something ($role)" >&2; exit 1; }
        rm -rf "${runs:?}/$role"
        l=$(load) && s=$(installers "$role" "$rel" "$n") && echo "$r $rel $n $role installer $s $l" >>"$times"
      done
      echo "  round $r $rel $n hosts done (load $(load))"
    done
  done
done

# Medians over the rounds, and the derived figures.
median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
figure() {  # figure RELEASE HOSTS ROLE KIND COLUMN: the median of a column (6 seconds, 7 load)
  awk -v r="$1" -v n="$2" -v o="$3" -v k="$4" -v c="$5" '$2 == r && $3 == n && $4 == o && $5 == k {print $c}' "$times" | median
}
{
  printf '%-7s %5s %-7s %8s %8s %7s %7s %9s %11s %11s\n' release hosts role "first s" "rerun s" rerun/ "first/" \
    "installer" "role s/host" "load"
  printf '%-7s %5s %-7s %8s %8s %7s %7s %9s %11s %11s\n' "" "" "" "" "" first "1 host" "s" "(first)" "first/rerun"
  for rel in $releases; do
    for role in before after; do
      one=$(figure "$rel" 1 "$role" first 6)
      for n in $counts; do
        first=$(figure "$rel" "$n" "$role" first 6)
        rerun=$(figure "$rel" "$n" "$role" rerun 6)
        inst=$(figure "$rel" "$n" "$role" installer 6)
        echo "$n $first" >>"$out/$rel-$role-first.dat"
        echo "$n $rerun" >>"$out/$rel-$role-rerun.dat"
        awk -v rel="$rel" -v n="$n" -v role="$role" -v f="$first" -v re="$rerun" -v one="$one" -v inst="$inst" \
          -v l="$(figure "$rel" "$n" "$role" first 7)/$(figure "$rel" "$n" "$role" rerun 7)" \
          'BEGIN {printf "%-7s %5d %-7s %8.2f %8.2f %7.2f %7.2f %9.2f %11.2f %11s\n", rel, n, role, f, re, re / f, f / one,
                  inst, (f - inst) / n, l}'
      done
    done
  done
} >"$out/table.txt"
cat "$out/table.txt"

# The plot: wall time against hosts, one panel per release.
gnuplot <<EOF
set terminal pngcairo size 1200,520 font "DejaVu Sans,10"
set output "$out/scale.png"
set multiplot layout 1,2 title "Ansible role corvane: wall time against hosts (local connection, forks = hosts, 2 cores; medians of $rounds rounds)"
set xlabel "hosts"
set ylabel "seconds"
set key top left
set grid
set xtics (1, 3, 10, 20)
set yrange [0:*]
set title "demo release (.run $(($(stat -c %s "${run_file[demo]}") / 1000)) KB)"
plot "$out/demo-before-first.dat" w lp lw 2 t "before: first install", "$out/demo-after-first.dat" w lp lw 2 t "now: first install", \
     "$out/demo-before-rerun.dat" w lp lw 2 dt 2 t "before: rerun", "$out/demo-after-rerun.dat" w lp lw 2 dt 2 t "now: rerun"
set title "142 MB bench release (.run $(($(stat -c %s "${run_file[full]}") / 1000000)) MB)"
plot "$out/full-before-first.dat" w lp lw 2 t "before: first install", "$out/full-after-first.dat" w lp lw 2 t "now: first install", \
     "$out/full-before-rerun.dat" w lp lw 2 dt 2 t "before: rerun", "$out/full-after-rerun.dat" w lp lw 2 dt 2 t "now: rerun"
unset multiplot
EOF
echo "plot: $out/scale.png; times: $times"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
