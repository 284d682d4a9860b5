// From the founder: this file is written in worktree /work/wt-tests3 (branch tests3). Do not write or commit it here; go on with server, client, exchange, thread and frame_fuzz.
