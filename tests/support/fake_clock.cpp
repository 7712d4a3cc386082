// SPDX-License-Identifier: ISC
#include "support/fake_clock.h"

#include <ctime>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace router_test
{
namespace
{

constexpr const char *control_file = "/var/clock";

} // namespace

FakeClock::FakeClock(std::int64_t speed)
{
	const int file = open(control_file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	void *mapping = MAP_FAILED;
	if (ftruncate(file, sizeof(ClockControl)) == 0) {
		mapping = mmap(nullptr, sizeof(ClockControl), PROT_READ | PROT_WRITE, MAP_SHARED,
			       file, 0);
	}
	close(file);
	if (mapping == MAP_FAILED) {
		throw std::runtime_error("cannot make a clock");
	}
	control_ = static_cast<ClockControl *>(mapping);
	control_->speed = speed;
}

FakeClock::~FakeClock()
{
	munmap(control_, sizeof(ClockControl));
	unlink(control_file);
}

std::vector<std::string> FakeClock::settings()
{
	// A sanitizer has to be told that another library may come first.
	const char *options = std::getenv("ASAN_OPTIONS");
	return {std::string("LD_PRELOAD=") + PRELOADED_CLOCK,
		std::string("FWUPDATE_TEST_CLOCK=") + control_file,
		std::string("ASAN_OPTIONS=verify_asan_link_order=0:") +
			(options != nullptr ? options : "")};
}

void FakeClock::set_wall_clock(std::int64_t seconds_ahead)
{
	control_->wall_offset = seconds_ahead;
}

void FakeClock::stop()
{
	timespec now = {};
	clock_gettime(CLOCK_MONOTONIC, &now);
	const auto true_time =
		std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
	control_->stopped_at = std::chrono::nanoseconds(true_time).count() * control_->speed;
}

void FakeClock::advance(std::chrono::milliseconds time)
{
	control_->stopped_at += std::chrono::nanoseconds(time).count();
}

void FakeClock::go_on()
{
	control_->stopped_at = 0;
}

} // namespace router_test
