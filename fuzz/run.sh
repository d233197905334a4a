#!/usr/bin/env bash
# Runs every fuzz target for FUZZ_SECONDS seconds, starting from its checked-in
# seed corpus, and fails on the first finding. New inputs go to a scratch
# corpus in the build directory, never into the checked-in seeds; a finding
# is kept under <build>/findings/.
#   fuzz/run.sh <build directory> [target...]
set -euo pipefail

build=$(cd "${1:?usage: run.sh <build directory> [target...]}" && pwd)
shift
seeds=$(cd "$(dirname "$0")" && pwd)/corpus
seconds=${FUZZ_SECONDS:-60}
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_identifiers fuzz_monikers fuzz_status fuzz_sysstrings
                                     fuzz_registry fuzz_memory fuzz_parser fuzz_image fuzz_idl)

mkdir -p "$build/findings"
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    mkdir -p "$corpus"
    log="$build/findings/$target.log"
    status=0
    "$build/$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$build/findings/$target-" "$corpus" "$seeds/$target" >"$log" 2>&1 ||
        status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "$target: ${runs:-?} executions in $seconds seconds, exit status $status"
    if [ "$status" -ne 0 ]; then
        grep -E 'invariant broken|ERROR|SUMMARY|Test unit written' "$log" >&2 || tail -20 "$log" >&2
        exit 1
    fi
done
