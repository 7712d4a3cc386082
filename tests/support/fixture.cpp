// SPDX-License-Identifier: ISC
#include "support/fixture.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <json-c/json.h>
#include <stdexcept>

namespace router_test
{
namespace
{

constexpr const char *board_file = "/etc/router/board.json";

std::vector<pid_t> running_processes()
{
	std::vector<pid_t> running;
	for (const ProcessEntry &entry : all_processes()) {
		running.push_back(entry.pid);
	}
	return running;
}

bool is_in(const auto &list, const auto &value)
{
	return std::find(list.begin(), list.end(), value) != list.end();
}

std::string board_text(const char *member, const char *inner = nullptr)
{
	json_object *board = json_object_from_file(board_file);
	json_object *value = json_object_object_get(board, member);
	if (inner != nullptr) {
		value = json_object_object_get(value, inner);
	}
	const char *text = json_object_get_string(value);
	std::string result = text != nullptr ? text : "";
	json_object_put(board);
	return result;
}

} // namespace

std::string router_model()
{
	std::string model = board_text("product_name");
	std::transform(model.begin(), model.end(), model.begin(), [](unsigned char letter) {
		return static_cast<char>(std::toupper(letter));
	});
	return model;
}

std::string router_builddate()
{
	return board_text("release", "builddate");
}

void RouterFixture::SetUp()
{
	require_router();
	files_before_ = list_folder("/tmp");
	processes_before_ = running_processes();
}

void RouterFixture::TearDown()
{
	files.restore();
	remove_new_processes();
	for (const std::string &name : list_folder("/tmp")) {
		if (!is_in(files_before_, name)) {
			std::filesystem::remove_all("/tmp/" + name);
		}
	}
}

std::vector<ProcessEntry> RouterFixture::new_processes() const
{
	std::vector<ProcessEntry> entries = all_processes();
	std::erase_if(entries, [this](const ProcessEntry &entry) {
		return is_in(processes_before_, entry.pid) || entry.state == 'Z';
	});
	return entries;
}

// What a test started indirectly (the installer's shell, a worker that was given up) must not
// reach into the next test.
void RouterFixture::remove_new_processes() const
{
	for (const ProcessEntry &entry : new_processes()) {
		::kill(entry.pid, SIGKILL);
	}
	eventually([this] { return new_processes().empty(); });
}

void RouterTest::SetUp()
{
	RouterFixture::SetUp();
	bus = std::make_unique<BusServices>();
	files.set_manifest_url(server.url("/update.xml"));
}

void RouterTest::TearDown()
{
	if (daemon_) {
		check_end();
		daemon_.reset();
	}
	bus.reset();
	RouterFixture::TearDown();
}

bool RouterTest::worker_is_left() const
{
	for (const ProcessEntry &entry : new_processes()) {
		if (entry.name == "fwupdate" && entry.pid != daemon_->pid()) {
			return true;
		}
	}
	return false;
}

void RouterTest::check_end()
{
	if (!may_crash) {
		EXPECT_TRUE(daemon_->running()) << "the daemon ended by itself";
		ExitStatus end = daemon_->stop();
		EXPECT_TRUE(end.ended) << "the daemon does not end on SIGTERM";
		EXPECT_EQ(end.code, 0) << "signal " << end.signal << "\n"
				       << daemon_->process().errors();
	}
	// Tools that the daemon runs may complain there; a sanitizer's report is never theirs.
	EXPECT_THAT(daemon_->process().errors(),
		    testing::Not(testing::ContainsRegex("Sanitizer|runtime error")));
	// A worker outlives its last record by a moment.
	EXPECT_TRUE(may_leave_workers || may_crash || eventually([&] { return !worker_is_left(); }))
		<< "a worker is left";
	for (const std::string &name : list_folder("/tmp")) {
		EXPECT_FALSE(name.starts_with("fwupdate") && !may_leave_image)
			<< "left behind: /tmp/" << name;
	}
}

Daemon &RouterTest::start_daemon(const std::vector<std::string> &arguments)
{
	if (daemon_) {
		daemon_.reset();
	}
	daemon_ = std::make_unique<Daemon>(arguments);
	descriptors_at_start_ = open_descriptors(daemon_->pid());
	return *daemon_;
}

Daemon &RouterTest::daemon()
{
	if (!daemon_) {
		throw std::logic_error("the daemon was not started");
	}
	return *daemon_;
}

void RouterTest::expect_nothing_leaked() const
{
	pid_t pid = daemon_->pid();
	EXPECT_TRUE(eventually([&] { return children_of(pid).empty(); }))
		<< "children, or zombies, are left";
	EXPECT_EQ(open_descriptors(pid), descriptors_at_start_);
}

void RouterTest::offer(Manifest manifest)
{
	if (!manifest.url) {
		manifest.url = server.url("/firmware.bin");
	}
	server.on("/update.xml", answer(to_xml(manifest)).header("Content-Type: text/xml"));
}

void RouterTest::offer(const HttpAnswer &firmware, Manifest manifest)
{
	server.on("/firmware.bin", firmware);
	offer(std::move(manifest));
}

std::string RouterTest::good_image(std::size_t payload_size) const
{
	return make_uimage(noise(payload_size), {.name = router_model()});
}

} // namespace router_test
