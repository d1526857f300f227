#!/bin/sh
# First frame of velmorand-connect, offscreen: per run, the program's own figure (milliseconds
# from process start to the window's first swapped frame, --report-first-frame) and the wall time
# of the whole run, start to exit, in milliseconds.
#   bench/first-frame.sh DATA_DIR [RUNS] [PROGRAM]
data_dir=${1:?usage: first-frame.sh DATA_DIR [RUNS] [PROGRAM]}
runs=${2:-50}
program=${3:-build/release/bin/velmorand-connect}
i=0
while [ "$i" -lt "$runs" ]; do
    start=$(date +%s%N)
    reported=$(QT_QPA_PLATFORM=offscreen "$program" --data-dir "$data_dir" --report-first-frame \
        2>/dev/null | awk '{print $4}')
    end=$(date +%s%N)
    echo "$reported $(((end - start) / 1000000))"
    i=$((i + 1))
done
