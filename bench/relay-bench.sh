#!/usr/bin/env bash
# relay-bench.sh -- the relay load test: the same DHCPv6 load through ISC
# `dhcrelay -6` and through dhcpv6relaymgr, one after the other on the same
# links, and a table of what each achieved.
#
#   client ns (bench_load_gen) <-veth-> relay ns (the relay) <-veth-> server ns (bench_load_server)
#
# For each relay and each run: exchanges per second, latency p50/p99 as the
# clients see it, the relay's CPU per exchange (utime + stime of the relay
# process from /proc/PID/stat over the run, divided by the exchanges), its RSS
# (VmRSS sampled over the run: start, max, end, growth over the second half)
# and the ratios between the two.
# Runs:
#   throughput  closed loop, --window exchanges outstanding (64), --duration s (20)
#   latency     a fixed --rate (5000 exchanges/s) for --latency-duration s (20)
#   soak        closed loop for --soak-duration s (60) over --soak-clients (100000)
#
# Needs root (network namespaces). Exits 77 when it cannot run here.
set -euo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$SRC/build}
RUNS="throughput latency soak"
RELAYS="dhcrelay dhcpv6relaymgr"
WINDOW=64
DURATION=20
RATE=5000
LATENCY_DURATION=20
CLIENTS=10000
SOAK_DURATION=60
SOAK_CLIENTS=100000
PREFIX=rb-
KEEP=0

usage() {
    cat <<EOF
usage: bench/relay-bench.sh [options]
  --build DIR             build directory with bench_load_gen, bench_load_server,
                          dhcpv6relaymgr and dhcpv6-cli (default: \$BUILD or build)
  --runs "LIST"           among: throughput latency soak (default: all three);
                          lists may be written with blanks or commas
  --relays "LIST"         among: dhcrelay dhcpv6relaymgr minimal (default: the first
                          two; minimal is bench_load_fwd, the most these links,
                          clients and server carry on this host)
  --window N              outstanding exchanges in closed-loop runs (default 64)
  --duration S            throughput run length (default 20)
  --rate R                latency run rate, exchanges/s (default 5000)
  --latency-duration S    latency run length (default 20)
  --clients N             distinct clients in throughput and latency runs (default 10000)
  --soak-duration S       soak run length (default 60)
  --soak-clients N        distinct clients in the soak (default 100000)
  --profile               also record each relay's throughput run with perf and
                          print its top entries (perf-RELAY.data and
                          perf-RELAY.txt stay in the work directory)
  --nice N                run clients, server and relays at this nice value (e.g. -5,
                          so that other work on the host disturbs the numbers less)
  --rt P                  run them SCHED_FIFO at priority P instead (chrt -f P): on a
                          busy host, latency then shows the relay more than the
                          scheduler (wake-ups no longer wait for other work)
  --keep                  keep namespaces and work directory for a look afterwards
EOF
}

PROFILE=0
NICE=()
while [ $# -gt 0 ]; do
    case $1 in
        --build) BUILD=$2; shift 2 ;;
        --runs) RUNS=$2; shift 2 ;;
        --relays) RELAYS=$2; shift 2 ;;
        --window) WINDOW=$2; shift 2 ;;
        --duration) DURATION=$2; shift 2 ;;
        --rate) RATE=$2; shift 2 ;;
        --latency-duration) LATENCY_DURATION=$2; shift 2 ;;
        --clients) CLIENTS=$2; shift 2 ;;
        --soak-duration) SOAK_DURATION=$2; shift 2 ;;
        --soak-clients) SOAK_CLIENTS=$2; shift 2 ;;
        --profile) PROFILE=1; shift ;;
        --nice) NICE=(nice -n "$2"); shift 2 ;;
        --rt) NICE=(chrt -f "$2"); shift 2 ;;
        --keep) KEEP=1; shift ;;
        -h|--help) usage; exit 0 ;;
        *) usage >&2; exit 2 ;;
    esac
done

