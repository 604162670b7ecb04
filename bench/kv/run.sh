#!/bin/sh
# Load comparison of tarvo-kv against redis-server, in one run on one machine.
#
#   bench/kv/run.sh [path to tarvo-kv]          (make kv-bench builds it first)
#
# Starts redis-server (persistence off) and tarvo-kv on two free ports of 127.0.0.1, runs the
# same redis-benchmark workloads against each (-t ping_inline,set,get -c 50 -n 200000, once
# without pipelining and once with -P 16), then loads 1,000,000 keys with 16-byte values into
# each through redis-cli --pipe and compares the resident memory they added. Prints a table of
# requests/s with the ratio ours/theirs. Both servers are stopped on exit, however it ends.
#
# The machine may be shared and busy: each workload runs KV_BENCH_ROUNDS times (default 3),
# alternating between the two servers, and the table shows the medians.
#
# Environment: KV_BENCH_REQUESTS (default 200000), KV_BENCH_KEYS (default 1000000),
# KV_BENCH_ROUNDS (default 3).
set -eu

BIN=${1:-build/default/examples/tarvo-kv/tarvo-kv}
REQUESTS=${KV_BENCH_REQUESTS:-200000}
KEYS=${KV_BENCH_KEYS:-1000000}
ROUNDS=${KV_BENCH_ROUNDS:-3}

for tool in redis-server redis-cli redis-benchmark python3; do
  command -v "$tool" >/dev/null || { echo "kv-bench: $tool is not installed (scripts/install-deps)" >&2; exit 1; }
done
[ -x "$BIN" ] || { echo "kv-bench: no tarvo-kv at $BIN" >&2; exit 1; }

WORK=$(mktemp -d)
REDIS_PID=""
TARVO_PID=""
cleanup() {
  for pid in $REDIS_PID $TARVO_PID; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$WORK"
}
trap cleanup EXIT INT TERM

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}
wait_ready() {
  i=0
  until redis-cli -p "$1" PING >/dev/null 2>&1; do
    i=$((i + 1))
    [ $i -lt 100 ] || { echo "kv-bench: nothing answers on port $1" >&2; exit 1; }
    sleep 0.1
  done
}
rss_kb() {
  awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"
}

REDIS_PORT=$(free_port)
redis-server --port "$REDIS_PORT" --bind 127.0.0.1 --save '' --appendonly no --dir "$WORK" \
  --logfile "$WORK/redis.log" &
REDIS_PID=$!
TARVO_PORT=$(free_port)
"$BIN" --port "$TARVO_PORT" >"$WORK/tarvo.log" 2>&1 &
TARVO_PID=$!
wait_ready "$REDIS_PORT"
wait_ready "$TARVO_PORT"

# requests/s of one workload: redis-benchmark's CSV gives "TEST","rps",...
rps() {
  redis-benchmark -h 127.0.0.1 -p "$1" -c 50 -n "$REQUESTS" -t "$2" $3 --csv 2>/dev/null |
    awk -F'"' 'NR > 1 { print $4 }'
}

median() {
  tr ' ' '\n' | grep . | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}

echo "tarvo-kv against redis-server $(redis-server --version | sed 's/.*v=\([^ ]*\).*/\1/'), $(nproc) cores, -c 50 -n $REQUESTS, median of $ROUNDS alternating runs"
printf '%-12s %-9s %14s %14s %7s\n' test pipeline redis-server tarvo-kv ratio
for pipeline in 1 16; do
  for test in ping_inline set get; do
    option=""
    [ "$pipeline" = 1 ] || option="-P $pipeline"
    theirs_all=""
    ours_all=""
    round=0
    while [ $round -lt "$ROUNDS" ]; do
      theirs_all="$theirs_all $(rps "$REDIS_PORT" "$test" "$option")"
      ours_all="$ours_all $(rps "$TARVO_PORT" "$test" "$option")"
      round=$((round + 1))
    done
    theirs=$(echo "$theirs_all" | median)
    ours=$(echo "$ours_all" | median)
    printf '%-12s %-9s %14s %14s %7s\n' "$test" "$pipeline" "$theirs" "$ours" \
      "$(awk -v a="$ours" -v b="$theirs" 'BEGIN { printf "%.2f", a / b }')"
  done
done

# Memory: RSS added by KEYS keys of 16-byte values ("key:000000000001" -> "value:0000000001").
python3 - "$KEYS" >"$WORK/load.resp" <<'EOF'
import sys
out = sys.stdout.buffer
for i in range(int(sys.argv[1])):
    key = b"key:%012d" % i
    value = b"value:%010d" % i
    out.write(b"*3\r\n$3\r\nSET\r\n$%d\r\n%s\r\n$16\r\n%s\r\n" % (len(key), key, value))
EOF
for server in redis tarvo; do
  if [ $server = redis ]; then port=$REDIS_PORT pid=$REDIS_PID; else port=$TARVO_PORT pid=$TARVO_PID; fi
  redis-cli -p "$port" FLUSHALL >/dev/null
  before=$(rss_kb "$pid")
  redis-cli -p "$port" --pipe <"$WORK/load.resp" >/dev/null
  after=$(rss_kb "$pid")
  keys=$(redis-cli -p "$port" DBSIZE)
  eval "${server}_mem=$((after - before)) ${server}_keys=$keys ${server}_rss=$after"
done
printf '\n%-12s %14s %14s %7s\n' "memory" redis-server tarvo-kv ratio
printf '%-12s %14s %14s\n' "keys" "$redis_keys" "$tarvo_keys"
printf '%-12s %14s %14s %7s\n' "RSS KiB" "$redis_rss" "$tarvo_rss" \
  "$(awk -v a="$tarvo_rss" -v b="$redis_rss" 'BEGIN { printf "%.2f", a / b }')"
printf '%-12s %14s %14s %7s\n' "bytes/key" \
  "$(awk -v m="$redis_mem" -v k="$KEYS" 'BEGIN { printf "%.0f", m * 1024 / k }')" \
  "$(awk -v m="$tarvo_mem" -v k="$KEYS" 'BEGIN { printf "%.0f", m * 1024 / k }')" \
  "$(awk -v a="$tarvo_mem" -v b="$redis_mem" 'BEGIN { printf "%.2f", a / b }')"
