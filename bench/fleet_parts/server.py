# SPDX-License-Identifier: ISC
"""An update server: nginx with publish/server's configuration on a simulated machine of
its own. Routers reach it through a unix socket in a folder that both see: the cable."""
import re
import shutil
import subprocess

from simulated_router import PROJECT, Router

SERVER = PROJECT / "publish/server"
PUBLISH = PROJECT / "publish/fwupdate-publish"

# One process: a sandbox has no second user to run workers as.
MAIN = """user root;
daemon on;
master_process off;
pid /var/run/nginx-update.pid;
error_log /var/log/nginx-error.log;
events {{ worker_connections 4096; }}
http {{
	include /etc/nginx/conf.d/*.conf;
	include /etc/nginx/sites-enabled/*;
	{extra}
}}
"""
CABLE = """server {{
		listen unix:{socket};
		access_log off;
		location / {{
			proxy_pass http://192.0.2.1;
			proxy_buffering off;
		}}
	}}"""
# On each router: what it sends to 192.0.2.1 goes into the cable.
ROUTER = """user root;
daemon on;
master_process off;
pid /var/run/nginx-cable.pid;
error_log /var/log/nginx-error.log;
events {{ }}
http {{
	access_log off;
	server {{
		listen 192.0.2.1:80;
		location / {{
			proxy_pass http://unix:{socket};
			proxy_buffering off;
			proxy_set_header Host $host;
		}}
	}}
}}
"""


class UpdateServer(Router):
    """Serves `root`, a new folder. `extra` goes into the `http` part as well."""

    def __init__(self, root, extra=""):
        super().__init__("--no-bus", "--no-server", "--no-syslog", server_root=root)
        self.extra = extra
        self.running = False

    def __enter__(self):
        super().__enter__()
        self.socket = self.folder / "cable"
        shutil.copytree(SERVER / "nothing", self.server_root / "nothing")
        (self.folder / "nginx.conf").write_text(MAIN.format(extra=CABLE.format(socket=self.socket) + self.extra))
        (self.folder / "router.conf").write_text(ROUTER.format(socket=self.socket))
        self.must("mkdir -p /etc/nginx/conf.d /etc/nginx/sites-enabled /var/log/nginx; ifconfig lo 127.0.0.1 up;"
                  f" cp {SERVER}/update.conf /etc/nginx/conf.d; cp {SERVER}/update-server.conf /etc/nginx/sites-enabled")
        return self

    def rollout(self, percent):
        """Sets the share of the candidate, and has nginx take it."""
        lines = (SERVER / "rollout.conf").read_text()
        step = f"\t{percent}% candidate;\n" if percent else ""
        (self.folder / "rollout.conf").write_text(re.sub(r"\t[0-9.]+% candidate;\n", step, lines))
        self.must(f"cp {self.folder}/rollout.conf /etc/nginx/rollout.conf")
        self.restart()

    def restart(self):
        """nginx reloads by itself only with a master process, which a sandbox cannot have."""
        if self.running:
            # Its socket goes last, after its pid file: a new one must not be there yet. A signal
            # that comes right before it waits for events is not seen until the next one.
            self.must("p=$(cat /var/run/nginx-update.pid) && while kill $p 2>/dev/null; do sleep 0.01; done")
        self.must(f"rm -f {self.socket}; /host/usr/sbin/nginx -c {self.folder}/nginx.conf")
        self.running = True

    def get(self, query, path="/update.xml"):
        return self.must(f"busybox wget -q -O- 'http://192.0.2.1{path}?{query}'")

    def log(self):
        """The access log's lines as dictionaries."""
        lines = self.must("cat /var/log/nginx/update.log").splitlines()
        names = ("time", "status", "bytes", "sn", "fw", "model", "channel", "address", "uri")
        return [{name: word.removeprefix(f"{name}=") for name, word in zip(names, line.split("\t"))} for line in lines]

    def publish(self, channel, image, build, *options):
        result = subprocess.run(
            [PUBLISH, "publish", image, "--version", f"v{build}", "--build", build, "--out", self.server_root / "model-x" / channel,
             "--url", f"http://192.0.2.1/model-x/{channel}", "--model", "MODEL-X", *options],
            capture_output=True, text=True)
        assert result.returncode == 0, result.stderr


class FleetRouter(Router):
    """A router with its own serial number, whose update server is `server`."""

    def __init__(self, server, serial):
        super().__init__("--no-server", folder=server.folder)
        self.serial = serial

    def __enter__(self):
        super().__enter__()
        self.must(f"echo {self.serial} >/etc/router/serial; /host/usr/sbin/nginx -c {self.folder}/router.conf")
        return self

    def build(self, number):
        self.run(f"sed -i 's/\"builddate\": .*/\"builddate\": \"{number}\"/' /etc/router/board.json")

    def update(self):
        """Updates as a nightly job would; returns (error code, checksum of what was
        installed or None). What is installed runs from then on."""
        self.run("rm -f /var/log/sysupgrade")
        reply = self.call("check")
        if reply["error_code"] != "0" or reply["need_update"] == "0":
            return reply["error_code"], None
        reply = self.call("update", attempts=2, timeout=120)
        if reply["error_code"] != "0":
            return reply["error_code"], None
        record = self.wait_for("cat /var/log/sysupgrade")
        self.build(reply["buildtime"])
        self.run("rm -f /tmp/fwupdate.bin")
        return "0", re.search("sha256: ([0-9a-f]{64})", record).group(1)

    def installed(self):
        return self.run("cat /var/log/sysupgrade").status == 0