RELAYS=${RELAYS//,/ }
RUNS=${RUNS//,/ }
log() { printf '%s\n' "$*" >&2; }

# ---- can it run here ------------------------------------------------------
if [ "$(id -u)" -ne 0 ]; then log "relay-bench: needs root (network namespaces)"; exit 77; fi
command -v ip >/dev/null || { log "relay-bench: missing ip (iproute2)"; exit 77; }
command -v ethtool >/dev/null ||
    log "relay-bench: no ethtool: frames keep the checksums the links leave unfinished"
if [ "$PROFILE" = 1 ] && ! perf stat -e cpu-clock true >/dev/null 2>&1; then
    log "relay-bench: --profile needs a working perf (Debian package linux-perf)"; exit 77
fi
case " $RELAYS " in *" dhcrelay "*)
    command -v dhcrelay >/dev/null || { log "relay-bench: missing dhcrelay (Debian package isc-dhcp-relay)"; exit 77; } ;;
esac
GEN=$BUILD/bench_load_gen
SERVER=$BUILD/bench_load_server
DAEMON=$BUILD/dhcpv6relaymgr
CLI=$BUILD/dhcpv6-cli
for bin in "$GEN" "$SERVER"; do
    [ -x "$bin" ] || { log "relay-bench: $bin not built"; exit 1; }
done
case " $RELAYS " in *" dhcpv6relaymgr "*)
    for bin in "$DAEMON" "$CLI"; do [ -x "$bin" ] || { log "relay-bench: $bin not built"; exit 1; }; done ;;
esac
if ! ip netns add "${PREFIX}probe" 2>/dev/null; then log "relay-bench: cannot create network namespaces"; exit 77; fi
ip netns del "${PREFIX}probe"

NS_C=${PREFIX}client NS_R=${PREFIX}relay NS_S=${PREFIX}server
IF_C=${PREFIX}c0 IF_RC=${PREFIX}r0 IF_RS=${PREFIX}r1 IF_S=${PREFIX}s0
LINK_ADDR=2001:db8:10::1 RELAY_UP=2001:db8:20::1 SERVER_ADDR=2001:db8:20::2
WORK=$(mktemp -d /tmp/relay-bench.XXXXXX)
CLK_TCK=$(getconf CLK_TCK)
PIDS=()

