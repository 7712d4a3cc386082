// SPDX-License-Identifier: ISC
// The simulated router as the measuring programs use it: broker, routerd, log, an update server of
// their own, and the daemon. What only costs time is replaced: the installer takes the image away
// and returns, nothing sleeps, and `sync` does not write the host's disks. All other tools are the
// router's own.
#pragma once

#include <stdexcept>
#include <string>

#include "support/bus_services.h"
#include "support/daemon.h"
#include "support/fixture.h"
#include "support/http_server.h"
#include "support/images.h"
#include "support/manifest.h"
#include "support/router_files.h"
#include "support/syslog_catcher.h"

namespace bench
{

using namespace router_test;

inline constexpr const char *downloaded_image = "/tmp/fwupdate.bin";
inline constexpr const char *manifest_target = "/update.xml";
inline constexpr const char *firmware_target = "/firmware.bin";

inline void require(bool holds, const std::string &what)
{
	if (!holds) {
		throw std::runtime_error(what);
	}
}

inline std::string code_of(const Reply &reply)
{
	return text_of(reply.fields, "error_code");
}

class Router
{
public:
	Router()
	{
		files.set_manifest_url(server.url(manifest_target));
		files.install_tool("/sbin/sysupgrade",
				   std::string("rm -f ") + downloaded_image + "\n");
		files.install_tool("/bin/sleep", "exit 0\n");
		files.install_tool("/bin/sync", "exit 0\n");
	}

	void offer(const std::string &buildtime)
	{
		server.on(manifest_target, answer(to_xml({.buildtime = buildtime,
							  .url = server.url(firmware_target)})));
	}

	std::string good_image(std::size_t size) const
	{
		return make_uimage(noise(size), {.name = router_model()});
	}

private:
	SyslogCatcher log_;
	BusServices services_;

public:
	HttpServer server;
	RouterFiles files;
	Daemon daemon;
};

} // namespace bench
