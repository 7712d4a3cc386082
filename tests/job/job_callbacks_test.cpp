// SPDX-License-Identifier: ISC
// The job's callbacks where no sequence of events leads: with a record that the test has set, or in
// a process that is not as the daemon starts.
#include <fcntl.h>

#include "daemon/update_job.h"
#include "daemon/update_method.h"
#include "job_fixture.h"

using namespace fwupdate;
using namespace job_test;

namespace
{

class JobCallbacks : public JobFixture
{
protected:
	struct AllIsWell : World {
		int answer(Question, int) override
		{
			return 0;
		}
	};

	void SetUp() override
	{
		JobFixture::SetUp();
		update_context = {};
		surroundings = {};
		surroundings.world = &all_is_well_;
	}

	// False when it is answered at once.
	static bool update()
	{
		ubus_request_data request = {};
		request.fd = -1;
		update_context.state = UpdateState::XML_DONE;
		update_context.need_update = 1;
		handle_update(bus_connection, nullptr, &request, "update", nullptr);
		return request.deferred;
	}

private:
	AllIsWell all_is_well_;
};

} // namespace

TEST_F(JobCallbacks, NothingIsInstalledAndTheImageDeletedUnlessAllIsWell)
{
	const struct {
		bool install;
		std::int32_t job_result;
		int installations;
	} cases[] = {{false, 0, 0}, {false, 2, 0}, {true, 2, 0}, {true, 3, 0}, {true, 0, 1}};
	for (const auto &row : cases) {
		close(open(image_path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
		job_.install = row.install;
		job_.job_result = row.job_result;
		on_install(&job_.timer);
		EXPECT_EQ(update_context.result, row.job_result);
		EXPECT_EQ(surroundings.installations, row.installations);
		EXPECT_EQ(access(image_path, F_OK) == 0, row.installations == 1);
		EXPECT_FALSE(job_.install);
	}
}

TEST_F(JobCallbacks, EndOfThePipeCountsHoweverTheLoopSaysIt)
{
	for (const bool error : {false, true}) {
		ASSERT_TRUE(update());
		job_.watch.eof = !error;
		job_.watch.error = error;
		on_progress(&job_.watch, 0);
		EXPECT_FALSE(job_.active);
		EXPECT_EQ(update_context.result, 2);
		close(surroundings.pipes.back());
	}
}

// As when something has closed the daemon's standard input.
TEST_F(JobCallbacks, DescriptorZeroIsAPipeLikeAnyOther)
{
	const int kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
	close(STDIN_FILENO);
	EXPECT_TRUE(update());
	EXPECT_EQ(job_.watch.fd, 0);
	EXPECT_TRUE(job_.watch.registered);
	on_job_timeout(&job_.timer);
	EXPECT_FALSE(job_.active);
	EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "the pipe is closed";
	close(surroundings.pipes.back());
	dup2(kept, STDIN_FILENO);
	close(kept);
}

TEST_F(JobCallbacks, FieldsOfAnEarlierJobDoNotReachTheNext)
{
	job_.job_result = 3;
	job_.progress = {5, 5, 5};
	job_.downloaded = job_.install = true;
	ASSERT_TRUE(update());
	EXPECT_EQ(job_.job_result, 0);
	EXPECT_EQ(job_.progress.total + job_.progress.received, 0u);
	EXPECT_EQ(job_.progress.status, 0);
	EXPECT_FALSE(job_.downloaded || job_.install);
	on_job_timeout(&job_.timer);
	close(surroundings.pipes.back());
}

// Numbers of callers mean nothing on another connection: the same one may be somebody else's.
TEST_F(JobCallbacks, RequestOfALostConnectionIsNotAnswered)
{
	for (const std::uint32_t losses : {0, 1}) {
		ASSERT_TRUE(update());
		bus_generation += losses;
		on_job_timeout(&job_.timer);
		EXPECT_FALSE(job_.active);
		EXPECT_EQ(surroundings.answers.size(), 1u);
		close(surroundings.pipes.back());
	}
	bus_generation = 0;
}
