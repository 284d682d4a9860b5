#!/usr/bin/env bash
# What qvcl-kit sweep runs again and again: a server, a client that is served three times, the end of
# both. Exit status: 0, or 10 when the client was not served, plus 20 when the server failed.
#   qvcl-kit sweep -- echo_sweep.sh DIRECTORY_OF_THE_PROGRAMS
bin=$1
"$bin/echo_server" -r 1 socket &
server=$!
for _ in {1..25}; do
    [[ ! -S socket ]] || break
    sleep 0.02
done
"$bin/echo_client" -n 3 -s 100 -w 4 socket
client=$?
kill -TERM $server
wait $server
server=$?
exit $(((client != 0) * 10 + (server != 0) * 20))
