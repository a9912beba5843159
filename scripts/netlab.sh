# shellcheck shell=bash
# netlab.sh -- network-namespace lab pieces shared by scripts/lab.sh and the
# end-to-end tests (tests/e2e): namespaces joined by veth pairs, a Kea DHCPv6
# server, ISC dhclient, the relay daemon (or ISC dhcrelay in its place) and
# packet captures. Source it after setting:
#   NL_PREFIX  prefix of every namespace made (e.g. "lab-", "e2e-a-")
#   NL_WORK    a fresh working directory (configurations, logs, captures)
#   NL_SRC     the source tree, NL_BUILD the build directory
# nl_cleanup (installed as the EXIT trap by nl_init) stops every process
# started here, by its pid, and deletes the namespaces.

NL_PIDS=()
NL_NS=()
NL_KEEP=${NL_KEEP:-0}

nl_log() { printf '%s\n' "$*" >&2; }

# nl_require EXIT_CODE: leaves with EXIT_CODE and the reason when this host
# cannot run a lab (not root, a tool missing, no network namespaces).
nl_require() {
    local code=$1 tool
    if [ "$(id -u)" -ne 0 ]; then
        nl_log "needs root (network namespaces, raw sockets)"; exit "$code"
    fi
    for tool in ip kea-dhcp6 dhclient dhcrelay tcpdump python3 ss; do
        command -v "$tool" >/dev/null 2>&1 || { nl_log "missing tool: $tool (scripts/deps.sh installs it)"; exit "$code"; }
    done
    if ! ip netns add "${NL_PREFIX}probe" 2>/dev/null; then
        nl_log "cannot create a network namespace here"; exit "$code"
    fi
    ip netns del "${NL_PREFIX}probe"
}

nl_init() {
    mkdir -p "$NL_WORK"
    trap nl_cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
}

nl_cleanup() {
    local rc=$? pid ns
    trap - EXIT INT TERM
    # A caller's nl_on_fail prints its diagnostics while everything is there.
    if [ "$rc" -ne 0 ] && declare -F nl_on_fail >/dev/null; then nl_on_fail "$rc" || true; fi
    for pid in "${NL_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
    sleep 0.3
    for pid in "${NL_PIDS[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    # What is left in our namespaces was started from here too (dhclient
    # daemonises itself).
    for ns in "${NL_NS[@]}"; do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
        ip netns del "$ns" 2>/dev/null || true
    done
    if [ "$NL_KEEP" = 1 ]; then nl_log "kept $NL_WORK"; else rm -rf "$NL_WORK"; fi
}

# nl_sweep: removes namespaces of this prefix that a killed run left, and
# what still runs in them.
nl_sweep() {
    local ns pid
    for ns in $(ip netns list | awk '{print $1}' | grep "^$NL_PREFIX" || true); do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
        ip netns del "$ns" 2>/dev/null || true
    done
}

# nl_ns NAME: a namespace ${NL_PREFIX}NAME with loopback up and duplicate
# address detection off (dhclient cannot bind a tentative link-local address).
nl_ns() {
    local ns=${NL_PREFIX}$1
    ip netns add "$ns"
    NL_NS+=("$ns")
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0
    ip -n "$ns" link set lo up
}

nl_exec() { local ns=${NL_PREFIX}$1; shift; ip netns exec "$ns" "$@"; }

# nl_link NS1 IF1 NS2 IF2 [MAC1]: a veth pair between two namespaces, up.
nl_link() {
    ip link add "$2" ${5:+address $5} netns "${NL_PREFIX}$1" type veth peer name "$4" netns "${NL_PREFIX}$3"
    ip -n "${NL_PREFIX}$1" link set "$2" up
    ip -n "${NL_PREFIX}$3" link set "$4" up
}

# nl_addr NS IF ADDR/LEN
nl_addr() { ip -n "${NL_PREFIX}$1" -6 addr add "$3" dev "$2" nodad; }

# nl_bg NS LOGNAME CMD...: runs CMD in the namespace in the background,
# output in $NL_WORK/LOGNAME.log; its pid is in NL_LASTPID.
nl_bg() {
    local ns=${NL_PREFIX}$1 name=$2; shift 2
    ip netns exec "$ns" "$@" >"$NL_WORK/$name.log" 2>&1 &
    NL_LASTPID=$!
    NL_PIDS+=("$NL_LASTPID")
}

# nl_wait SECONDS CMD...: polls CMD every 0.1 s until it succeeds; 1 on timeout.
nl_wait() {
    local tries=$(($1 * 10)); shift
    while ! "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.1
    done
}

nl_listening() { ip netns exec "${NL_PREFIX}$1" ss -Huln "sport = :$2" | grep -q .; }

