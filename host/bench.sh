#!/usr/bin/env bash
# host/bench.sh KEYHOST   redis-benchmark against the server: with user threads and with kernel threads, and, where it is
# installed, against redis-server with appendfsync always. Requests per second and processor time of the server for each
# request. Both are on one machine: compare columns, not machines. SCALE=0.1 makes it shorter.
set -euo pipefail
[ $# -eq 1 ] || { sed -n '2,4s/^# //p' "$0" >&2 && exit 2; }
keyhost=$1
scale=${SCALE:-1}
work=$(mktemp -d)
pids=()
trap 'kill -KILL "${pids[@]}" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT

start_keyhost() { # NAME [OPTIONS]; sets pid and port
    local name=$1
    shift
    "$keyhost" --port 0 --dir "$work/$name" "$@" >"$work/$name.out" 2>&1 &
    pid=$!
    disown "$pid"  # its end is no news
    pids+=("$pid")
    port=
    for _ in $(seq 200); do
        port=$(sed -n 's/.*ready on [^:]*:\([0-9]*\),.*/\1/p' "$work/$name.out")
        [ -z "$port" ] || return 0
        sleep 0.1
    done
    cat "$work/$name.out" >&2
    exit 1
}

start_redis() { # a port that nothing listens on
    for port in $(shuf -i 20000-30000 -n 20); do
        mkdir -p "$work/redis"
        redis-server --port "$port" --dir "$work/redis" --save "" --appendonly yes --appendfsync always \
            --maxclients 10000 --loglevel warning >"$work/redis.out" 2>&1 &
        pid=$!
        sleep 0.5
        if redis-cli -p "$port" ping >/dev/null 2>&1; then
            pids+=("$pid")
            return 0
        fi
    done
    return 1
}

cpu() { awk '{print $14 + $15}' "/proc/$1/stat"; } # hundredths of a second

cases=(
    "PING c=50|-t ping_mbulk -c 50|100000"
    "GET c=50|-t get -c 50|100000"
    "GET c=50 P=16|-t get -c 50 -P 16|1000000"
    "GET c=2000|-t get -c 2000|100000"
    "GET c=2000 P=16|-t get -c 2000 -P 16|1000000"
    "SET c=64 durable|-t set -c 64|50000"
    "SET c=64 P=16|-t set -c 64 -P 16|200000"
    "INCR c=50 durable|-t incr -c 50|50000"
    "MSET c=50 durable|-t mset -c 50|30000"
)
declare -A result
run_all() { # COLUMN
    local line name options requests before after rate
    redis-cli -p "$port" set key:__rand_int__ VXK >/dev/null
    for line in "${cases[@]}"; do
        IFS='|' read -r name options requests <<<"$line"
        requests=$(awk "BEGIN {print int($requests * $scale)}")
        before=$(cpu "$pid")
        rate=$(redis-benchmark -p "$port" -n "$requests" --csv $options 2>/dev/null | tail -1 | cut -d, -f2 | tr -d '"')
        after=$(cpu "$pid")
        result["$1|$name"]=$(awk "BEGIN {printf \"%9.0f %6.2f\", \"$rate\", ($after - $before) * 10000 / $requests}")
    done
}

columns=(user-threads kernel-threads)
start_keyhost user-threads && run_all user-threads && kill -KILL "$pid"
start_keyhost kernel-threads --threads && run_all kernel-threads && kill -KILL "$pid"
if command -v redis-server >/dev/null && start_redis; then
    columns+=(redis-server)
    run_all redis-server
fi
printf '%-20s' "requests/s, us each"
printf '%18s' "${columns[@]}"
echo
for line in "${cases[@]}"; do
    name=${line%%|*}
    printf '%-20s' "$name"
    for column in "${columns[@]}"; do printf '%18s' "${result["$column|$name"]}"; done
    echo
done
