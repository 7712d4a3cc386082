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

// What a process has open, whatever its numbers: a connection that was made again is as good as
// the one before.
std::multiset<std::string> open_things(pid_t pid)
{
	std::multiset<std::string> things;
	for (const auto &[number, target] : open_descriptors(pid)) {
		things.insert(target.substr(0, target.find(":[")));
	}
	return things;
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
	for (const std::string &name : new_files()) {
		std::filesystem::remove_all("/tmp/" + name);
	}
}

std::vector<std::string> RouterFixture::new_files() const
{
	std::vector<std::string> names = list_folder("/tmp");
	std::erase_if(names,
		      [this](const std::string &name) { return is_in(files_before_, name); });
	return names;
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
	files.restore();
	check_router();
	RouterFixture::TearDown();
}

// The router is as it was before the test, but for what the test says that it leaves.
void RouterTest::check_router()
{
	if (!may_leave_workers) {
		EXPECT_TRUE(eventually([this] { return new_processes().empty(); }))
			<< "left running: " << new_processes().front().name;
	}
	for (const std::string &name : new_files()) {
		EXPECT_TRUE(may_leave_image && name.starts_with("fwupdate"))
			<< "left behind: /tmp/" << name;
	}
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
		if (!may_leave_workers) {
			expect_nothing_leaked();
		}
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
}

Daemon &RouterTest::start_daemon(const std::vector<std::string> &arguments,
				 const std::vector<std::string> &settings)
{
	if (daemon_) {
		daemon_.reset();
	}
	daemon_ = std::make_unique<Daemon>(arguments, settings);
	descriptors_at_start_ = open_things(daemon_->pid());
	mapped_at_start_ = mapped_files(daemon_->pid());
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
	EXPECT_EQ(open_things(pid), descriptors_at_start_);
	std::set<std::string> mapped = mapped_files(pid);
	std::erase_if(mapped, [this](const auto &file) { return mapped_at_start_.contains(file); });
	EXPECT_THAT(mapped, testing::IsEmpty()) << "mapped since the start";
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
