// SPDX-License-Identifier: ISC
// Every sequence of events up to a depth drives the real update job and a model of its table side
// by side; after each event everything that can be seen of the two must be the same. Nothing is
// left out as uninteresting: an event that changes nothing is one of those that must change
// nothing.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <poll.h>
#include <unistd.h>

#include "daemon/state_method.h"
#include "daemon/update_job.h"
#include "daemon/update_method.h"
#include "discovery/manifest.h"
#include "job_choices.h"
#include "job_fixture.h"

using namespace fwupdate;
using namespace job_test;

namespace
{

// Under the sanitizers each event takes several times as long.
#ifdef __SANITIZE_ADDRESS__
constexpr int shorter = 1;
#else
constexpr int shorter = 0;
#endif

enum Event {
	update,
	forced_update,
	check,
	test,
	partial_record,
	whole_record,
	failed_record_event,
	record_without_size,
	short_read,
	end_of_pipe,
	timer_fires,
};
constexpr const char *event_names[] = {
	"update",     "forced update", "check",	     "test",
	"record",     "whole record",  "bad record", "record without size",
	"short read", "end of pipe",   "timer fires"};

class JobSequences : public JobFixture
{
protected:
	void TearDown() override
	{
		blob_buf_free(&message_);
		JobFixture::TearDown();
	}

	// Runs them all. Stops at the first that goes wrong: those behind it would as well.
	void run_all(const std::vector<Event> &events, int depth)
	{
		long sequences = 0;
		long steps = 0;
		for (const int attempts : {0, 1, 2, 3}) {
			Choices choices;
			do {
				choices.rewind();
				begin_sequence();
				attempts_ = attempts;
				SharedWorld world(choices);
				surroundings.world = &world.for_job;
				for (int step = 0; step < depth; step++) {
					const Event event = choose(events, choices);
					take(event, world);
					steps++;
					ASSERT_TRUE(compare(world)) << story();
				}
				sequences++;
				ASSERT_TRUE(end_sequence()) << "a descriptor is left; " << story();
			} while (choices.advance());
		}
		std::cout << sequences << " sequences, " << steps << " events, "
			  << std::clock() / CLOCKS_PER_SEC << " s of processor time so far\n";
		// Less deep, not every row can be reached.
		if (depth > 3) {
			expect_all_rows();
		}
	}

private:
	static bool possible(Event event, const Model &model)
	{
		if (event >= partial_record && event <= end_of_pipe) {
			return model.phase == Phase::downloading;
		}
		return event != timer_fires || model.timer() != 0;
	}

	Event choose(const std::vector<Event> &events, Choices &choices) const
	{
		Event enabled[std::size(event_names)];
		int count = 0;
		for (const Event event : events) {
			if (possible(event, model_)) {
				enabled[count++] = event;
			}
		}
		return enabled[choices.next(count)];
	}

	void begin_sequence()
	{
		update_context = {};
		surroundings = {};
		model_ = {};
		model_.visits = &visits_;
		unlink(image_path);
		story_.clear();
		next_peer_ = 100;
		completed_ = 0;
		due_ = 0;
		lowest_free_ = lowest_free_descriptor();
	}

	bool end_sequence()
	{
		uloop_timeout_cancel(&job_.timer);
		if (job_.watch.registered) {
			uloop_fd_delete(&job_.watch);
			close(job_.watch.fd);
		}
		for (const int end : surroundings.pipes) {
			close(end);
		}
		return lowest_free_descriptor() == lowest_free_;
	}

	// The model first: it decides what the world says.
	void take(Event event, SharedWorld &world)
	{
		story_.push_back(event);
		const bool is_update = event == update || event == forced_update;
		const std::uint32_t peer = is_update ? next_peer_++ : 0;
		const Phase before = model_.phase;
		tell_model(event, world.for_model, peer);
		deferred_ = false;
		event_began_ = now();
		tell_job(event, peer);
		event_ended_ = now();
		expected_deferral_ =
			is_update && before == Phase::idle &&
			(model_.phase == Phase::downloading || model_.phase == Phase::retry_wait);
	}

