# shellcheck shell=bash
# One snapshot of the machine's network state for the diagnostics log.
# The helper runs this text as root with /bin/bash -c, so it is read from the
# helper itself and never from a file on disk; everything goes to standard
# output (standard error is the same pipe).
#
#   $1  WG_PATH      the bundle's wg, as a checked copy; empty when it has none
#   $2  VPN_GATEWAY  the router of the global IPv4 state; may be empty
#   $3  VPN_DNS      the first global DNS server; may be empty
#   $4  TUNNEL_IF    the primary interface when it is a utun; may be empty
#
# DYNAMIC_STORE_KEYS in the environment holds the helper's rendering of its
# dynamic store keys (the store lives inside the helper on Linux).

PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export PATH LC_ALL=C

wg_path="${1:-}"
vpn_gateway="${2:-}"
vpn_dns="${3:-}"
tunnel_if="${4:-}"

dns_test_hosts=("www.example.com" "www.cloudflare.com")
encyclopedia_host="en.wikipedia.org"
small_page_host="www.example.com"
large_page_url="https://en.wikipedia.org/wiki/Special:Random"
ipv4_internet="1.1.1.1"
ipv4_internet_2="8.8.8.8"
ipv6_internet="2606:4700:4700::1111"

have() {
  command -v "$1" >/dev/null 2>&1
}

# Prefixes every line read from standard input with "$1".
prefix_lines() {
  local prefix="$1" line
  while IFS= read -r line || [ -n "${line}" ]; do
    printf '%s%s\n' "${prefix}" "${line}"
  done
}

# Names of tunnel interfaces: utun as on the client's other platform, the
# tun/wg names the Linux VPN programs use, and TUNNEL_IF.
tunnel_interfaces() {
  ip -o link show 2>/dev/null |
    awk -F': ' -v tunnel="${tunnel_if}" '{ sub(/@.*/, "", $2); if ($2 ~ /^(utun|tun|wg)/ || $2 == tunnel) print $2 }'
}

# Name servers of the resolver configuration, one a line.
resolver_nameservers() {
  if have resolvectl && resolvectl dns >/dev/null 2>&1; then
    resolvectl dns 2>/dev/null | sed -e 's/^[^:]*:[[:space:]]*//' | tr ' ' '\n' | sed -e '/^$/d' -e 's/#.*//'
  elif [ -r /etc/resolv.conf ]; then
    awk '$1 == "nameserver" && NF >= 2 { print $2 }' /etc/resolv.conf
  fi
}

resolver_source() {
  if have resolvectl && resolvectl dns >/dev/null 2>&1; then
    echo "resolvectl"
  else
    echo "/etc/resolv.conf"
  fi
}

# dig SERVER NAME TYPE LABEL TIMEOUT: short answers prefixed with the label.
dig_query() {
  local server="$1" name="$2" type="$3" label="$4" timeout="$5" output
  if ! have dig; then
    echo "${label}: dig not available"
    return
  fi
  if output="$(dig "@${server}" "${name}" "${type}" "+time=${timeout}" +tries=1 +short 2>&1)"; then
    [ -n "${output}" ] && printf '%s\n' "${output}" | prefix_lines "${label}: "
  else
    [ -n "${output}" ] && printf '%s\n' "${output}" | prefix_lines "${label}: "
    echo "${label}: dig exited with an error (server unreachable or query failed)"
  fi
}

# ping_once LABEL COMMAND_NAME ARGS...: one echo request, output prefixed.
ping_once() {
  local label="$1" command_name="$2"
  shift 2
  if ! have "${command_name}"; then
    echo "${label}: ${command_name} not available"
    return
  fi
  "${command_name}" "$@" 2>&1 | prefix_lines "${label}: "
}

route_decision() {
  local family="$1" target="$2"
  ip "${family}" route get "${target}" 2>&1 | grep -v '^[[:space:]]*cache' || true
}

section_processes() {
  echo "--- Processes"
  ps ax -o pid=,user=,command= 2>&1 |
    awk '/[w]ireguard|[a]mnezia|[k]orvo|[o]penvpn|[v]pnc|[o]penconnect/'
}

section_wg_state() {
  echo "--- WireGuard state"
  if [ -z "${wg_path}" ] || [ ! -x "${wg_path}" ]; then
    echo "wg helper binary is not available or not executable at '${wg_path}'"
  else
    "${wg_path}" show all dump 2>&1
  fi
}

section_tunnel_interfaces() {
  echo "--- utun interfaces"
  local interface
  for interface in $(tunnel_interfaces); do
    ip addr show dev "${interface}" 2>&1 |
      awk 'NR == 1 || /inet |inet6 |mtu|flags/'
  done
}

