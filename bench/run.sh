#!/usr/bin/env bash
# Builds the bench preset, runs every benchmark (medians of 3 repetitions) and
# prints one table: figure, baseline, ratio, target, met or missed. Ratios are
# taken against baselines measured in the same run.
#
#   bash bench/run.sh                     # build, run, print
#   bash bench/run.sh --table-only FILE   # print the table of an earlier run
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/bench/results.json
if [[ "${1:-}" == "--table-only" ]]; then
  out="$2"
else
  cmake --preset bench >/dev/null
  cmake --build --preset bench
  ./build/bench/bench/kt_benchmarks --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true --benchmark_min_time=0.2 \
    --benchmark_out="$out" --benchmark_out_format=json >&2
fi

python3 - "$out" <<'PY'
import json, sys

runs = json.load(open(sys.argv[1]))["benchmarks"]
median = {r["run_name"]: r for r in runs if r.get("aggregate_name") == "median"}
if not median:  # a run without repetitions
    median = {r["run_name"]: r for r in runs}

def ns(name):
    r = median[name]
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[r["time_unit"]]
    return r["real_time"] * scale

def counter(name, key):
    return median[name][key]

rows = []
def row(figure, value, unit, baseline=None, base_value=None, target=None, met=None):
    ratio = "" if base_value is None else "%.2fx" % (value / base_value)
    rows.append((figure, "%.1f %s" % (value, unit), baseline or "", ratio, target or "",
                 "" if met is None else ("met" if met else "MISSED")))

sp = ns("BM_SamplePath/1/64")
handoff = ns("BM_Handoff/1/64")
row("sample path, ungrouped, 1 consumer, 64 B", sp, "ns", "hand-off 1/64", handoff,
    "<= 2x hand-off", sp / handoff <= 2)
group = ns("BM_SamplePathGroupOf3/64") / 3
row("sample path, group of 3, 64 B (per sample)", group, "ns", "hand-off 1/64", handoff,
    "<= 2x hand-off", group / handoff <= 2)
row("sample path, ungrouped, 1 consumer, 64 B", sp, "ns", None, None, "< 100 ns", sp < 100)
for consumers in (1, 4, 16):
    for size in (8, 64, 1024):
        args = "%d/%d" % (consumers, size)
        v = ns("BM_SamplePath/" + args)
        row("sample path, %d consumers, %d B" % (consumers, size), v, "ns",
            "hand-off %s" % args, ns("BM_Handoff/" + args))
        row("  (same)", v, "ns", "direct call %s" % args, ns("BM_Direct/" + args))
for consumers in (1, 4, 16):
    args = "%d/64" % consumers
    row("sample path, batched, %d consumers, 64 B" % consumers, ns("BM_SamplePathBatched/" + args),
        "ns", "hand-off " + args, ns("BM_Handoff/" + args))
    row("sample path, time-based, %d consumers, 64 B" % consumers,
        ns("BM_SamplePathTimeBased/" + args), "ns", "hand-off " + args, ns("BM_Handoff/" + args))
row("sample path, group of 3, 64 B (per cycle)", ns("BM_SamplePathGroupOf3/64"), "ns",
    "direct call, 3 samples", ns("BM_DirectGroupOf3/64"))

rw_read = ns("BM_ReadWriteLockRead/real_time/threads:1")
sh_read = ns("BM_StdSharedMutexRead/real_time/threads:1")
row("ReadWriteLock read lock+unlock, 1 thread", rw_read, "ns", "std::shared_mutex shared",
    sh_read, "<= 3x", rw_read / sh_read <= 3)
row("ReadWriteLock read lock+unlock, 2 threads", ns("BM_ReadWriteLockRead/real_time/threads:2"),
    "ns", "std::shared_mutex shared", ns("BM_StdSharedMutexRead/real_time/threads:2"))
for threads in (1, 2):
    t = "/real_time/threads:%d" % threads
    row("ReadWriteLock write lock+unlock, %d thread(s)" % threads, ns("BM_ReadWriteLockWrite" + t),
        "ns", "std::shared_mutex exclusive", ns("BM_StdSharedMutexWrite" + t))
    row("  (same)", ns("BM_ReadWriteLockWrite" + t), "ns", "std::mutex", ns("BM_StdMutex" + t))
    row("Monitor lock+unlock, %d thread(s)" % threads, ns("BM_Monitor" + t), "ns", "std::mutex",
        ns("BM_StdMutex" + t))

r1k = ns("BM_ResolveHandle/1000")
r1m = ns("BM_ResolveHandle/1000000")
row("handle resolution, 1k nodes", r1k, "ns")
row("handle resolution, 100k nodes", ns("BM_ResolveHandle/100000"), "ns", "1k nodes", r1k)
row("handle resolution, 1M nodes", r1m, "ns", None, None, "< 200 ns", r1m < 200)
row("handle resolution, 1M nodes", r1m, "ns", "1k nodes", r1k, "<= 2x", r1m / r1k <= 2)
row("GetPath, 4 levels (client manager)", ns("BM_GetPath4Levels"), "ns", "Path::GetChild",
    ns("BM_PathGetChild4Levels"))
row("GetMetrics, 10k metrics under 10 publishers", ns("BM_GetMetrics10k") / 1e6, "ms")
mem = counter("BM_MetricMemory/iterations:1", "bytes_per_metric")
row("heap per published metric", mem, "B", None, None, "<= 1536 B", mem <= 1536)
row("heap per subscription (binding, buffer)",
    counter("BM_MetricMemory/iterations:1", "bytes_per_subscription"), "B")
one = counter("BM_PublisherThreads/1/manual_time", "items_per_second")
two = counter("BM_PublisherThreads/2/manual_time", "items_per_second")
row("samples/s, 2 publisher threads, 2 conduits", two / 1e3, "k/s", "1 thread", one / 1e3,
    ">= 1.6x", two / one >= 1.6)
h1 = counter("BM_HandoffThreads/1/manual_time", "items_per_second")
h2 = counter("BM_HandoffThreads/2/manual_time", "items_per_second")
row("samples/s, 2 hand-off threads (the machine's ceiling)", h2 / 1e3, "k/s", "1 thread", h1 / 1e3)

for kind in ("ipc", "tcp"):
    link = ns("LinkRoundTrip/%s/real_time" % kind) / 1e3
    bare = ns("BareRoundTrip/%s/real_time" % kind) / 1e3
    row("GetResourceInfo round trip, %s link" % kind, link, "us",
        "bare DEALER/ROUTER, same bytes", bare, "<= 1.5x", link / bare <= 1.5)

header = ("figure", "value", "baseline", "ratio", "target", "result")
print("| " + " | ".join(header) + " |")
print("|" + "|".join("---" for _ in header) + "|")
for r in rows:
    print("| " + " | ".join(r) + " |")
PY
