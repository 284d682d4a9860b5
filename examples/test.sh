#!/usr/bin/env bash
# Runs one example as a user would and looks at what it prints and leaves behind.
#   test.sh EXAMPLE DIRECTORY_OF_THE_PROGRAMS
set -euo pipefail
name=$1 bin=$2
work=$(mktemp -d)
cd "$work"

# Whatever happens, no process of ours, nor one that it started, and no file stays.
finish() {
    local status=$? pid
    local -a started
    for pid in $(jobs -p); do
        { read -rd '' -a started <"/proc/$pid/task/$pid/children"; } 2>/dev/null || true
        kill -KILL "$pid" "${started[@]}" 2>/dev/null || true
    done
    ((status == 0)) || tail -n +1 -- *.out *.log 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT

complain() {
    echo "$name: $1"
    exit 1
}
# expect FILE PATTERN: some line matches.
expect() { grep -Eq -- "$2" "$1" || complain "no line like '$2' in $1"; }
# in_order FILE PATTERN...: lines that match the patterns, one after the other.
in_order() {
    local file=$1 from=1 found
    shift
    for pattern; do
        found=$(tail -n "+$from" "$file" | grep -Enm 1 -- "$pattern" | cut -d: -f1) ||
            complain "no line like '$pattern' from line $from on in $file"
        ((from += found))
    done
}
# wait_for FILE PATTERN [COUNT]: at most ten seconds, until so many lines match.
wait_for() {
    local found
    for ((i = 0; i < 200; ++i)); do
        found=$(grep -Ecs -- "$2" "$1") || true
        ((${found:-0} < ${3-1})) || return 0
        sleep 0.05
    done
    complain "waited in vain for '$2' in $1"
}
# ticks PID: the processor time that it has used, in hundredths of a second.
ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
# ends_with STATUS PID: within twenty seconds.
ends_with() {
    local status=0
    for ((i = 0; i < 400; ++i)); do
        kill -0 "$2" 2>/dev/null || break
        sleep 0.05
    done
    ! kill -0 "$2" 2>/dev/null || complain "process $2 does not end"
    wait "$2" || status=$?
    ((status == $1)) || complain "exit status $status instead of $1"
}

test_watcher() {
    # Everything is ready at once: by priority, then; it ends with the input.
    timeout 20 "$bin/watcher" -o </etc/passwd >input.out 2>input.log
    in_order input.out 'callback signals' '^remembers 0 ' 'callback lines' 'callback digest' \
        "by a callback with 1 after $(wc -l </etc/passwd) lines" 'leak report clean'
    expect input.log '^watcher : I 00001 started as process [0-9]+$'
    expect input.log '^watcher: [0-9/]+ [0-9:.]+ I 00003 ended with 1: '

    # A FIFO fed by another program, more than the memory limit holds, and signals in between.
    mkfifo fifo
    "$bin/watcher" -l 2000 fifo >fifo.out 2>fifo.log &
    local watcher=$!
    exec 7>fifo
    seq 1 1000 >&7
    wait_for fifo.log 'W 00002 memory is full'
    kill -HUP $watcher
    wait_for fifo.out '^remembers [1-9][0-9]* lines .* in (1[89]..|2000) bytes, forgot 9'
    kill -TERM $watcher
    ends_with 0 $watcher
    exec 7>&-
    in_order fifo.out '^remembers' 'with 2 after 1000 lines' 'leak report clean'
}

test_echo() {
    local server client
    "$bin/echo_server" -r 1 -d dump.trc socket >server.out 2>server.log &
    server=$!
    wait_for server.out listening
    for size in 0 1 64 4096; do
        "$bin/echo_client" -n 200 -s $size socket >client$size.out 2>&1 &
        clients[size]=$!
    done
    for client in "${clients[@]}"; do ends_with 0 "$client"; done
    expect client4096.out '^200 round trips of 4096 bytes in [0-9.]+ s: [0-9]+ a second, 822400 bytes'
    expect client0.out 'leak report clean'

    # A server that is killed while a client waits for its reply leaves its socket file; the client
    # finds the next server at the same place and repeats the request.
    kill -STOP $server
    "$bin/echo_client" -n 200 -d socket >reconnect.out 2>&1 &
    client=$!
    wait_for reconnect.out '^connected'
    disown $server # bash need not tell that it was killed
    kill -KILL $server
    [[ -S socket ]] || complain 'the killed server should have left its socket file'
    "$bin/echo_server" -r 1 -d dump.trc socket >again.out 2>again.log &
    server=$!
    ends_with 0 $client
    expect reconnect.out '^200 round trips .*, 2 connection\(s\)$'
    [[ -s dump.trc ]] || complain 'no trace file'
    wait_for again.out '^0 clients, 201 messages '

    kill -TERM $server
    ends_with 0 $server
    expect again.out 'leak report clean'
    [[ ! -e socket ]] || complain 'the socket file is left'

    # Dumps say why; that of a crash as well, after which the signal does what it does (a sanitizer
    # would make an exit status of it).
    ASAN_OPTIONS=${ASAN_OPTIONS-}:handle_segv=0 CRASH_DUMP=crash.trc "$bin/echo_server" socket >crash.out 2>crash.log &
    server=$!
    wait_for crash.out listening
    kill -SEGV $server
    ends_with 139 $server 2>/dev/null
    for line in 'reason: a client asked for it' 'module: .*/echo_server'; do
        grep -aq "$line" dump.trc || complain "no '$line' in the dump"
    done
    grep -aq '^signal: 11 SIGSEGV' crash.trc || complain 'the crash left no dump'

    # Where nobody reads what it prints, it hangs in the callback that prints, and the reader of its
    # memory says so, where it is built and allowed to look.
    local trace=$bin/../tools/qvcl-trace
    mkfifo unread
    exec 8<>unread
    "$bin/echo_server" -r 1 stuck.socket >&8 2>stuck.log &
    server=$!
    read -rt 20 -u 8 _ # listening
    dd if=/dev/zero of=unread bs=4096 count=64 oflag=nonblock 2>/dev/null || true # until it is full
    for ((i = 0; i < 200; ++i)); do
        [[ -x $trace ]] || break
        "$trace" report pid:$server >stuck.out 2>&1 || true
        ! grep -Eq '^ .* callback TIMER .*#1 TIMER, since|not permitted' stuck.out || break
        sleep 0.05
    done
    [[ ! -x $trace ]] || expect stuck.out '^ .* callback TIMER .*#1 TIMER, since|not permitted'
    disown $server
    kill -KILL $server
    exec 8>&-

    # With more clients than it has descriptors for, the server says so and rests; whoever waits is
    # served when the others are gone.
    (ulimit -n 12; exec "$bin/echo_server" -r 1 socket) >full.out 2>full.log &
    server=$!
    wait_for full.out listening
    clients=()
    for i in {1..8}; do
        "$bin/echo_client" -n 1000000000 -w 60 socket >held"$i".out 2>&1 &
        clients+=($!)
    done
    wait_for full.log '^echo_server: full with [1-8] clients \(Too many open files\)'
    "$bin/echo_client" -n 10 -w 60 socket >late.out 2>&1 &
    client=$!
    wait_for late.out '^connected'
    kill -STOP "${clients[@]}"
    wait_for full.out '^[1-8] clients, .* \(0 new\)'
    local before
    before=$(ticks $server)
    sleep 1
    (($(ticks $server) - before < 50)) || complain 'the full server does not rest'
    disown "${clients[@]}"
    kill -KILL "${clients[@]}"
    ends_with 0 $client
    kill -TERM $server
    ends_with 0 $server
    (($(grep -c full full.log) <= 3)) || complain 'the full server repeats itself'

    # One that drops every connection is tried again with pauses, and not for ever.
    perl -MIO::Socket::UNIX -e 'my $server = IO::Socket::UNIX->new(Local => "drops", Listen => 9);
        while (1) { close $server->accept }' &
    server=$!
    ! timeout 20 "$bin/echo_client" -w 1 drops >dropped.out 2>&1 || complain 'served by nobody'
    expect dropped.out '^echo_client: no reply: '
    (($(grep -c connected dropped.out) < 15)) || complain 'connects again without a pause'
    disown $server
    kill -KILL $server
}

test_supervisor() {
    cat >programs.conf <<END
[1-steady]
command = $bin/worker
[2-crashes]
command = $bin/worker -c $work/crashed
[3-silent]
command = $bin/worker -q
patience = 1
[4-missing]
command = $work/missing
[5-deaf]
command = $work/deaf
patience = 1
[6-stopped]
command = $work/stopped
patience = 1
END
    printf '#!/bin/sh\ntrap "" TERM ABRT\nexec sleep 60\n' >deaf
    printf '#!/bin/sh\nkill -STOP $$\n' >stopped
    chmod +x deaf stopped
    "$bin/$name" socket programs.conf >conf.out 2>conf.log &
    local supervisor=$!
    wait_for conf.out '2-crashes: up' 2
    wait_for conf.out '4-missing: starting again in 2 s'
    wait_for conf.out 'all started'
    kill -TERM $supervisor
    ends_with 0 $supervisor
    in_order conf.out '1-steady: up' '2-crashes: started' '2-crashes: up' '3-silent: started' \
        '3-silent: has not reported in 1 s' '4-missing: cannot be started: No such file' \
        'all started' 'asking all to end' 'leak report clean'
    in_order conf.out '2-crashes: killed by signal 6' '2-crashes: starting again in 1 s' \
        '2-crashes: up' 'asking' '2-crashes: exited with 0'
    in_order conf.out 'asking' '1-steady: exited with 0'
    in_order conf.out 'asking' '3-silent: killed by signal 15'
    for stubborn in 5-deaf 6-stopped; do
        in_order conf.out 'asking' "$stubborn: did not end in 5 s" "$stubborn: killed by signal 9"
    done
    expect conf.out 'asked to end after'

    # From the command line; the programs notice when the supervisor is gone.
    "$bin/$name" socket -- "$bin/worker" '/bin/false -q' >line.out 2>line.log &
    supervisor=$!
    wait_for line.out 'false -q: starting again in 2 s'
    disown $supervisor
    kill -KILL $supervisor
    wait_for line.out 'supervisor lost after'

    ! timeout 20 "$bin/$name" socket /etc/passwd >bad.out 2>&1 || complain 'took a strange configuration'
    [[ $name == cpp_* ]] || expect bad.out '/etc/passwd, line 1: code 4'
}
test_cpp_supervisor() { test_supervisor; }

test_pool() {
    for threads in 1 4 16; do
        timeout 60 "$bin/pool" -t $threads -l 1000000 >pool.out 2>&1
        expect pool.out '^78498 primes below 1000000'
        expect pool.out 'leak report clean'
    done
}

test_nest() {
    mkfifo fifo
    "$bin/nest" -i 50 <fifo >nest.out 2>&1 &
    local nest=$!
    exec 7>fifo
    wait_for nest.out '^worst of [1-9]' 3
    echo hello >&7
    wait_for nest.out '^somebody says: hello$'
    exec 7>&-
    wait_for nest.out '^nobody says any more$'
    kill -TERM $nest
    ends_with 0 $nest
    in_order nest.out "^SIGTERM from process $$\$" 'leak report clean'
}

test_recorder() {
    local segment=/qvcl-example-$$
    mkfifo fifo
    "$bin/recorder" $segment records <fifo >recorder.out 2>recorder.log &
    local recorder=$!
    exec 7>fifo
    seq 1 500 >&7
    printf 'x%.0s' {1..1000} >&7
    echo >&7
    wait_for records '^00000500 500$'
    for _ in {1..20}; do
        echo more >&7
        timeout 20 "$bin/recorder_reader" $segment records >reader.out 2>&1 || complain 'board and file differ'
    done
    in_order reader.out '^5[0-9]+ records, the last: 00000' 'the file agrees' 'leak report clean'
    printf unfinished >&7
    exec 7>&-
    ends_with 0 $recorder
    tail -n 1 records | grep -Eq '^[0-9]{8} unfinished$' || complain 'the last line is lost'
    [[ $(cut -c1-8 records) == "$(seq -f %08g 1 "$(wc -l <records)")" ]] || complain 'records missing'
    [[ ! -e /dev/shm$segment ]] || complain 'the segment is left'
    ! timeout 20 "$bin/recorder_reader" $segment records >gone.out 2>&1 || complain 'read what is gone'
}

# Against the real bus, and clients that are not ours.
test_bus() {
    dbus-daemon --session --nofork --address="unix:path=$work/bus.socket" --print-address=1 >bus.out 2>bus.log &
    wait_for bus.out '^unix:'
    local bus=$!
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$work/bus.socket
    local peer server
    "$bin/bus" example.Peer >peer.out 2>peer.log &
    peer=$!
    wait_for peer.out serving
    "$bin/bus" example.Server example.Peer >server.out 2>server.log &
    server=$!
    wait_for server.out '^example.Peer: answers'
    dbus-monitor "interface='example.Reminder'" >monitor.out 2>&1 &
    wait_for monitor.out NameAcquired
    for i in {1..20}; do
        dbus-send --print-reply --dest=example.Server / example.Reminder.Remind \
            uint32:$((4000 - 150 * i)) string:"text $i" >>calls.out
    done
    wait_for monitor.out 'string "text [0-9]+"' 40 # the calls and the signals
    [[ $(grep -c 'uint32' calls.out) == 20 ]] || complain 'not every call was answered'
    # Whoever came last is due first.
    awk '/member=Due/ { due = 1 } due && /string/ { print $3 + 0; due = 0 }' monitor.out >due
    [[ $(tail -n 5 due) == $'5\n4\n3\n2\n1' ]] || complain 'not in the order of their times'

    # A peer that is stopped, and one that is gone.
    kill -STOP $peer
    wait_for server.out '^example.Peer: .*(NoReply|Timeout|TimedOut)'
    disown $peer
    kill -KILL $peer
    wait_for server.out '^example.Peer: .*ServiceUnknown'
    before=$(ticks $server)
    sleep 1
    (($(ticks $server) - before < 30)) || complain 'does not rest'
    kill -TERM $server
    ends_with 0 $server
    expect server.out 'leak report clean'

    # Without its bus it ends, and says why.
    "$bin/bus" example.Server >lost.out 2>lost.log &
    server=$!
    wait_for lost.out serving
    kill $bus
    ends_with 1 $server
    expect lost.log 'the bus is lost'
    expect lost.out 'leak report clean'
}

test_fetch() {
    mkdir files
    head -c 3000000 /dev/zero >files/large
    echo small >files/small
    # Python serves on a port that it chooses; and one that takes connections and says nothing.
    python3 -u -m http.server --bind 127.0.0.1 --directory files 0 >server.out 2>server.log &
    wait_for server.out 'port [0-9]+'
    local port silent
    port=$(grep -Eo 'port [0-9]+' server.out | cut -d' ' -f2)
    python3 -uc 'import socket, time; s = socket.create_server(("127.0.0.1", 0))
print("port", s.getsockname()[1]); time.sleep(60)' >silent.out &
    wait_for silent.out port
    silent=$(cut -d' ' -f2 silent.out)
    local urls=()
    for i in {1..30}; do
        urls+=("http://127.0.0.1:$port/large?$i" "http://127.0.0.1:$port/small?$i")
    done
    timeout 60 "$bin/fetch" -t 30 "${urls[@]}" >fetch.out 2>fetch.log || complain 'failed'
    [[ $(grep -c 'large.*: 200, 3000000 bytes' fetch.out) == 30 ]] || complain 'large ones are missing'
    [[ $(grep -c 'small.*: 200, 6 bytes' fetch.out) == 30 ]] || complain 'small ones are missing'
    in_order fetch.out '^60 fetched, 0 failed' 'leak report clean'
    timeout 20 "$bin/fetch" -t 1 "http://127.0.0.1:$silent/" http://127.0.0.1:1/ \
        "http://127.0.0.1:$port/none" >bad.out 2>bad.log || complain 'failed'
    in_order bad.out 'none: 404' "$silent/: Timeout was reached" '^1 fetched, 2 failed' 'leak report clean'
    expect bad.out '127.0.0.1:1/: Couldn'
}

# The clients of the C example cannot tell. One that floods and does not read stops nobody else.
test_cpp_echo() {
    "$bin/cpp_echo" socket dump.trc >server.out 2>server.log &
    local server=$! flood
    wait_for server.out listening
    timeout 20 "$bin/echo_client" -n 20000000 socket >flood.out 2>&1 &
    flood=$!
    kill -STOP $flood
    for size in 0 1 64 4096; do
        "$bin/echo_client" -n 200 -s $size -d socket >client$size.out 2>&1 &
        clients[size]=$!
    done
    for client in "${clients[@]}"; do ends_with 0 "$client"; done
    expect client4096.out '^200 round trips of 4096 bytes in [0-9.]+ s: [0-9]+ a second, 822400 bytes'
    for line in 'reason: a client asked for it' 'task: spawned echo.cpp:[0-9]*, waits echo.cpp:[0-9]* Ticker::next'; do
        grep -aq "$line" dump.trc || complain "no '$line' in the dump"
    done
    wait_for server.out '^[1-9][0-9]* messages'
    kill -TERM $server
    ends_with 0 $server
    kill -KILL $flood
    ! grep 'not released' server.log || complain 'something is left'
    [[ ! -e socket ]] || complain 'the socket file is left'
}

# get REQUEST: sends it as it is, and prints the answer. The port is in $port.
get() {
    exec 9<>"/dev/tcp/127.0.0.1/$port"
    printf '%b' "$1" >&9
    timeout 10 cat <&9
    exec 9>&-
}
test_cpp_metrics() {
    "$bin/cpp_metrics" >server.out 2>server.log &
    local server=$! port
    wait_for server.out '^http:'
    port=$(sed 's/.*:\([0-9]*\).*/\1/' server.out)
    exec 8<>"/dev/tcp/127.0.0.1/$port" # says nothing, and stops nobody
    get 'GET /metrics HTTP/1.1\r\nHost: here\r\n\r\n' >page.out
    get 'GET / HTTP/1.1\r\n\r\n' >other.out
    expect other.out '^HTTP/1.1 404'
    get 'GET /metrics HTTP/1.1\r\n\r\n' >again.out
    in_order again.out '^HTTP/1.1 200 OK' '^daemon_pages_total 2$' '^daemon_refused_total 1$' '^qvcl_objects '
    get "$(printf 'x%.0s' {1..9000})" >endless.out 2>&1 || true
    [[ ! -s endless.out ]] || complain 'answered what is no request'
    timeout 10 cat <&8 >silent.out || complain 'who says nothing is not closed'
    exec 8>&-
    kill -TERM $server
    ends_with 0 $server
    ! grep 'not released' server.log || complain 'something is left'
}

test_cpp_collector() {
    "$bin/cpp_collector" socket lines 15000 >server.out 2>server.log &
    local server=$!
    wait_for server.out listening
    for i in 0 1 2 3; do
        "$bin/cpp_collector" -c socket 1000 >client$i.out 2>&1 &
        clients[i]=$!
    done
    for client in "${clients[@]}"; do ends_with 0 "$client"; done
    "$bin/cpp_collector" -c socket 1 >last.out 2>&1
    expect last.out '^4001 lines, [0-9]+ bytes, [4-6] files, 0 failures, 1 clients'
    [[ $(cat lines* | wc -l) == 4001 ]] || complain "not all lines: $(wc -l lines*)"
    for file in lines*; do (($(wc -c <"$file") <= 15000)) || complain "$file is too long"; done
    kill -TERM $server
    ends_with 0 $server
    ! grep 'not released' server.log || complain 'something is left'
}

declare -a clients
"test_$name"
