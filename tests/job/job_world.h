// SPDX-License-Identifier: ISC
// The update job's surroundings. The job itself, the event loop, its timer, the pipe, the file and
// the bus library are the real ones; what the job asks for (a download, a verdict on an image, a
// query) is answered as the test says. Defined in job_world.cpp under the daemon's own names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "job_model.h"

namespace job_test
{

inline constexpr const char *image_path = "/tmp/fwupdate.bin";

// What the daemon's functions were asked for in one sequence of events.
struct Surroundings {
	World *world = nullptr;	     // who answers
	std::vector<int> pipes = {}; // write ends, one for each start that succeeded
	std::vector<Answer> answers = {};
	std::vector<std::string> log = {};
	int starts = 0;
	int installations = 0;
};
extern Surroundings surroundings;

} // namespace job_test