	void tell_model(Event event, World &world, std::uint32_t peer)
	{
		switch (event) {
		case update:
		case forced_update:
			return model_.update(world, peer, attempts_, event == forced_update);
		case check:
			return model_.check(world);
		case test:
			return model_.test();
		case partial_record:
			return model_.take_record(world, 1000, 10, 0);
		case whole_record:
			return model_.take_record(world, 1000, 1000, 0);
		case failed_record_event:
			return model_.take_record(world, 1000, 1000, 22);
		case record_without_size:
			return model_.take_record(world, 0, 0, 0);
		case short_read: // what it does not bring is that of the record before
			return model_.take_record(world, 77, model_.received, model_.status);
		case end_of_pipe:
			return model_.end_of_pipe(world);
		case timer_fires:
			return model_.timer_fires(world);
		}
	}

	void tell_job(Event event, std::uint32_t peer)
	{
		switch (event) {
		case update:
		case forced_update:
			return call_update(peer, event == forced_update);
		case check: // as the two methods leave the shared record
			update_context.need_update = query_update_server();
			update_context.result = update_context.need_update < 0 ? 1 : 0;
			return;
		case test:
			update_context.state = UpdateState::NONE;
			update_context.result = 0;
			return;
		case partial_record: // and the loop may call for nothing
			report({{1000, 10, 0}});
			on_progress(&job_.watch, ULOOP_READ);
			return on_progress(&job_.watch, 0);
		case whole_record: // the last of several counts
			return report({{1000, 10, 0}, {1000, 1000, 0}});
		case failed_record_event: // and nothing behind it
			return report({{1000, 1000, 22}, {1, 2, 0}});
		case record_without_size:
			return report({{0, 0, 0}});
		case short_read:
			return report({{77, 0, 0}}, sizeof(std::uint32_t));
		case end_of_pipe:
			close(surroundings.pipes.back());
			surroundings.pipes.pop_back();
			return run_loop();
		case timer_fires: // as the loop does it
			uloop_timeout_cancel(&job_.timer);
			job_.timer.cb(&job_.timer);
			return;
		}
	}

	void call_update(std::uint32_t peer, bool forced)
	{
		blob_buf_init(&message_, 0);
		blobmsg_add_u32(&message_, "attempts", static_cast<std::uint32_t>(attempts_));
		blobmsg_add_u32(&message_, "delay", Model::delay_seconds);
		if (forced) {
			blobmsg_add_string(&message_, "force", "1");
		}
		ubus_request_data request = {};
		request.peer = peer;
		request.fd = -1;
		EXPECT_EQ(handle_update(bus_connection, nullptr, &request, "update", message_.head),
			  0);
		deferred_ = request.deferred;
	}

	static void report(const std::vector<ProgressRecord> &records)
	{
		report(records, records.size() * sizeof(ProgressRecord));
	}
	static void report(const std::vector<ProgressRecord> &records, std::size_t size)
	{
		EXPECT_EQ(write(surroundings.pipes.back(), records.data(), size),
			  static_cast<ssize_t>(size));
		run_loop();
	}

	static void run_loop()
	{
		uloop_run_timeout(0);
	}

	// What a deferred call is ended with goes out over the bus.
	std::size_t completions()
	{
		char bytes[4096];
		const ssize_t got = recv(bus_reader_, bytes, sizeof(bytes), 0);
		std::size_t count = 0;
		for (ssize_t at = 0; at < got; count++) {
			std::uint32_t head;
			std::memcpy(&head, bytes + at + 8, sizeof(head));
			at += 8 + static_cast<ssize_t>(be32toh(head) & 0xffffff);
		}
		return count;
	}

	static int lowest_free_descriptor()
	{
		const int free_one = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
		close(free_one);
		return free_one;
	}

	// How many of the pipes that were ever made still have a reader.
	static std::size_t open_pipes()
	{
		return static_cast<std::size_t>(std::count_if(
			surroundings.pipes.begin(), surroundings.pipes.end(), [](int end) {
				pollfd watched = {end, 0, 0};
				return poll(&watched, 1, 0) == 0;
			}));
	}

	// -1 between the attempts; 0, unused, before the first job.
	bool descriptor_is_right() const
	{
		if (model_.phase == Phase::downloading) {
			return job_.watch.fd >= 0;
		}
		return job_.watch.fd == (model_.starts == 0 ? 0 : -1);
	}

	static std::int64_t now()
	{
		timespec time = {};
		clock_gettime(CLOCK_MONOTONIC, &time);
		return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
	}

