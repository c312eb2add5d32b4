#!/bin/bash
# Runs a test program beside an authoritative name server, with a zone of ours, and a time server,
# which leaves the clock alone: in network and mount namespaces of their own, so that nothing leaves
# the machine and nothing outside sees the test.
#
# usage: servers_test.sh <directory of the servers> <test program> [argument...]
#
# Where that cannot be done, says why and ends with 77.
set -euo pipefail

skip() {
    echo "skipped: $1"
    exit 77
}

if [ "$1" != --inside ]; then
    [ -x "$1/nsd" ] && [ -x "$1/chronyd" ] || skip "no servers in $1; scripts/servers fetches them"
    [ -e /etc/resolv.conf ] && [ -e /etc/nsswitch.conf ] ||
        skip "no /etc/resolv.conf and /etc/nsswitch.conf to put others over"
    inside=(unshare --net --mount)
    [ "$(id -u)" -eq 0 ] || inside+=(--map-root-user)
    "${inside[@]}" true || skip "this system does not allow network and mount namespaces"
    exec "${inside[@]}" bash "$0" --inside "$@"
fi
servers=$2 program=$3
shift 3

dir=$(mktemp -d)
cd "$dir"
trap 'kill $(jobs -p); wait; rm -rf "$dir"' EXIT

cat >resolv.conf <<'END'
nameserver 127.0.0.1
search hnetd.test
options timeout:1 attempts:1
END
echo 'hosts: files dns' >nsswitch.conf
for file in resolv.conf nsswitch.conf; do
    mount --bind "$file" "/etc/$file"
done

cat >nsd.conf <<'END'
server:
  ip-address: 127.0.0.1
  username: ""
  zonesdir: ""
  database: ""
  pidfile: ""
  zonelistfile: zones
  xfrdfile: transfers
  rrl-ratelimit: 0
remote-control:
  control-enable: no
zone:
  name: hnetd.test
  zonefile: zone
END
cat >zone <<'END'
$ORIGIN hnetd.test.
$TTL 300
@        SOA   ns admin 1 3600 600 86400 60
@        NS    ns.elsewhere.test.
two      600 A 192.0.2.1
two      600 A 192.0.2.2
two      700 AAAA 2001:db8::2
six      AAAA  2001:db8::6
alias    CNAME hop
hop      CNAME two
text     TXT   "no address"
sip1     A     192.0.2.11
sip1     AAAA  2001:db8::11
sip2     A     192.0.2.12
_sip._udp SRV  20 0 5062 sip2
_sip._udp SRV  10 5 5061 nowhere
_sip._udp SRV  10 9 5060 sip1
_sip._tcp SRV  1  1 5070 sip2
@        NAPTR 20 1 "s" "SIP+D2U" "" _sip._udp
@        NAPTR 10 1 "S" "sip+d2t" "" _sip._tcp
other    NAPTR 1 1 "u" "E2U+sip" "!^.*$!sip:info@hnetd.test!" .
clock    A     192.0.2.99
clock    A     127.0.0.1
clock6   AAAA  ::1
END
printf 'many A 198.51.100.%d\n' {1..60} >>zone
printf '%s\n' 'local stratum 1' 'allow all' 'cmdport 0' "pidfile $dir/chrony.pid" >chrony.conf

ip link set lo up
export LD_LIBRARY_PATH=$servers/lib
setpriv --pdeathsig KILL "$servers/nsd" -d -c nsd.conf >nsd.log 2>&1 &
setpriv --pdeathsig KILL "$servers/chronyd" -d -x -u root -f "$dir/chrony.conf" >chrony.log 2>&1 &
unset LD_LIBRARY_PATH
"$program" "$@" || { cat nsd.log chrony.log && false; }
