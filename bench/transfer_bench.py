"""Transfer benchmark: a 1 GiB media file (a generated MP3 padded with data to
1 GiB, written once under /tmp) fetched with curl from our server and from
nginx with sendfile on, alternating, both on 127.0.0.1 inside the private
namespace; median MB/s of each and the ratio. nginx is started and stopped by
this script. --quick: a 16 MiB file fetched once from each, to show that it
works. Run: tools/netns-run /usr/bin/python3 bench/transfer_bench.py [--quick]"""
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from benchlib import BUILD, Dms, dms_client, require_namespace, verdict

QUICK = sys.argv[1:] == ["--quick"]
SIZE = 16 << 20 if QUICK else 1 << 30
RUNS = 1 if QUICK else 15  # per server, at least 10
RUN_TIMEOUT = 60  # seconds, per transfer
NO_RESCAN_SECONDS = 3600  # no periodic rescan of the library during the timed runs
SCAN_TIMEOUT = 30
TARGET_RATIO = 0.95
PAD_BLOCK = 1 << 20
NGINX = Path("/usr/sbin/nginx")
NGINX_PORT = 18080
NGINX_CONFIG = """worker_processes 1;
daemon off;
pid {prefix}/nginx.pid;
error_log {prefix}/error.log;
events {{ worker_connections 64; }}
http {{
  access_log off;
  sendfile on;
  tcp_nopush on;
  client_body_temp_path {prefix}/body;
  proxy_temp_path {prefix}/proxy;
  fastcgi_temp_path {prefix}/fastcgi;
  uwsgi_temp_path {prefix}/uwsgi;
  scgi_temp_path {prefix}/scgi;
  types {{ audio/mpeg mp3; }}
  server {{
    listen 127.0.0.1:{port};
    root {root};
  }}
}}
"""


def build_file(folder):
    """The demo MP3 with filler appended up to SIZE: its frames stay at the head."""
    demo = folder / "demo"
    subprocess.run([str(BUILD / "dms-mkdemo"), str(demo)], check=True, stdout=subprocess.DEVNULL)
    source = next(p for p in sorted(demo.rglob("*.mp3")))
    target = folder / "media" / "big.mp3"
    target.parent.mkdir()
    head = source.read_bytes()
    block = bytes(range(256)) * (PAD_BLOCK // 256)
    with open(target, "wb") as out:
        out.write(head)
        left = SIZE - len(head)
        while left:
            left -= out.write(block[:min(left, PAD_BLOCK)])
    shutil.rmtree(demo)
    return target


def wait_port(port, timeout=10):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return
        except OSError:
            time.sleep(0.05)
    sys.exit(f"nothing listens on port {port}")


def start_nginx(folder, root):
    prefix = folder / "nginx"
    prefix.mkdir()
    (prefix / "nginx.conf").write_text(NGINX_CONFIG.format(prefix=prefix, port=NGINX_PORT, root=root))
    nginx = subprocess.Popen([str(NGINX), "-p", str(prefix), "-c", str(prefix / "nginx.conf")],
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    wait_port(NGINX_PORT)
    return nginx


def media_url(port):
    """The /mediaitem URL of the library's only file, once the scan has listed it."""
    deadline = time.monotonic() + SCAN_TIMEOUT
    while time.monotonic() < deadline:
        _, objects, *_ = dms_client.browse(port, "0.1")
        match = [o for o in objects if o.get("element") == "item"]
        if match:
            return match[0]["res"][0]["url"]
        time.sleep(0.2)
    sys.exit("the scan did not list the file in time")


def fetch(url):
    """MB/s (10^6 bytes) of one GET with curl, after checking the whole file came."""
    result = subprocess.run(["curl", "-s", "-o", "/dev/null", "-w", "%{size_download} %{time_total}", url],
                            capture_output=True, text=True, timeout=RUN_TIMEOUT, check=True)
    size, seconds = result.stdout.split()
    if int(size) != SIZE:
        sys.exit(f"{url} sent {size} bytes, not {SIZE}")
    return SIZE / float(seconds) / 1e6


def main():
    require_namespace()
    with tempfile.TemporaryDirectory(prefix="dms-transfer-bench-", dir="/tmp") as temp:
        folder = Path(temp)
        folder.chmod(0o755)  # nginx's workers run as an unprivileged user
        target = build_file(folder)
        nginx = start_nginx(folder, target.parent) if NGINX.exists() else None
        server = Dms(folder / "server", f'path = "{target.parent}"\nrefreshInterval = "{NO_RESCAN_SECONDS}"\n')
        try:
            port = server.wait_ready()
            urls = {"dms": media_url(port)}
            if nginx:
                urls["nginx"] = f"http://127.0.0.1:{NGINX_PORT}/{target.name}"
            for url in urls.values():
                fetch(url)  # warms the page cache
            rates = {name: [] for name in urls}
            for _ in range(RUNS):
                for name, url in urls.items():
                    rates[name].append(fetch(url))
        finally:
            server.stop()
            if nginx:
                nginx.terminate()
                nginx.wait(timeout=10)

    medians = {name: statistics.median(values) for name, values in rates.items()}
    print(f"transfer_bench: GET of a {SIZE >> 20} MiB file over 127.0.0.1 with curl, {RUNS} alternating runs each, "
          f"warm page cache{' (quick mode)' if QUICK else ''}")
    print("| server | median MB/s | min MB/s | max MB/s |")
    print("| --- | ---: | ---: | ---: |")
    for name, values in rates.items():
        print(f"| {name} | {medians[name]:.0f} | {min(values):.0f} | {max(values):.0f} |")
    if "nginx" not in medians:
        print(f"target: no comparison: {NGINX} is missing (apt-get install nginx)")
        return
    ratio = medians["dms"] / medians["nginx"]
    print(f"target: at least {TARGET_RATIO:.0%} of nginx's median: {verdict(ratio >= TARGET_RATIO)} "
          f"({ratio:.1%})")


if __name__ == "__main__":
    main()