cleanup() {
    local pid ns
    trap - EXIT
    for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
    sleep 0.2
    for pid in "${PIDS[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    if [ "$KEEP" = 1 ]; then log "kept: namespaces ${PREFIX}*, work directory $WORK"; return; fi
    for ns in "$NS_C" "$NS_R" "$NS_S"; do ip netns del "$ns" 2>/dev/null || true; done
    rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# stop PID: ends one process this script started, waits for it and forgets
# it (so that cleanup never signals a number the system has given to another).
stop() {
    local pid=$1 i keep=()
    if kill "$pid" 2>/dev/null; then
        for i in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    fi
    for i in "${PIDS[@]}"; do [ "$i" = "$pid" ] || keep+=("$i"); done
    PIDS=("${keep[@]}")
}

# ---- the links --------------------------------------------------------------
setup_links() {
    local ns
    for ns in "$NS_C" "$NS_R" "$NS_S"; do
        ip netns del "$ns" 2>/dev/null || true
        ip netns add "$ns"
        # Duplicate address detection off before any link exists: every
        # address is usable at once, and no Solicit leaves from a tentative one.
        ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0
        ip -n "$ns" link set lo up
    done
    ip link add "$IF_C" netns "$NS_C" type veth peer name "$IF_RC" netns "$NS_R"
    ip link add "$IF_RS" netns "$NS_R" type veth peer name "$IF_S" netns "$NS_S"
    # The kernel leaves UDP checksums of local sends to the device, and veth
    # never finishes them. Computing them at the sender gives every relay the
    # frames a real wire carries.
    if command -v ethtool >/dev/null; then
        ip netns exec "$NS_C" ethtool -K "$IF_C" tx off >/dev/null
        ip netns exec "$NS_R" ethtool -K "$IF_RC" tx off >/dev/null
        ip netns exec "$NS_R" ethtool -K "$IF_RS" tx off >/dev/null
        ip netns exec "$NS_S" ethtool -K "$IF_S" tx off >/dev/null
    fi
    ip -n "$NS_R" addr add "$LINK_ADDR/64" dev "$IF_RC" nodad
    ip -n "$NS_R" addr add "$RELAY_UP/64" dev "$IF_RS" nodad
    ip -n "$NS_S" addr add "$SERVER_ADDR/64" dev "$IF_S" nodad
    ip -n "$NS_C" link set "$IF_C" up
    ip -n "$NS_R" link set "$IF_RC" up
    ip -n "$NS_R" link set "$IF_RS" up
    ip -n "$NS_S" link set "$IF_S" up
    local i
    for i in $(seq 50); do
        ip -n "$NS_C" -6 addr show dev "$IF_C" scope link | grep -q 'inet6 fe80' && break
        sleep 0.1
    done
}

# ---- the relays ---------------------------------------------------------------
RELAY_PID=
PERF_PID=
WRAP=()
# With --profile each relay runs under perf record, started paused and
# switched on for the throughput run only. (Attaching to a running
# dhcpv6relaymgr would lose its symbols: its main thread ends, and with it the
# memory map perf reads from /proc/PID/maps.)
profile_wrap() {
    WRAP=()
    [ "$PROFILE" = 1 ] || return 0
    rm -f "$WORK/perf-ctl" "$WORK/perf-ack"
    mkfifo "$WORK/perf-ctl" "$WORK/perf-ack"
    WRAP=(perf record -F 2000 -g -D -1 --control "fifo:$WORK/perf-ctl,$WORK/perf-ack"
          -o "$WORK/perf-$1.data" --)
}

perf_ctl() {
    [ -n "$PERF_PID" ] || return 0
    echo "$1" >"$WORK/perf-ctl"
    read -r -t 5 _ <"$WORK/perf-ack" || true
}

# relay_started PID: the relay's own pid (under perf, the child perf started).
relay_started() {
    local i
    PIDS+=("$1")
    RELAY_PID=$1
    PERF_PID=
    if [ ${#WRAP[@]} -gt 0 ]; then
        PERF_PID=$1
        for i in $(seq 50); do
            RELAY_PID=$(pgrep -P "$PERF_PID" | head -1) && [ -n "$RELAY_PID" ] && break
            sleep 0.1
        done
        PIDS+=("$RELAY_PID")
    fi
}

start_dhcrelay() {
    ip netns exec "$NS_R" "${NICE[@]}" "${WRAP[@]}" dhcrelay -6 -d -q --no-pid -l "$IF_RC" -u "$SERVER_ADDR%$IF_RS" \
        >"$WORK/dhcrelay.log" 2>&1 &
    relay_started $!
}

start_minimal() {
    ip netns exec "$NS_R" "${NICE[@]}" "${WRAP[@]}" "$BUILD/bench_load_fwd" --lower "$IF_RC" --server "$SERVER_ADDR" \
        >"$WORK/minimal.log" 2>&1 &
    relay_started $!
}

start_dhcpv6relaymgr() {
    local rundir=$WORK/rundir i
    mkdir -p "$rundir"
    # The client link is port ethernet 1/1, untagged in VLAN 10, whose
    # interface holds the link's global address; the server side is a routed port.
    cat >"$WORK/hostmap.ini" <<EOF
[interface ethernet 1/1]
linux = $IF_RC
untagged = 10

[interface vlan 10]
linux = $IF_RC

[interface ethernet 1/2]
linux = $IF_RS
EOF
    ip netns exec "$NS_R" "${NICE[@]}" "${WRAP[@]}" "$DAEMON" --rundir "$rundir" --host-map "$WORK/hostmap.ini" \
        >"$WORK/dhcpv6relaymgr.log" 2>&1 &
    relay_started $!
    for i in $(seq 100); do [ -S "$rundir/ipc/336.0.1" ] && break; sleep 0.1; done
    for i in $(seq 30); do
        ip netns exec "$NS_R" "$CLI" --rundir "$rundir" -c "interface vlan 10" \
            -c "ipv6 helper-address $SERVER_ADDR" -c "end" >>"$WORK/cli.log" 2>&1 && return 0
        sleep 0.2
    done
    log "relay-bench: dhcpv6-cli could not configure the daemon (see below)"
    tail -5 "$WORK/cli.log" >&2
    return 1
}

# relay_answers: true once a few Solicits come back answered through the relay.
relay_answers() {
    local i out
    for i in $(seq 20); do
        kill -0 "$RELAY_PID" 2>/dev/null || return 1
        out=$(ip netns exec "$NS_C" "$GEN" --iface "$IF_C" --rate 200 --duration 0.3 \
              --timeout-ms 200 --clients 16 --label probe 2>&1 | grep '^LOADGEN' || true)
        [ "$(field "$out" answered)" -gt 0 ] 2>/dev/null && return 0
    done
    return 1
}

# ---- measuring ----------------------------------------------------------------
field() { sed -n "s/.* $2=\([^ ]*\).*/\1/p" <<<"$1" | head -1; }

cpu_ticks() { sed 's/.*) //' "/proc/$1/stat" | awk '{print $12 + $13}'; }

# The process's resident set. A thread-group leader that has ended its own
# thread (the daemon's main does) has no memory map of its own in
# /proc/PID/status; any live thread's status shows the shared one.
rss_kb() {
    local pid=$1 v t
    v=$(awk '/^VmRSS/{print $2}' "/proc/$pid/status" 2>/dev/null)
    if [ -z "$v" ]; then
        for t in /proc/"$pid"/task/*; do
            v=$(awk '/^VmRSS/{print $2}' "$t/status" 2>/dev/null) && [ -n "$v" ] && break
        done
    fi
    echo "${v:-0}"
}

sample_rss() {
    local pid=$1 out=$2 t0
    t0=$(date +%s.%N)
    while kill -0 "$pid" 2>/dev/null; do
        echo "$(awk -v a="$(date +%s.%N)" -v b="$t0" 'BEGIN{printf "%.1f", a-b}') $(rss_kb "$pid")" >>"$out"
        sleep 0.5
    done
}

declare -A R

# measure RELAY RUN GEN-ARGS...: one generator run through the running relay.
measure() {
    local relay=$1 run=$2; shift 2
    local samples=$WORK/rss-$relay-$run line c0 c1 sampler
    : >"$samples"
    sample_rss "$RELAY_PID" "$samples" &
    sampler=$!
    [ "$run" = throughput ] && perf_ctl enable
    c0=$(cpu_ticks "$RELAY_PID")
    line=$(ip netns exec "$NS_C" "${NICE[@]}" "$GEN" --iface "$IF_C" --label "$relay-$run" "$@" | tee -a "$WORK/gen.log" |
           grep "^LOADGEN" || true)
    c1=$(cpu_ticks "$RELAY_PID")
    [ "$run" = throughput ] && perf_ctl disable
    kill "$sampler" 2>/dev/null || true
    wait "$sampler" 2>/dev/null || true
    local answered cpu
    answered=$(field "$line" answered)
    cpu=$(awk -v t=$((c1 - c0)) -v h="$CLK_TCK" 'BEGIN{printf "%.2f", t / h}')
    R[$relay,$run,xps]=$(field "$line" xps)
    R[$relay,$run,p50]=$(field "$line" p50_us)
    R[$relay,$run,p99]=$(field "$line" p99_us)
    R[$relay,$run,lost]=$(field "$line" lost)
    R[$relay,$run,bad]=$(field "$line" bad)
    R[$relay,$run,answered]=$answered
    R[$relay,$run,cpu]=$cpu
    R[$relay,$run,cpux]=$(awk -v c="$cpu" -v n="$answered" 'BEGIN{printf "%.1f", (n > 0 ? c * 1e6 / n : 0)}')
    R[$relay,$run,rss]=$(awk 'NR==1{s=$2} {if ($2>m) m=$2; e=$2} END{printf "%d/%d/%d", s, m, e}' "$samples")
    # Growth over the second half of the run: by then a relay that keeps up
    # has seen every client, so a table that stops growing shows as +0.
    R[$relay,$run,rsshalf]=$(awk '{t[NR]=$1; v[NR]=$2} END{if (!NR) exit; h=t[NR]/2;
        for (i=1; i<=NR && t[i]<h; i++); printf "%+d", v[NR]-v[i]}' "$samples")
    log "  $relay $run: ${R[$relay,$run,xps]} exchanges/s, p50 ${R[$relay,$run,p50]} us," \
        "p99 ${R[$relay,$run,p99]} us, ${R[$relay,$run,cpux]} us CPU/exchange," \
        "RSS KB start/max/end ${R[$relay,$run,rss]}, lost ${R[$relay,$run,lost]}"
}

run_relay() {
    local relay=$1 run
    log "== $relay"
    profile_wrap "$relay"
    if ! "start_$relay" || ! relay_answers; then
        log "relay-bench: $relay does not relay; its log:"
        tail -20 "$WORK/$relay.log" >&2 || true
        [ -n "$RELAY_PID" ] && stop "$RELAY_PID"
        R[$relay,failed]=1
        return 0
    fi
    for run in $RUNS; do
        case $run in
            throughput) measure "$relay" throughput --window "$WINDOW" --duration "$DURATION" --clients "$CLIENTS" ;;
            latency) measure "$relay" latency --rate "$RATE" --window "$WINDOW" --duration "$LATENCY_DURATION" --clients "$CLIENTS" ;;
            soak) measure "$relay" soak --window "$WINDOW" --duration "$SOAK_DURATION" --clients "$SOAK_CLIENTS" ;;
            *) log "relay-bench: unknown run $run"; exit 2 ;;
        esac
    done
    stop "$RELAY_PID"
    [ -n "$PERF_PID" ] && stop "$PERF_PID"
    return 0
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN{ if (a > 0 && b > 0) printf "%.2fx", a / b; else printf "-" }'; }

# One row: a metric of every relay, and dhcpv6relaymgr against dhcrelay
# (HIGHER=1: more is better, so the ratio is ours over theirs; else theirs
# over ours). Above 1 means dhcpv6relaymgr does better.
row() {
    local run=$1 label=$2 metric=$3 key=$4 higher=$5 relay r=-
    printf '%-12s %-26s' "$label" "$metric"
    for relay in $RELAYS; do printf ' %16s' "${R[$relay,$run,$key]:--}"; done
    local ours=${R[dhcpv6relaymgr,$run,$key]:-0} theirs=${R[dhcrelay,$run,$key]:-0}
    if [ "$higher" = 1 ]; then r=$(ratio "$ours" "$theirs"); elif [ "$higher" = 0 ]; then r=$(ratio "$theirs" "$ours"); else r=; fi
    printf ' %10s\n' "$r"
}

print_table() {
    local run relay label
    printf '\n%-12s %-26s' run metric
    for relay in $RELAYS; do printf ' %16s' "$relay"; done
    printf ' %10s\n' "ours/dhcrelay"
    for run in $RUNS; do
        label=$run
        [ "$run" = latency ] && label="latency@$RATE"
        row "$run" "$label" "exchanges/s" xps 1
        row "$run" "" "p50 latency us" p50 0
        row "$run" "" "p99 latency us" p99 0
        row "$run" "" "CPU us/exchange" cpux 0
        row "$run" "" "RSS KB start/max/end" rss -
        row "$run" "" "RSS KB growth, 2nd half" rsshalf -
        row "$run" "" "lost exchanges" lost -
    done
    printf '(last column: dhcpv6relaymgr against dhcrelay, above 1 = dhcpv6relaymgr better)\n'
    # The same, one parseable line per relay and run.
    for relay in $RELAYS; do
        for run in $RUNS; do
            [ -n "${R[$relay,$run,xps]:-}" ] || continue
            printf 'RELAYBENCH relay=%s run=%s xps=%s p50_us=%s p99_us=%s cpu_us_per_exchange=%s' \
                "$relay" "$run" "${R[$relay,$run,xps]}" "${R[$relay,$run,p50]}" "${R[$relay,$run,p99]}" \
                "${R[$relay,$run,cpux]}"
            printf ' rss_kb=%s rss_kb_growth_2nd_half=%s lost=%s unmatched=%s\n' "${R[$relay,$run,rss]}" \
                "${R[$relay,$run,rsshalf]}" "${R[$relay,$run,lost]}" "${R[$relay,$run,bad]}"
        done
    done
}

# ---- the run --------------------------------------------------------------------
log "relay-bench: work directory $WORK"
setup_links
ip netns exec "$NS_S" "${NICE[@]}" "$SERVER" --iface "$IF_S" >"$WORK/server.log" 2>&1 &
SERVER_PID=$!
PIDS+=("$SERVER_PID")
for i in $(seq 50); do grep -q ready "$WORK/server.log" && break; sleep 0.1; done

for relay in $RELAYS; do run_relay "$relay"; done
stop "$SERVER_PID"
grep '^LOADSERVER received' "$WORK/server.log" >&2 || true

print_table
if [ "$PROFILE" = 1 ]; then
    for relay in $RELAYS; do
        [ -s "$WORK/perf-$relay.data" ] || continue
        perf report -i "$WORK/perf-$relay.data" --no-children --sort dso,symbol --percent-limit 0.5 \
            --stdio -g none 2>/dev/null >"$WORK/perf-$relay.txt" || true
        printf '\nperf, %s throughput run (self time by function):\n' "$relay"
        grep -E '^ +[0-9.]+%' "$WORK/perf-$relay.txt" | head -25
    done
    KEEP=1
fi
failed=0
for relay in $RELAYS; do [ -n "${R[$relay,failed]:-}" ] && failed=1; done
exit $failed
