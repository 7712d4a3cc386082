// SPDX-License-Identifier: ISC
// What the update job should do: the transition table of daemon/update_job.h once more, as a
// program of its own. It decides by its own fields alone and never looks at the daemon's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace job_test
{

enum class Phase { idle, downloading, retry_wait, delay, stuck };

// How things turn out that the job has no say in. Asked in the order in which the job comes to
// them; each question has as many answers as it says.
enum class Question {
	start_succeeds,
	image_is_good,
	partition_is_recorded,
	installer_starts,
	offer
};

struct World {
	virtual int answer(Question question, int answers) = 0;
	bool yes(Question question)
	{
		return answer(question, 2) == 0;
	}

protected:
	~World() = default;
};

// The table's rows, in its order; the second half is "again".
enum Row {
	idle_start_succeeds,
	idle_start_fails,
	update_during_job,
	record,
	failed_record,
	timeout,
	end_not_whole,
	end_bad_image,
	end_recorded,
	end_not_recorded,
	retry_wait_over,
	delay_over,
	again_none_left,
	again_start_succeeds,
	again_start_fails,
	ROWS
};

// Each as it stands in the header's table.
inline constexpr std::array<const char *, ROWS> row_texts = {
	"idle         update is due, the start succeeds        downloading",
	"idle         update is due, the start fails           retry wait, or stuck",
	"not idle     update                                   the same; answers at once",
	"downloading  record                                   downloading",
	"downloading  record of a failure                      again",
	"downloading  time-out                                 again",
	"downloading  end of pipe, file not whole              again",
	"downloading  end of pipe, image bad                   again",
	"downloading  end of pipe, image good, recorded        delay",
	"downloading  end of pipe, image good, not recorded    delay, or again",
	"retry wait   one second is over                       again",
	"delay        over                                     idle; answers, then installs",
	"again        no attempt left                          idle; answers, deletes the image",
	"again        attempts left, the start succeeds        downloading",
	"again        attempts left, the start fails           retry wait, or idle",
};

struct Answer {
	std::uint32_t peer;
	int code;
	bool force;
	bool operator==(const Answer &) const = default;
};

// Names of the daemon's states, as far as the job and its neighbours set them.
struct Model {
	Phase phase = Phase::idle;
	std::string state = "NONE";
	int result = 0;
	int need_update = 0;

	int attempts = 0;
	int job_result = 0;
	int delay = 0;
	bool force = false;
	bool downloaded = false;
	std::uint32_t total = 0, received = 0; // of the last record, as its status
	int status = 0;
	std::uint32_t caller = 0;

	// What the outside sees.
	bool file = false;
	int starts = 0;
	int installations = 0;
	std::vector<Answer> answers = {};
	std::size_t completions = 0; // deferred calls that were ended
	std::vector<std::string> log = {};
	std::array<long, ROWS> *visits = nullptr;

	static constexpr int timeout_seconds = 30;
	static constexpr int delay_seconds = 600;

	// Milliseconds until the timer fires; 0: it is not armed.
	int timer() const
	{
		switch (phase) {
		case Phase::downloading:
			return timeout_seconds * 1000;
		case Phase::retry_wait:
			return 1000;
		case Phase::delay:
			return delay == 0 ? -1 : delay * 1000; // at once
		default:
			return 0;
		}
	}

	void update(World &world, std::uint32_t peer, int wanted_attempts, bool forced)
	{
		result = 0;
		if (state != "XML_DONE") {
			query(world);
		}
		if (need_update < 0) {
			reply(peer, 1, forced);
		} else if (need_update == 0 && !forced) {
			reply(peer, 0, forced);
		} else if (phase != Phase::idle) {
			visit(update_during_job);
			reply(peer, 6, forced);
		} else {
			begin(world, peer, wanted_attempts, forced);
		}
	}

	// `check` and `test` share the state and the result with the job.
	void check(World &world)
	{
		query(world);
		result = need_update < 0 ? 1 : 0;
	}
	void test()
	{
		state = "NONE";
		result = 0;
	}

	void take_record(World &world, std::uint32_t new_total, std::uint32_t new_received,
			 int new_status)
	{
		const bool failed = new_status != 0;
		visit(failed ? failed_record : record);
		total = new_total;
		received = new_received;
		status = new_status;
		downloaded = downloaded || (total != 0 && total == received);
		if (failed) {
			again(world, 2);
		}
	}

	void end_of_pipe(World &world)
	{
		if (!downloaded) {
			visit(end_not_whole);
			again(world, job_result == 0 ? 2 : job_result);
			return;
		}
		state = "FIRMWARE_CHECK";
		if (!world.yes(Question::image_is_good)) {
			visit(end_bad_image);
			log.emplace_back("Bad Magic Number [-5]");
			again(world, 3);
			return;
		}
		state = "FIRMWARE_UPDATE";
		if (world.yes(Question::partition_is_recorded)) {
			visit(end_recorded);
			job_result = 0;
		} else {
			visit(end_not_recorded);
			result = 5;
			log.emplace_back("Can't set boot partition via fw_setenv");
			if (job_result != 0) {
				again(world, job_result);
				return;
			}
		}
		attempts--;
		phase = Phase::delay;
		state = "WAIT_DELAY";
	}

	void timer_fires(World &world)
	{
		if (phase == Phase::delay) {
			visit(delay_over);
			complete();
			if (world.yes(Question::installer_starts)) {
				installations++;
			} else {
				result = 5;
				log.emplace_back("Can't run sysupgrade");
			}
			clear();
			return;
		}
		visit(phase == Phase::downloading ? timeout : retry_wait_over);
		if (job_result == 0) {
			log.emplace_back("Unable to download firmware: timeout\n");
		}
		again(world, 2);
	}

private:
	void visit(Row row) const
	{
		if (visits != nullptr) {
			++(*visits)[row];
		}
	}

	void query(World &world)
	{
		static constexpr int offers[] = {1, 0, -1};
		need_update = offers[world.answer(Question::offer, 3)];
		state = need_update < 0 ? "XML_CONNECT" : "XML_DONE";
	}

	void reply(std::uint32_t peer, int code, bool forced)
	{
		result = code;
		answers.push_back({peer, code, forced});
	}

	void complete()
	{
		reply(caller, job_result, force);
		completions++;
	}

	bool start(World &world)
	{
		starts++;
		if (!world.yes(Question::start_succeeds)) {
			return false;
		}
		phase = Phase::downloading;
		state = "FIRMWARE_CONNECT";
		file = true;
		return true;
	}

	void begin(World &world, std::uint32_t peer, int wanted_attempts, bool forced)
	{
		clear();
		attempts = wanted_attempts;
		delay = delay_seconds;
		force = forced;
		if (start(world)) {
			visit(idle_start_succeeds);
			caller = peer;
			return;
		}
		visit(idle_start_fails);
		job_result = 2;
		attempts--;
		if (attempts <= 0) {
			phase = Phase::stuck;
			reply(peer, 2, forced);
		} else {
			phase = Phase::retry_wait;
			caller = peer;
		}
	}

	void again(World &world, int code)
	{
		job_result = code;
		attempts--;
		file = false;
		if (attempts <= 0) {
			visit(again_none_left);
			finish();
			return;
		}
		delay = 0;
		if (start(world)) {
			visit(again_start_succeeds);
			return;
		}
		visit(again_start_fails);
		job_result = 2;
		attempts--;
		if (attempts <= 0) {
			finish();
		} else {
			phase = Phase::retry_wait;
		}
	}

	void finish()
	{
		state = "NONE";
		complete();
		clear();
	}

	void clear()
	{
		phase = Phase::idle;
		attempts = job_result = delay = 0;
		force = downloaded = false;
		total = received = caller = 0;
		status = 0;
	}
};

} // namespace job_test