section_route_decisions() {
  echo "--- IPv4 route decisions"
  local target
  for target in "${vpn_gateway}" "${vpn_dns}" "${ipv4_internet}" "${ipv4_internet_2}"; do
    [ -n "${target}" ] || continue
    echo "route get ${target}"
    route_decision -4 "${target}"
  done
  echo "--- IPv6 route decisions"
  echo "route get -inet6 ${ipv6_internet}"
  route_decision -6 "${ipv6_internet}"
}

section_routes_and_dns() {
  echo "--- IPv4 routes"
  ip -4 route show table all 2>&1
  echo "--- IPv6 routes"
  ip -6 route show table all 2>&1
  echo "--- DNS"
  if have resolvectl && resolvectl status >/dev/null 2>&1; then
    resolvectl status 2>&1
  elif [ -r /etc/resolv.conf ]; then
    echo "### /etc/resolv.conf"
    cat /etc/resolv.conf
  else
    echo "no resolver configuration found"
  fi
}

section_dynamic_store() {
  echo "--- Dynamic Store DNS/IPv4 keys"
  if [ -n "${DYNAMIC_STORE_KEYS:-}" ]; then
    printf '%s\n' "${DYNAMIC_STORE_KEYS}"
  else
    echo "dynamic store not available"
  fi
}

section_dns_resolution() {
  echo "--- DNS resolution tests"
  local name server
  if [ -n "${vpn_dns}" ]; then
    echo "-- direct queries against current global resolver (${vpn_dns})"
    for name in "${dns_test_hosts[@]}"; do
      dig_query "${vpn_dns}" "${name}" A "global-dns->${name}" 2
    done
  fi
  echo "-- direct queries against public resolvers"
  for server in "${ipv4_internet}" "${ipv4_internet_2}"; do
    for name in "${dns_test_hosts[@]}"; do
      dig_query "${server}" "${name}" A "${server}->${name}" 2
    done
  done
  echo "-- system resolver (respects scoped/split DNS configuration)"
  for name in "${dns_test_hosts[@]}"; do
    if have getent; then
      timeout 5 getent ahosts "${name}" 2>&1 | prefix_lines "system-resolver: "
    else
      echo "system-resolver: getent not available"
    fi
  done
}

