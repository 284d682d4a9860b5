#!/usr/bin/env bash
# What qvcl-kit sweep runs again and again: starts an example, uses it, compares what came with what was
# sent, and ends it.
#   qvcl-kit sweep -- sweep.sh EXAMPLE DIRECTORY_OF_THE_PROGRAMS
# Exit status: 0, or the first complaint's: 1 the start was refused, 2 never ready, 3 not served, 4 lost,
# 5 doubled or wrong, 6 ended by itself, 7 ended with a failure, 8 does not tell what happened.
name=$1 bin=$2 status=0 server='' seen=server.out
mkfifo input
exec 7<>input
: >server.out

complain() {
    echo "$name: complaint $1: $2"
    ((status != 0)) || status=$1
}
# wait_for PATTERN: until a line matches of what the server printed; as long as it lives, at most three
# seconds, and not at all when something was wrong before.
wait_for() {
    local alive=1 end=$((SECONDS + 3))
    while ((SECONDS < end)); do
        kill -0 "$server" 2>/dev/null && ((status == 0)) || alive=0
        ! grep -Eqs -- "$1" "$seen" || return 0
        ((alive)) || return 1
        sleep 0.02
    done
    return 1
}
# start READY PROGRAM ARGUMENT...: what it prints is in server.out, what it reads comes from 7.
start() {
    "$bin/$2" "${@:3}" <input >>server.out 7>&- &
    server=$!
    wait_for "$1" && return
    kill -0 "$server" 2>/dev/null && { complain 2 'never ready'; return; }
    wait "$server" && complain 6 'ended before it was ready'
    complain 1 'the start was refused'
    return 1
}
# twice COMMAND...: the fault may have hit the first client. Who was not served once is not later.
twice() { ((status != 0)) || timeout 2 "$@" || timeout 2 "$@" || complain 3 'two clients were not served'; }
# asked: asks for the end. ends: waits for it, without a limit: who does not come is found as a hang.
asked() { kill -TERM "$server" 2>/dev/null || complain 6 'had ended by itself'; }
ends() { wait "$server" || complain 7 "ended with $?"; }
# count N PATTERN: exactly so many lines that the server printed match.
count() {
    local found
    found=$(grep -Ec -- "$2" server.out)
    ((found >= $1)) || complain 4 "$found of $1 lines: $2"
    ((found <= $1)) || complain 5 "$found for $1 lines: $2"
}

# The client compares each reply with its request.
echo_with() {
    start listening "$@" || return
    twice "$bin/echo_client" -n 3 -s 100 -w 3 -d socket
    twice "$bin/echo_client" -n 2 -s 4096 -w 3 socket
    asked
    ends
}
sweep_echo() { echo_with echo_server -r 1 -d dump socket; }
sweep_cpp_echo() { echo_with cpp_echo socket dump; }

# Two programs that report, one of which is killed, and one that is not there. The fault may have hit
# one that reports: then it is started again after a second.
supervise() {
    local program steady
    printf '[%s]\ncommand = %s\npatience = 1\n' \
        1-steady "$bin/worker" 2-killed "$bin/worker" 3-missing /missing >conf
    start 'all started' "$1" socket conf || return
    for program in 1-steady 2-killed; do
        wait_for "^$program: (up|has not reported)" || complain 3 "$program is not up"
    done
    kill -KILL "$(sed -n 's/^2-killed: started as //p' server.out | tail -n 1)"
    wait_for '^2-killed: killed by signal 9' || complain 8 'an end is not told'
    asked
    ends
    steady=$(grep -c '^1-steady: started' server.out)
    count "$steady" '^1-steady: (exited|killed)'
    count 1 '^2-killed: killed by signal 9'
    ! grep 'did not end in' server.out || complain 4 'a request to end is lost'
}
sweep_supervisor() { supervise supervisor; }
sweep_cpp_supervisor() { supervise cpp_supervisor; }

sweep_recorder() {
    local segment=/qvcl-sweep-${QVCL_KIT_RUN-0}
    printf '%s\n' {1..5} >&7
    seen=records
    start '^00000005 5$' recorder "$segment" records || return
    twice "$bin/recorder_reader" "$segment" records
    printf last >&7
    exec 7>&-
    ends
    printf '%08d %s\n' 1 1 2 2 3 3 4 4 5 5 6 last | cmp - records || complain 4 'other records'
}

sweep_pool() {
    start '^3245 primes below 30000' pool -t 2 -l 30000
    ends
}

sweep_nest() {
    start '^worst of' nest -i 20 || return
    echo hello >&7
    wait_for '^somebody says: hello$' || complain 4 'what was said is lost'
    exec 7>&-
    wait_for '^nobody says any more$' || complain 8 'the end of the input is not told'
    asked
    ends
    count 1 'somebody says'
    count 1 '^SIGTERM from process'
}

# get PATH: the head and the body of the answer, whole. A shell of its own, because who writes to a
# server that is gone is killed.
get() (
    exec 9<>"/dev/tcp/127.0.0.1/$port" || exit
    printf 'GET %s HTTP/1.1\r\n\r\n' "$1" >&9
    cat <&9 >page
    tr -d '\r' <page | awk 'body { bytes += length + 1 } $0 == "" { body = 1 }
        $1 == "Content-Length:" { told = $2 } END { exit !body || bytes != told }'
)
sweep_cpp_metrics() {
    start '^http:' cpp_metrics || return
    local port
    port=$(sed 's/.*:\([0-9]*\).*/\1/' server.out)
    export port
    export -f get
    twice bash -c 'get /'
    twice bash -c 'get /metrics'
    grep -q '^daemon_pages_total [12]$' page || complain 8 'pages are not counted'
    asked
    ends
}

# A line of which the client was told that it is stored is there once, and no other twice.
sweep_cpp_collector() {
    start listening cpp_collector socket lines 60 || return
    twice "$bin/cpp_collector" -c socket 5
    twice "$bin/cpp_collector" -c socket 4
    asked
    ends
    cat lines* | sort >all
    [[ -z $(uniq -d all) ]] || complain 5 'lines are doubled'
    (($(grep -c 'says 4$' all) > 0 && $(grep -c 'says 3$' all) > 1)) || complain 4 'lines are lost'
    rm -f lines.[0-9] # more than otherwise when a client has come twice
}

"sweep_$name"
((status == 0)) || exit "$status"