# nl_kea NS IFACE ADDR NAME [RENEW]: Kea on IFACE, answering relayed
# messages sent to ADDR; its log is $NL_WORK/NAME.log, its leases
# $NL_WORK/NAME-leases6.csv. RENEW (seconds) sets short timers.
nl_kea() {
    local ns=$1 iface=$2 addr=$3 name=$4 renew=${5:-1000}
    sed -e "s|@IFACE@|$iface|; s|@ADDR@|$addr|; s|@DIR@|$NL_WORK|g; s|@NAME@|$name|g" \
        -e "s|@RENEW@|$renew|; s|@REBIND@|$((renew * 2))|; s|@PREFERRED@|$((renew * 3))|" \
        -e "s|@VALID@|$((renew * 4))|; s|@SEVERITY@|${NL_KEA_SEVERITY:-INFO}|" \
        "$NL_SRC/examples/lab/kea-dhcp6.conf.in" >"$NL_WORK/$name.conf"
    # Its own pid and lock files, so that a Kea service of the host (if any)
    # and this one never meet.
    KEA_PIDFILE_DIR=$NL_WORK KEA_LOCKFILE_DIR=$NL_WORK \
        nl_bg "$ns" "$name-stdout" kea-dhcp6 -c "$NL_WORK/$name.conf"
    nl_wait 10 nl_listening "$ns" 547 || { nl_log "Kea did not start:"; cat "$NL_WORK/$name-stdout.log" "$NL_WORK/$name.log" >&2; return 1; }
}

# nl_relay NS HOSTMAP: the relay daemon with its chassis services, run
# directory $NL_WORK/run, debug output in $NL_WORK/relay.log.
NL_RUNDIR=
nl_relay() {
    NL_RUNDIR=$NL_WORK/run
    mkdir -p "$NL_RUNDIR"
    nl_bg "$1" relay "$NL_BUILD/dhcpv6relaymgr" --rundir "$NL_RUNDIR" --host-map "$2"
    if ! nl_wait 10 test -s "$NL_RUNDIR/dhcpv6relaymgr.pid" ||
        ! nl_wait 10 nl_cli -c "show running-config"; then
        nl_log "the relay daemon did not start:"; cat "$NL_WORK/relay.log" >&2; return 1
    fi
    # The daemon's process: its start-up thread ends, the pid file names it.
    NL_PIDS+=("$(cat "$NL_RUNDIR/dhcpv6relaymgr.pid")")
}

nl_cli() { "$NL_BUILD/dhcpv6-cli" --rundir "$NL_RUNDIR" "$@"; }

# nl_dhcrelay NS NAME ARGS...: ISC dhcrelay -6 in the foreground.
nl_dhcrelay() { local ns=$1 name=$2; shift 2; nl_bg "$ns" "$name" dhcrelay -6 -d "$@"; }

# nl_dhclient NS IFACE NAME [ARGS...]: dhclient -6 in the foreground on IFACE
# (default -N -P: an address and a delegated prefix). Lease file
# $NL_WORK/NAME.leases, script events $NL_WORK/NAME.events.
nl_dhclient() {
    local ns=$1 iface=$2 name=$3; shift 3
    [ $# -gt 0 ] || set -- -N -P
    sed "s|@LOG@|$NL_WORK/$name.events|" "$NL_SRC/examples/lab/dhclient-script.in" >"$NL_WORK/$name.script"
    chmod +x "$NL_WORK/$name.script"
    : >"$NL_WORK/$name.conf"
    NL_DHCLIENT_ARGS=(-cf "$NL_WORK/$name.conf" -lf "$NL_WORK/$name.leases"
        -pf "$NL_WORK/$name.pid" -sf "$NL_WORK/$name.script")
    nl_bg "$ns" "$name" dhclient -6 -d -v "$@" "${NL_DHCLIENT_ARGS[@]}" "$iface"
}

# nl_release NS IFACE NAME [ARGS...]: dhclient -6 -r for the client NAME.
nl_release() {
    local ns=$1 iface=$2 name=$3; shift 3
    [ $# -gt 0 ] || set -- -N -P
    nl_exec "$ns" dhclient -6 -r -v "$@" -cf "$NL_WORK/$name.conf" -lf "$NL_WORK/$name.leases" \
        -pf "$NL_WORK/$name.pid" -sf "$NL_WORK/$name.script" "$iface" >>"$NL_WORK/$name.log" 2>&1
}

nl_has_lease() { grep -q "${2:-iaaddr}" "$NL_WORK/$1.leases" 2>/dev/null; }

# nl_pd_prefix NAME: the prefix (ADDR/LEN) most recently delegated to the
# client NAME, from its lease file; nothing when it has none.
nl_pd_prefix() {
    { grep -o 'iaprefix [0-9a-f:]*/[0-9]*' "$NL_WORK/$1.leases" 2>/dev/null || true; } | tail -n 1 | cut -d' ' -f2
}

# nl_capture NS IFACE NAME [FILTER...]: tcpdump into $NL_WORK/NAME.pcap,
# returns once tcpdump listens. -U writes each packet as it comes.
nl_capture() {
    local ns=$1 iface=$2 name=$3; shift 3
    [ $# -gt 0 ] || set -- udp or vlan
    nl_bg "$ns" "$name-tcpdump" tcpdump -n -U -i "$iface" -w "$NL_WORK/$name.pcap" "$@"
    nl_wait 10 grep -q "listening on" "$NL_WORK/$name-tcpdump.log" ||
        { nl_log "tcpdump did not start:"; cat "$NL_WORK/$name-tcpdump.log" >&2; return 1; }
}

# nl_decode NAME: one line per DHCPv6 packet of the capture NAME.
nl_decode() { python3 "$NL_SRC/tests/e2e/pcap.py" "$NL_WORK/$1.pcap"; }
