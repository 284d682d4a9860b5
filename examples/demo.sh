#!/usr/bin/env bash
# The demonstration: real programs on real input, a few readable lines each. Stops with exit status 1
# at the first thing that is not as it should be.
#   demo.sh BUILD_DIR        leaves BUILD_DIR/echo_server.trc and .json to look at
set -euo pipefail
build=$(cd "$1" && pwd)
bin=$build/examples trace=$build/tools/qvcl-trace
work=$(mktemp -d)
cd "$work"

finish() {
    local status=$?
    local -a left
    mapfile -t left < <(jobs -p)
    ((${#left[@]} == 0)) || kill -KILL "${left[@]}" 2>/dev/null || true
    ((status == 0)) || { tail -n 20 -- *.out *.log || true; echo 'demo: FAILED'; }
    rm -rf "$work"
}
trap finish EXIT

title() { printf '\n\033[1m%s\033[0m\n' "$1"; }
[[ -t 1 ]] || title() { printf '\n== %s\n' "$1"; }
# show FILE [PATTERN]: the lines that match, indented; there must be one.
show() { grep -E -- "${2:-.}" "$1" | sed 's/^/    /' || { echo "demo: no '${2:-}' in $1"; exit 1; }; }
wait_for() { # wait_for FILE PATTERN [COUNT]
    local found
    for ((i = 0; i < 200; ++i)); do
        found=$(grep -Ecs -- "$2" "$1") || true
        ((${found:-0} < ${3-1})) || return 0
        sleep 0.05
    done
    echo "demo: waited in vain for '$2' in $1"
    exit 1
}
succeeds() { # succeeds WHAT PID: within twenty seconds
    for ((i = 0; i < 400; ++i)); do
        kill -0 "$2" 2>/dev/null || break
        sleep 0.05
    done
    if kill -0 "$2" 2>/dev/null || ! wait "$2"; then
        echo "demo: $1 failed"
        exit 1
    fi
}

title 'A daemon that watches a FIFO, a signal descriptor and an event descriptor, by priority'
input=/var/lib/dpkg/status
[[ -r $input ]] || input=/proc/self/mountinfo
echo "    feeding it $input, $(wc -l <$input) lines, through a FIFO that is not empty at the start"
mkfifo fifo
exec 7<>fifo
head -n 20 $input >&7
"$bin/watcher" -o fifo >watcher.out 2>watcher.log 7>&- &
watcher=$!
tail -n +21 $input >&7
wait_for watcher.out 'callback lines'
exec 7>&-
succeeds watcher $watcher
grep -o 'callback .*' watcher.out | head -n 3 >order.out
printf 'callback %s\n' 'signals (priority 15)' 'lines (priority 20)' 'digest (priority 90)' |
    diff - order.out || { echo 'demo: not by priority'; exit 1; }
show watcher.out
show watcher.log '^watcher : [IW] '

title 'A server and four client processes; every payload comes back and is compared'
"$bin/echo_server" -r 1 -d "$build/echo_server.trc" socket >server.out 2>server.log &
server=$!
wait_for server.out listening
clients=()
for size in 0 64 1024 4096; do
    "$bin/echo_client" -n 10000 -s $size socket >client$size.out 2>&1 &
    clients+=($!)
done
for client in "${clients[@]}"; do succeeds client "$client"; done
for size in 0 64 1024 4096; do show client$size.out 'round trips'; done
timeout 20 "$bin/echo_client" -n 20000 socket >alone.out 2>&1
show alone.out 'round trips' | sed 's/$/ (alone)/'
wait_for server.out ' 60000 messages'
echo '    the server reports:'
show server.out ' 60000 messages'

echo '    the server is killed while a client waits, and started again on its stale socket file'
kill -STOP $server
"$bin/echo_client" -n 1000 -d socket >again.out 2>&1 &
client=$!
wait_for again.out connected
disown $server # bash need not tell that it was killed
kill -KILL $server
"$bin/echo_server" -r 1 -d "$build/echo_server.trc" socket >server2.out 2>server2.log &
server=$!
succeeds client $client
show again.out '1000 round trips .* 2 connection'
kill -TERM $server
succeeds echo_server $server
show server2.out 'clients|leak'

title 'The same server in C++, as coroutines; the clients cannot tell'
"$bin/cpp_echo" socket >cpp.out 2>cpp.log &
server=$!
wait_for cpp.out listening
"$bin/echo_client" -n 10000 -s 64 socket >cpp_client.out 2>&1
show cpp_client.out 'round trips'
kill -TERM $server
succeeds cpp_echo $server

if [[ -x $trace ]]; then
    title 'A server hangs: nobody reads what it prints. It is looked into without its help'
    mkfifo unread
    exec 8<>unread
    "$bin/echo_server" -r 1 stuck.socket >&8 2>stuck.log &
    stuck=$!
    read -rt 20 -u 8 _ # listening
    dd if=/dev/zero of=unread bs=4096 count=64 oflag=nonblock 2>/dev/null || true # until it is full
    for ((i = 0; i < 60; ++i)); do
        "$trace" report pid:$stuck >stuck.out 2>&1 || true
        ! grep -Eq '^ +[1-9][0-9.]*s  callback TIMER|not permitted' stuck.out || break
        sleep 0.1
    done
    echo "    \$ qvcl-trace report pid:$stuck"
    if grep -q 'not permitted' stuck.out; then
        show stuck.out 'not permitted'
    else
        grep -q 'callback TIMER .*#1 TIMER' stuck.out || { echo 'demo: it does not hang'; exit 1; }
        head -n 4 stuck.out | sed "s|$build/||; s/^/    /"
    fi
    disown $stuck
    kill -KILL $stuck
    exec 8>&-
fi

title 'A supervisor and three programs: one crashes once, one never reports'
cat >programs.conf <<END
[1-steady]
command = $bin/worker
[2-crashes]
command = $bin/worker -c $work/crashed
[3-silent]
command = $bin/worker -q
patience = 1
END
"$bin/supervisor" supervisor.socket programs.conf >supervisor.out 2>supervisor.log &
supervisor=$!
wait_for supervisor.out 'all started'
wait_for supervisor.out '2-crashes: up' 2
kill -TERM $supervisor
succeeds supervisor $supervisor
show supervisor.out '^([123]|all|asking|supervisor)'

title 'What the server did, from the dump it wrote when the client asked for it'
if [[ -x $trace ]]; then
    "$trace" check "$build/echo_server.trc" >check.out
    "$trace" report "$build/echo_server.trc" >report.out
    head -n 20 report.out | sed 's/^/    /'
    echo '    ...'
    "$trace" show "$build/echo_server.trc" >show.out
    tail -n 6 show.out | cut -c1-150 | sed 's/^/    /'
    "$trace" export --json "$build/echo_server.trc" >"$build/echo_server.json"
    echo "    as a timeline, for a browser's tracing page: $build/echo_server.json"
else
    echo "    (qvcl-trace is not built) $(wc -c <"$build/echo_server.trc") bytes in $build/echo_server.trc"
fi
