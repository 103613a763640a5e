"""NetworkInterface_new against real interfaces, through build/netif_list.

Each case builds its interfaces in a fresh network namespace of its own
(unshare -n, nested inside the test namespace), so nothing touches the
machine's interfaces.
"""
import shutil
import subprocess

import pytest

from conftest import BUILD

pytestmark = pytest.mark.skipif(shutil.which("unshare") is None or shutil.which("ip") is None,
                                reason="needs unshare and ip")


def run_in_fresh_namespace(setup):
    """Runs `setup` (shell lines) in a new network namespace, then the lister.

    Returns the lister's nodes as tuples and the namespace's own view of
    index, MAC and IPv4 addresses per interface, taken from the same namespace.
    """
    script = r"""set -e
ip link set lo up
SETUP
echo '--- list'
LISTER
echo '--- system'
ip -o link show | sed -E 's|^([0-9]+): ([^:@]+)[^ ]* .*link/[a-z]+ ([0-9a-f:]+).*|\2 \1 \3|'
echo '--- addresses'
ip -o -4 addr show | awk '{print $2, $4}'
""".replace("SETUP", setup).replace("LISTER", str(BUILD / "netif_list"))
    out = subprocess.run(["unshare", "-n", "sh", "-c", script], check=True, capture_output=True,
                         text=True, timeout=30).stdout
    sections = {}
    name = None
    for line in out.splitlines():
        if line.startswith("--- "):
            name = line[4:]
            sections[name] = []
        elif name:
            sections[name].append(line.split())
    system = {dev: (int(index), mac) for dev, index, mac in sections["system"]}
    return sections["list"], system, sections["addresses"]


def test_loopback_only_gives_no_interface():
    nodes, _, addresses = run_in_fresh_namespace("")
    assert addresses == [["lo", "127.0.0.1/8"]]
    assert nodes == []


def test_up_ipv4_interfaces_one_node_per_interface():
    nodes, system, addresses = run_in_fresh_namespace("""
ip link add a0 type veth peer name a1
ip addr add 10.1.0.1/24 dev a0
ip addr add 10.2.0.1/24 dev a0
ip link set a0 up
ip addr add 10.3.0.1/24 dev a1
ip link add b0 type veth peer name b1
ip addr add 10.4.0.1/24 dev b0 label b0:7
ip addr add 10.4.0.2/24 dev b0
ip link set b0 up
ip link set b1 up
ip link add c0 type veth peer name c1
ip link set c0 up
ip addr add 10.5.0.1/24 dev c0
ip -o -4 addr show dev b0 | head -n 1 | grep -q 'b0:7'
""")
    # The namespace really has what the cases need: a down interface with an
    # address, and two addresses in a row on a0 and on b0.
    assert sorted(dev for dev, _ in addresses) == ["a0", "a0", "a1", "b0", "b0", "c0", "lo"]
    # Expected: the system's order of addresses, up and not loopback, first of each run.
    up = {"a0", "b0", "c0"}
    expected = []
    for dev, cidr in addresses:
        base = dev.split(":")[0]
        if base in up and (not expected or expected[-1][1] != base):
            expected.append((system[base][0], base, system[base][1], cidr.split("/")[0]))
    assert [(int(i), name, mac, address) for i, name, mac, address in nodes] == expected
    assert {node[1]: node[3] for node in nodes} == {"a0": "10.1.0.1", "b0": "10.4.0.1", "c0": "10.5.0.1"}
