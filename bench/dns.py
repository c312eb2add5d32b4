"""A network namespace with a DNS server on its loopback, for the resolver's rows."""

import os
import shutil
import subprocess
import tempfile

SERVER = ["dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-hosts", "--no-resolv",
          "--pid-file=", "--user=root", "--listen-address=127.0.0.1", "--bind-interfaces",
          "--local=/test/",
          "--host-record=one.bench.test,192.0.2.1,2001:db8::1",
          "--host-record=two.bench.test,192.0.2.2,2001:db8::2",
          "--srv-host=_sip._udp.bench.test,one.bench.test,5060,10,60",
          "--srv-host=_sip._udp.bench.test,two.bench.test,5060,10,30",
          "--naptr-record=bench.test,10,10,s,SIP+D2U,,_sip._udp.bench.test"]

# All on one CPU, the last: the server's too. $1 resolv.conf, the rest the command.
SCRIPT = """set -e
ip link set lo up
mount --bind "$1" /etc/resolv.conf
shift
cpu=$(( $(nproc --all) - 1 ))
taskset -c $cpu {server} &
server=$!
trap 'kill $server' EXIT
for try in $(seq 50); do
    getent ahosts one.bench.test >/dev/null && break
    sleep 0.1
done
"$@"
"""


def available():
    return shutil.which("dnsmasq") is not None and subprocess.run(
        [*namespace(), "true"], stderr=subprocess.DEVNULL).returncode == 0


def namespace():
    mapped = [] if os.getuid() == 0 else ["--map-root-user"]
    return ["unshare", "--net", "--mount", *mapped]


def run(command, environment):
    """Runs a command where bench.test resolves; nothing leaves the machine."""
    server = " ".join(f"'{word}'" for word in SERVER)
    with tempfile.NamedTemporaryFile("w", suffix=".conf") as resolv_conf:
        resolv_conf.write("nameserver 127.0.0.1\n")
        resolv_conf.flush()
        subprocess.run([*namespace(), "bash", "-c", SCRIPT.format(server=server), "bash",
                        resolv_conf.name, *command],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       env=dict(os.environ, **environment))
