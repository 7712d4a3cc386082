// SPDX-License-Identifier: ISC
// Every combination of choices, one after the other, and a world that tells the model and the job
// the same.
#pragma once

#include <cstddef>
#include <vector>

#include "job_model.h"

namespace job_test
{

// The choices of one sequence, in the order in which they come up. Counts through all of them like
// an odometer: the last one turns first.
class Choices
{
public:
	int next(int options)
	{
		if (at_ == taken_.size()) {
			taken_.push_back({0, options});
		}
		return taken_[at_++].value;
	}
	void rewind()
	{
		at_ = 0;
	}
	// False when all sequences were run.
	bool advance()
	{
		at_ = 0;
		while (!taken_.empty() && ++taken_.back().value == taken_.back().options) {
			taken_.pop_back();
		}
		return !taken_.empty();
	}

private:
	struct Choice {
		int value;
		int options;
	};
	std::vector<Choice> taken_;
	std::size_t at_ = 0;
};

// Lets the model decide, and tells the job the same. A job that asks for something else, or more
// or less, has left its table.
class SharedWorld
{
public:
	explicit SharedWorld(Choices &choices) : choices_(choices)
	{
	}

	struct ForModel : World {
		SharedWorld &shared;
		explicit ForModel(SharedWorld &all) : shared(all)
		{
		}
		int answer(Question question, int answers) override
		{
			const int value = shared.choices_.next(answers);
			shared.said_.push_back({question, value});
			return value;
		}
	};
	struct ForJob : World {
		SharedWorld &shared;
		explicit ForJob(SharedWorld &all) : shared(all)
		{
		}
		int answer(Question question, int) override
		{
			if (shared.told_ == shared.said_.size() ||
			    shared.said_[shared.told_].question != question) {
				shared.strayed_ = true;
				return 0;
			}
			return shared.said_[shared.told_++].value;
		}
	};

	// After each event: whether the job has asked exactly what the model asked.
	bool in_step()
	{
		const bool same = !strayed_ && told_ == said_.size();
		said_.clear();
		told_ = 0;
		strayed_ = false;
		return same;
	}

	ForModel for_model{*this};
	ForJob for_job{*this};

private:
	struct Said {
		Question question;
		int value;
	};
	Choices &choices_;
	std::vector<Said> said_;
	std::size_t told_ = 0;
	bool strayed_ = false;
};

} // namespace job_test
