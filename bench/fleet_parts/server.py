# SPDX-License-Identifier: ISC
"""An update server: nginx with publish/server's configuration on a simulated machine of
its own. Routers reach it through a unix socket in a folder that both see: the cable."""
import pathlib
import re
import shutil
import subprocess

from router_session import RouterSession

PROJECT = pathlib.Path(__file__).resolve().parent.parent.parent
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


class UpdateServer(RouterSession):
    """`served` is /srv/update. `extra` goes into the `http` part as well."""

    def __init__(self, folder, extra=""):
        super().__init__(folder, "--no-bus", "--no-server", "--no-syslog")
        self.socket = self.shared / "cable"
        shutil.copytree(SERVER / "nothing", self.served / "nothing", dirs_exist_ok=True)
        (self.shared / "nginx.conf").write_text(MAIN.format(extra=CABLE.format(socket=self.socket) + extra))
        (self.shared / "router.conf").write_text(ROUTER.format(socket=self.socket))
        self.must("mkdir -p /etc/nginx/conf.d /var/cache/nginx")
        self.must(f"cp {SERVER}/update-server.conf /etc/nginx/conf.d")
        self.running = False

    def must(self, command):
        status, text = self.run(command)
        assert status == 0, f"{command}: {text}"
        return text.rstrip("\n")

    def rollout(self, percent):
        """Sets the share of the candidate, and has nginx take it."""
        lines = (SERVER / "rollout.conf").read_text()
        step = f"\t{percent}% candidate;\n" if percent else ""
        (self.shared / "rollout.conf").write_text(re.sub(r"\t[0-9.]+% candidate;\n", step, lines))
        self.must(f"cp {self.shared}/rollout.conf /etc/nginx/rollout.conf")
        self.restart()

    def restart(self):
        """nginx reloads by itself only with a master process, which a sandbox cannot have."""
        if self.running:
            self.must("kill $(cat /var/run/nginx-update.pid); while [ -e /var/run/nginx-update.pid ]; do :; done")
        self.must(f"rm -f {self.socket}; /host/usr/sbin/nginx -c {self.shared}/nginx.conf")
        self.running = True

    def get(self, query, path="/update.xml"):
        return self.must(f"wget -q -O- 'http://192.0.2.1{path}?{query}'")

    def log(self):
        """The access log's lines as dictionaries."""
        lines = self.must("cat /var/log/nginx-update.log").splitlines()
        names = ("time", "status", "bytes", "uri")
        return [dict(zip(names, words[:4])) | dict(w.split("=", 1) for w in words[4:7]) | {"channel": words[7]}
                for words in map(str.split, lines) if len(words) == 8]

    def publish(self, channel, image, build, *options):
        result = subprocess.run(
            [PUBLISH, image, "--version", f"v{build}", "--build", build, "--out", self.served / "model-x" / channel,
             "--url", f"http://192.0.2.1/model-x/{channel}", "--model", "MODEL-X", *options],
            capture_output=True, text=True)
        assert result.returncode == 0, result.stderr


class FleetRouter(RouterSession):
    """A router with its own serial number, whose update server is `server`."""

    def __init__(self, folder, server, serial):
        folder.mkdir()
        super().__init__(folder, "--no-server", shared=server.shared)
        self.serial = serial
        self.cable = server.shared / "router.conf"

    def connect(self):
        status, text = self.run(f"echo {self.serial} >/etc/router/serial; /host/usr/sbin/nginx -c {self.cable}")
        assert status == 0, text

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
        record = self.await_file("/var/log/sysupgrade")
        self.build(reply["buildtime"])
        self.run("rm -f /tmp/fwupdate.bin")
        return "0", re.search("sha256: ([0-9a-f]{64})", record).group(1)

    def installed(self):
        return self.run("cat /var/log/sysupgrade")[0] == 0
