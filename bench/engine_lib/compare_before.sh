#!/bin/bash
# Cost per event of the model library before feature normalisation and now,
# with one and the same benchmark binary (bench/engine_lib, this tree's
# sources): the library of an older commit is built from `git archive` and
# put in front of the current one with LD_LIBRARY_PATH. The library's ABI
# (BaseFactory, RaspFactory and the records) is the same on both sides.
#
# Two figures per case:
#   instructions per event: callgrind over exactly N iterations of the timed
#     loop (ENGINE_BENCH_ITERATIONS=N; the part between the loop's start and
#     end is dumped on its own), divided by N. Stable on a busy machine.
#   ns per event: the median of repetitions of the ordinary run (wall time;
#     noisy where other work shares the cores).
#
# Usage: bench/engine_lib/compare_before.sh [options]
#   --before COMMIT   the library before (default 14b0ba5, the last commit
#                     without normalisation)
#   --work DIR        where the old tree and both builds go (default
#                     build/compare-before)
#   --filter REGEX    the cases (default: all)
#   --iterations N    of the counted loop (default 4096: a whole turn of the
#                     NewLiterals cases' 4096 texts)
#   --repetitions R   of the timed runs (default 5)
#   --no-time / --no-instructions
# Needs valgrind for the instruction counts. Both builds use the native
# preset (clang) with DWARF 4, which valgrind 3.19 reads.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
before=14b0ba5
work="$root/build/compare-before"
filter=.
iterations=4096
repetitions=5
instructions=1
timing=1
while [ $# -gt 0 ]; do
    case "$1" in
        --before) before=$2; shift 2 ;;
        --work) work=$2; shift 2 ;;
        --filter) filter=$2; shift 2 ;;
        --iterations) iterations=$2; shift 2 ;;
        --repetitions) repetitions=$2; shift 2 ;;
        --no-time) timing=0; shift ;;
        --no-instructions) instructions=0; shift ;;
        *) echo "unknown option $1" >&2; exit 2 ;;
    esac
done

flags=(-DCMAKE_C_FLAGS=-gdwarf-4 -DCMAKE_CXX_FLAGS=-gdwarf-4)
now_build="$work/now-build"
old_src="$work/before-src"
old_build="$work/before-build"
old_lib="$work/before-lib"
mkdir -p "$work"

echo "== building the benchmark and today's library ($now_build)" >&2
(cd "$root" && cmake --preset native -B "$now_build" "${flags[@]}" > "$work/now-configure.log")
cmake --build "$now_build" --target engine_lib_bench > "$work/now-build.log"

echo "== building the library of $before ($old_build)" >&2
rm -rf "$old_src" "$old_lib"
mkdir -p "$old_src" "$old_lib"
git -C "$root" archive "$before" | tar -x -C "$old_src"
(cd "$old_src" && cmake --preset native -B "$old_build" "${flags[@]}" > "$work/before-configure.log")
cmake --build "$old_build" --target baseeng > "$work/before-build.log"
# Only the model library: the benchmark's other libraries stay today's.
cp "$old_build/stage/lib/libbaseeng.so" "$old_lib/"

bench="$now_build/bench/engine_lib_bench"
run() {  # side, then the benchmark's arguments
    local side=$1
    shift
    if [ "$side" = before ]; then
        LD_LIBRARY_PATH="$old_lib" "$bench" "$@"
    else
        "$bench" "$@"
    fi
}

mapfile -t cases < <("$bench" --benchmark_list_tests --benchmark_filter="$filter")

# Instructions per event of one case on one side.
count() {
    local side=$1 name=$2 out="$work/callgrind.$1.${2//\//_}"
    local environment=(ENGINE_BENCH_ITERATIONS="$iterations")
    [ "$side" = before ] && environment+=(LD_LIBRARY_PATH="$old_lib")
    env "${environment[@]}" valgrind --tool=callgrind --callgrind-out-file="$out" \
        --dump-before='benchmark::State::StartKeepRunning()' --dump-before='benchmark::State::FinishKeepRunning()' \
        "$bench" --benchmark_filter="^$name/iterations:" > /dev/null 2> "$out.log" ||
        { echo "callgrind failed: see $out.log" >&2; return 1; }
    awk -v n="$iterations" '/^summary:/ { printf "%.0f\n", $2 / n }' "$out.2"
}

declare -A ir_before ir_now ns_before ns_now
if [ $instructions = 1 ]; then
    for name in "${cases[@]}"; do
        echo "== instructions: $name" >&2
        count before "$name" > "$work/ir.before" &
        count now "$name" > "$work/ir.now"
        wait $!
        ir_before[$name]=$(cat "$work/ir.before")
        ir_now[$name]=$(cat "$work/ir.now")
    done
fi

# Median wall time per event (ns) of one case on one side. One run per case:
# the CSV report wants the same counters in every case of a run.
nanoseconds() {
    run "$1" --benchmark_filter="^$2\$" --benchmark_repetitions="$repetitions" \
        --benchmark_report_aggregates_only=true --benchmark_format=csv 2> /dev/null |
        awk -F, '$1 ~ /_median"$/ {
            unit = $5; scale = unit == "us" ? 1000 : unit == "ms" ? 1000000 : 1
            printf "%.0f\n", $3 * scale
        }'
}
if [ $timing = 1 ]; then
    for name in "${cases[@]}"; do
        echo "== time: $name" >&2
        ns_before[$name]=$(nanoseconds before "$name")
        ns_now[$name]=$(nanoseconds now "$name")
    done
fi

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a > 0 && b > 0) printf "%.2f", b / a; else printf "-" }'; }
echo
echo "Library before: $before; today: $(git -C "$root" rev-parse --short HEAD)$(git -C "$root" diff --quiet -- engine || echo ' with local changes')"
echo
echo "| Benchmark | instructions/event before | now | ratio | ns/event before | now | ratio |"
echo "|---|---:|---:|---:|---:|---:|---:|"
for name in "${cases[@]}"; do
    ib=${ir_before[$name]:--} in=${ir_now[$name]:--} tb=${ns_before[$name]:--} tn=${ns_now[$name]:--}
    echo "| $name | $ib | $in | $(ratio "$ib" "$in") | $tb | $tn | $(ratio "$tb" "$tn") |"
done