	// Set during this event, or left as it was: exact, however busy the machine is.
	bool timer_is_right()
	{
		const int expected = model_.timer();
		if (expected == 0) {
			return !job_.timer.pending;
		}
		const std::int64_t wait = std::int64_t{std::max(expected, 0)} * 1000;
		const std::int64_t before = due_;
		due_ = std::int64_t{job_.timer.time.tv_sec} * 1000000 + job_.timer.time.tv_usec;
		const bool set_now = due_ >= event_began_ + wait && due_ <= event_ended_ + wait;
		return job_.timer.pending && (set_now || due_ == before);
	}

	bool compare(SharedWorld &world)
	{
		wrong_.clear();
		const auto expect = [this](bool right, const char *what) {
			if (!right) {
				wrong_ += std::string(what) + "; ";
			}
		};
		const bool downloading = model_.phase == Phase::downloading;
		const bool live = model_.phase != Phase::idle && model_.phase != Phase::stuck;
		completed_ += completions();

		expect(world.in_step(), "what the job asks for");
		expect(job_.active == (model_.phase != Phase::idle), "active");
		expect(job_.install == (model_.phase == Phase::delay), "install");
		expect(job_.watch.registered == downloading, "watch");
		expect(descriptor_is_right(), "descriptor");
		expect(open_pipes() == (downloading ? 1u : 0u), "open pipes");
		expect(timer_is_right(), "timer");
		if (live) {
			expect(job_.timer.cb ==
				       (model_.phase == Phase::delay ? on_install : on_job_timeout),
			       "timer's callback");
		}
		expect(job_.attempts == model_.attempts, "attempts left");
		expect(job_.job_result == model_.job_result, "the job's result");
		expect(job_.delay == model_.delay, "delay");
		expect(job_.force == model_.force, "force");
		expect(job_.downloaded == model_.downloaded, "whole file");
		expect(job_.progress.total == model_.total &&
			       job_.progress.received == model_.received &&
			       job_.progress.status == model_.status,
		       "progress");
		expect(job_.request.peer == model_.caller, "caller");
		expect(update_context.result == model_.result, "result");
		expect(update_context.need_update == model_.need_update, "need_update");
		expect(update_state_name(update_context.state) == model_.state, "state");
		expect((access(image_path, F_OK) == 0) == model_.file, "file");
		expect(surroundings.answers == model_.answers, "answers");
		expect(completed_ == model_.completions, "ends of deferred calls");
		expect(deferred_ == expected_deferral_, "deferral");
		expect(surroundings.starts == model_.starts, "starts");
		expect(surroundings.installations == model_.installations, "installations");
		expect(surroundings.log == model_.log, "log");
		return wrong_.empty();
	}

	std::string story() const
	{
		std::string text = std::to_string(attempts_) + " attempts:";
		for (const Event event : story_) {
			text += std::string(" ") + event_names[event] + ",";
		}
		return text + " then wrong: " + wrong_;
	}

	void expect_all_rows() const
	{
		for (int row = 0; row < ROWS; row++) {
			EXPECT_GT(visits_[static_cast<std::size_t>(row)], 0)
				<< row_texts[static_cast<std::size_t>(row)];
		}
	}

	Model model_;
	blob_buf message_ = {};
	std::array<long, ROWS> visits_ = {};
	std::vector<Event> story_;
	std::string wrong_;
	std::size_t completed_ = 0;
	std::int64_t event_began_ = 0, event_ended_ = 0, due_ = 0; // microseconds
	std::uint32_t next_peer_ = 0;
	int attempts_ = 0;
	int lowest_free_ = 0;
	bool deferred_ = false;
	bool expected_deferral_ = false;
};

TEST_F(JobSequences, EveryEventAtEveryPoint)
{
	run_all({update, forced_update, check, test, partial_record, whole_record,
		 failed_record_event, record_without_size, short_read, end_of_pipe, timer_fires},
		4 - shorter);
}

// Without the events that change nothing the job gets further.
TEST_F(JobSequences, LongJobs)
{
	run_all({update, whole_record, failed_record_event, end_of_pipe, timer_fires}, 6 - shorter);
}

// The table in the header is the one that was tested.
TEST(JobTable, StandsInTheHeader)
{
	std::ifstream file(std::string(FWUPDATE_SOURCE_DIR) + "/daemon/update_job.h");
	std::vector<std::string> found;
	for (std::string line; std::getline(file, line);) {
		const std::string indent = "//   ";
		if (line.starts_with(indent) && !line.starts_with(indent + "phase")) {
			found.push_back(line.substr(indent.size()));
		}
	}
	EXPECT_EQ(found, std::vector<std::string>(row_texts.begin(), row_texts.end()));
}

} // namespace