# Resolver records as "scope|nameservers|interface line", one a line.
dns_resolvers() {
  if have resolvectl && resolvectl status >/dev/null 2>&1; then
    resolvectl status 2>/dev/null | awk '
      function flush() {
        if (servers == "") return
        scope = "GLOBAL (all other domains)"
        if (domain != "" && domain != "~.") scope = "scoped to search domain \"" domain "\""
        print scope "|" servers "|" ifline
      }
      /^Global/ { flush(); servers = ""; domain = ""; ifline = "if_index : none (global)" }
      /^Link [0-9]+ / { flush(); servers = ""; domain = ""
        ifline = "if_index : " $2 " " $3 }
      /DNS Servers:/ { sub(/.*DNS Servers:[[:space:]]*/, ""); gsub(/#[^ ]*/, ""); gsub(/ +/, ","); servers = $0 }
      /DNS Domain:/ { sub(/.*DNS Domain:[[:space:]]*/, ""); split($0, d, " "); domain = d[1] }
      END { flush() }'
  elif [ -r /etc/resolv.conf ]; then
    awk '
      $1 == "nameserver" && NF >= 2 { servers = servers (servers == "" ? "" : ",") $2 }
      END { if (servers != "") print "GLOBAL (all other domains)|" servers "|if_index : none (resolv.conf)" }
    ' /etc/resolv.conf
  fi
}

section_dns_scope() {
  echo "--- DNS scope/reachability check"
  echo "Each resolver below answers either for its search domain only (scoped) or for all other names (global)."
  echo "A resolver marked NOT-REACHABLE has no route to its first name server."
  echo "If the global resolver is not reachable, names outside every scoped domain cannot be resolved."
  local scope servers ifline first reach
  while IFS='|' read -r scope servers ifline; do
    first="${servers%%,*}"
    reach="NOT-REACHABLE"
    if [ -n "${first}" ] && ip route get "${first}" >/dev/null 2>&1; then
      reach="reachable"
    fi
    printf 'dns-scope: %s | nameservers=%s | %s | %s\n' "${scope}" "${servers}" "${ifline}" "${reach}"
    if [ "${scope}" = "GLOBAL (all other domains)" ] && [ "${reach}" = "NOT-REACHABLE" ]; then
      echo "dns-scope: *** WARNING: global resolver is NOT reachable -- lookups for domains outside any scoped search domain will fail or stall ***"
    fi
  done < <(dns_resolvers)
}

# address_family_queries KIND SERVER: the encyclopedia host's A and AAAA
# records asked of one name server.
address_family_queries() {
  local kind="$1" server="$2" type prefix output
  have dig || return 0
  for type in A AAAA; do
    prefix="dns-af: ${kind}(${server})->${encyclopedia_host}(${type}): "
    if output="$(dig "@${server}" "${encyclopedia_host}" "${type}" +time=3 +tries=1 +short 2>&1)"; then
      printf '%s\n' "${output}" | prefix_lines "${prefix}"
    else
      echo "${prefix}query failed/timed out"
    fi
  done
}

section_dns_address_families() {
  echo "--- DNS A/AAAA record-type check (IPv4 vs IPv6 nameserver behavior)"
  local ipv4_ns ipv6_ns
  ipv4_ns="$(resolver_nameservers | grep -v ':' | head -n 1)"
  ipv6_ns="$(resolver_nameservers | grep ':' | head -n 1)"
  [ -n "${ipv4_ns}" ] && address_family_queries ipv4-ns "${ipv4_ns}"
  if [ -z "${ipv6_ns}" ]; then
    echo "dns-af: no IPv6 nameserver configured/found in $(resolver_source)"
  else
    address_family_queries ipv6-ns "${ipv6_ns}"
  fi
}

section_mtu() {
  echo "--- MTU"
  local primary_if interface
  primary_if="$(ip -4 route show default 2>/dev/null | awk '{ for (i = 1; i < NF; i++) if ($i == "dev") { print $(i + 1); exit } }')"
  if [ -n "${primary_if}" ]; then
    echo "primary interface: ${primary_if}"
    ip link show dev "${primary_if}" 2>&1 | awk 'NR == 1' | prefix_lines "primary-if-mtu ${primary_if}: "
  else
    echo "primary interface: could not be determined"
  fi
  for interface in $(tunnel_interfaces); do
    ip link show dev "${interface}" 2>&1 | awk 'NR == 1' | prefix_lines "utun-mtu ${interface}: "
  done
}

section_reachability() {
  echo "--- Reachability"
  [ -n "${vpn_gateway}" ] && ping_once "ping vpn gateway" ping -c 1 -W 1 "${vpn_gateway}"
  [ -n "${vpn_dns}" ] && ping_once "ping vpn dns" ping -c 1 -W 1 "${vpn_dns}"
  ping_once "ping ipv4 internet" ping -c 1 -W 1 "${ipv4_internet}"
  ping_once "ping ipv6 internet" ping -6 -c 1 -W 1 "${ipv6_internet}"
}

# df_sweep TARGET LABEL: don't-fragment pings of growing payloads.
df_sweep() {
  local target="$1" label="$2" size output
  echo "-- DF (don't-fragment) ping sweep to ${target} (${label})"
  if ! have ping; then
    echo "${label}: ping not available"
    return
  fi
  output="$(mktemp)" || return
  for size in 1200 1350 1400 1440 1472 1500; do
    if ping -M "do" -c 1 -W 1 -s "${size}" "${target}" >"${output}" 2>&1; then
      echo "${label}: payload=${size}B (total ~$((size + 28))B) OK"
    else
      echo "${label}: payload=${size}B (total ~$((size + 28))B) FAILED"
    fi
    prefix_lines "${label} payload=${size}B: " <"${output}"
  done
  rm -f "${output}"
}

section_fragmentation() {
  echo "--- Fragmentation diagnostics"
  [ -n "${vpn_gateway}" ] && df_sweep "${vpn_gateway}" "vpn-gateway"
  df_sweep "${ipv4_internet}" "internet"
}

section_http() {
  echo "--- HTTP payload tests (small vs. large response, checks for fragmentation-related stalls)"
  if ! have curl; then
    echo "curl not available"
    return
  fi
  local format='http_code=%{http_code} size=%{size_download} time_total=%{time_total}\n'
  curl -m 8 -sS -o /dev/null -w "${format}" "https://${small_page_host}/" 2>&1 |
    prefix_lines "curl-small(${small_page_host}): "
  curl -m 8 -sS -o /dev/null -w "${format}" "${large_page_url}" 2>&1 |
    prefix_lines "curl-large(wikipedia-random): "
}

section_processes
section_wg_state
section_tunnel_interfaces
section_route_decisions
section_routes_and_dns
section_dynamic_store
section_dns_resolution
section_dns_scope
section_dns_address_families
section_mtu
section_reachability
section_fragmentation
section_http
exit 0
