// SPDX-License-Identifier: ISC
#include "support/callers.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <poll.h>
#include <stdexcept>

namespace router_test
{
namespace
{

using std::chrono::steady_clock;

class Caller
{
public:
	Caller(const std::string &path, const std::vector<BusCall> &calls, std::size_t first)
	    : path_(path), calls_(calls), next_(first), left_(calls.size())
	{
		start_next();
	}

	bool busy() const
	{
		return pending_.has_value();
	}
	int descriptor() const
	{
		return pending_->descriptor();
	}

	// Looks for the answer; with it, or when `given_up`, goes on with the next call.
	std::optional<TimedReply> take_reply(bool given_up)
	{
		if (!given_up && !pending_->finished()) {
			return std::nullopt;
		}
		TimedReply done = {calls_[next_].method, pending_->wait(milliseconds(0)),
				   std::chrono::duration_cast<std::chrono::microseconds>(
					   steady_clock::now() - started_)};
		next_ = (next_ + 1) % calls_.size();
		left_ = given_up ? 0 : left_ - 1;
		start_next();
		return done;
	}

private:
	void start_next()
	{
		pending_.reset();
		if (left_ > 0) {
			started_ = steady_clock::now();
			pending_.emplace(path_, calls_[next_].method, calls_[next_].arguments);
		}
	}

	const std::string &path_;
	const std::vector<BusCall> &calls_;
	std::size_t next_;
	std::size_t left_;
	steady_clock::time_point started_;
	std::optional<PendingCall> pending_;
};

// False when nothing has come in time.
bool wait_for_any(const std::vector<Caller> &callers, milliseconds limit)
{
	std::vector<pollfd> watched;
	watched.reserve(callers.size());
	for (const Caller &caller : callers) {
		watched.push_back({caller.busy() ? caller.descriptor() : -1, POLLIN, 0});
	}
	const int ready = poll(watched.data(), watched.size(), Deadline(limit).remaining());
	if (ready < 0 && errno != EINTR) {
		throw std::runtime_error("poll failed");
	}
	return ready != 0;
}

} // namespace

std::vector<TimedReply> call_at_once(std::size_t callers, const std::string &path,
				     const std::vector<BusCall> &calls,
				     const std::function<void()> &answered, milliseconds limit)
{
	std::vector<Caller> all;
	for (std::size_t i = 0; i < callers; i++) {
		all.emplace_back(path, calls, i % calls.size());
	}
	std::vector<TimedReply> replies;
	bool given_up = false;
	while (std::any_of(all.begin(), all.end(), std::mem_fn(&Caller::busy))) {
		const std::size_t before = replies.size();
		for (Caller &caller : all) {
			if (!caller.busy()) {
				continue;
			}
			if (std::optional<TimedReply> reply = caller.take_reply(given_up)) {
				replies.push_back(std::move(*reply));
				answered();
			}
		}
		if (replies.size() == before) {
			given_up = !wait_for_any(all, limit);
		}
	}
	return replies;
}

} // namespace router_test
