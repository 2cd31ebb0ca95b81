#!/usr/bin/env bash
# Builds the fuzz preset and runs every fuzz target for SECONDS (default 60)
# on a scratch copy of its committed corpus, two targets at a time (the
# committed corpus never grows here: new inputs stay in the scratch copy).
# Prints the executions of each target; exits non-zero when any target finds
# a crash, a leak, a sanitizer report or a broken check, leaving the input in
# build/fuzz/findings/. Usage: bash fuzz/run.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
targets=(client_command proxy_buffer descriptor_blob path net_frame net_serve)
# The serving target builds a whole process per input, and a registry keeps
# its "handles" node for good (tools/sanitizers/lsan.supp): a leak scan after
# every input would take most of its time. It fuzzes without the scan, and
# its whole corpus is then replayed with it.
declare -A leak_scan=([client_command]=0 [net_serve]=0)

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

out=build/fuzz/findings
rm -rf "$out" build/fuzz/corpus-work
mkdir -p "$out" build/fuzz/corpus-work
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export LSAN_OPTIONS=suppressions=$PWD/tools/sanitizers/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

run_target() {
  local name=$1 work=build/fuzz/corpus-work/$1 binary=build/fuzz/fuzz/kt_fuzz_$1
  mkdir -p "$work"
  cp fuzz/corpus/"$name"/* "$work"/
  "$binary" -max_total_time="$seconds" -detect_leaks="${leak_scan[$name]:-1}" \
    -artifact_prefix="$out/$name-" -print_final_stats=1 "$work" >"$out/$name.log" 2>&1 &&
    { [ "${leak_scan[$name]:-1}" = 1 ] ||
      "$binary" -runs=0 -detect_leaks=1 -artifact_prefix="$out/$name-" "$work" \
        >>"$out/$name.log" 2>&1; }
}

status=0
jobs=$(nproc 2>/dev/null || echo 2)
[ "$jobs" -gt 2 ] && jobs=2
pids=()
names=()
for name in "${targets[@]}"; do
  run_target "$name" &
  pids+=($!)
  names+=("$name")
  if [ ${#pids[@]} -ge "$jobs" ]; then
    wait "${pids[0]}" || { echo "FINDING in ${names[0]}: see $out/${names[0]}.log"; status=1; }
    pids=("${pids[@]:1}")
    names=("${names[@]:1}")
  fi
done
for i in "${!pids[@]}"; do
  wait "${pids[$i]}" || { echo "FINDING in ${names[$i]}: see $out/${names[$i]}.log"; status=1; }
done

for name in "${targets[@]}"; do
  runs=$(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$out/$name.log" |
         grep -o '[0-9]*$' || echo "?")
  printf '%-16s %12s executions in %ss\n' "$name" "$runs" "$seconds"
done
if ls "$out"/*-crash-* "$out"/*-leak-* "$out"/*-timeout-* "$out"/*-oom-* >/dev/null 2>&1; then
  ls "$out"
  status=1
fi
[ "$status" = 0 ] && echo "fuzz: no findings" || echo "fuzz: FINDINGS, inputs and logs in $out"
exit "$status"
