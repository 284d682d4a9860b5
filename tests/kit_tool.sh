#!/usr/bin/env bash
# qvcl-kit as its user sees it.
#   kit_tool.sh QVCL_KIT KIT_PROBE
set -euo pipefail
kit=$1 probe=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
complain() {
    echo "$1"
    tail -n +1 -- *.out
    exit 1
}

"$kit" run --clock=virtual -- "$probe" year >year.out 2>&1
grep -q '^8760 hours in 3153[56][0-9]* seconds' year.out || complain 'a year has other hours'
# Other processes of the run share the time; what one waits for comes before a time limit.
cat >share.sh <<'END'
(sleep 999; echo x) | (read -rt 10000 x; echo "$x")
sleep 86400
date +%s
END
"$kit" run --clock=virtual+1y -- bash share.sh >share.out 2>&1
grep -q x share.out || complain 'nothing came'
(($(tail -n 1 share.out) - $(date +%s) > 366 * 86400)) || complain 'no day has passed'

status=0
"$kit" run --fail=ftruncate:1:ENOSPC -- "$probe" crash >crash.out 2>&1 || status=$?
((status == 135 || status == 139)) || complain "exit status $status after a crash"
"$kit" run --fail=ftruncate:7 -- "$probe" >unmet.out 2>&1
grep -q 'ftruncate was called 1 times, so nothing failed' unmet.out || complain 'nothing said'
! "$kit" run --fail=strlen -- true >wrong.out 2>&1 || complain 'strlen cannot fail'
for seed in 1 1 2; do
    "$kit" run --seed=$seed -- "$probe" >seed.out 2>&1 || complain "disorder $seed is too much"
done

# Each fault is found as what it is, at its place, and nothing else; a sweep that is done is done.
for fault in none crash hang leak left open; do
    status=0 found=${fault/open/leak}
    "$kit" sweep --timeout=3 --calls=ftruncate,mmap --out="$fault" -- "$probe" $fault >$fault.out 2>&1 || status=$?
    [[ $fault == none ]] && { ((status == 0)) || complain 'found what is not there'; continue; }
    ((status == 1)) || complain "$fault: exit status $status"
    grep -Eq "^$found: ftruncate [A-Z|]*ENOSPC.* once.*, in kit_probe: main" $fault.out || complain "no $fault"
    ! grep -E '^(crash|hang|leak|left): ' $fault.out | grep -v "^$found" || complain "$fault is more"
    [[ $fault == left || -s $(grep -om 1 '/[^ ]*\.trc' $fault.out) ]] || complain "no trace of $fault"
done
grep -q 'descriptor /dev/shm/qvcl-probe-# .*is open at the end of kit_probe' open.out || complain 'which descriptor?'
run=$(sed -n 's/^    runs \([0-9]*\) .*/\1/p' crash.out | head -n 1) status=0
"$kit" sweep --timeout=3 --calls=ftruncate,mmap --out=crash --again="$run" -- "$probe" crash >again.out 2>&1 || status=$?
((status == 135 || status == 139)) || complain "exit status $status of run $run once more"
"$kit" sweep --timeout=3 --calls=ftruncate,mmap --out=leak -- "$probe" leak >again.out 2>&1 || true
grep -q ' done before' again.out || complain 'done again'
