// SPDX-License-Identifier: ISC
// start_download: what must hold before a worker is started. The worker itself is
// worker_test.cpp's.
#include "firmware/download.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"
#include "support/refusals.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

using Texts = std::vector<std::string>;

constexpr int GIVEN_UP = -1;

bool no_more_pipes;
bool no_more_processes;

template<typename Function> Function original(const char *name)
{
	return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

// In the place of the C library's own, for the daemon's objects in this program; popen(3) has its
// own way to pipes and processes.
extern "C" {

int pipe2(int *pipedes, int flags)
{
	if (no_more_pipes) {
		errno = EMFILE;
		return -1;
	}
	return original<int (*)(int *, int)>("pipe2")(pipedes, flags);
}

pid_t fork()
{
	if (no_more_processes) {
		errno = EAGAIN;
		return -1;
	}
	return original<pid_t (*)()>("fork")();
}

} // extern "C"

namespace
{

class Download : public DebugFixture
{
protected:
	void SetUp() override
	{
		DebugFixture::SetUp();
		server.on("/firmware.bin", answer("image"));
		files.set_mtd({{"firmware", 0x100000}, {"kernel", 0x1000}});
		std::strcpy(update_context.boot_partition, "firmware");
	}
	void TearDown() override
	{
		no_more_pipes = false;
		no_more_processes = false;
		DebugFixture::TearDown();
	}

	// What df says of /tmp, as its fourth column.
	void set_free_space(const std::string &kilobytes)
	{
		files.install_tool("/bin/df",
				   "echo 'Filesystem 1K-blocks Used Available Use% Mounted'\n"
				   "echo 'tmpfs 9 9 " +
					   kilobytes + " 1% /tmp'");
	}

	// Starts a download and waits for the worker's end. The worker's status in its last
	// record, or GIVEN_UP, from start_download itself, when there was no worker.
	int download(const char *archive = "", std::int32_t timeout = 30)
	{
		const int pipe = start_download(server.url("/firmware.bin").c_str(), archive,
						"unused", timeout);
		if (pipe < 0) {
			return pipe;
		}
		ProgressRecord record = {};
		while (read(pipe, &record, sizeof(record)) > 0) {
		}
		close(pipe);
		return record.status;
	}

	HttpServer server;
};

} // namespace

TEST_F(Download, StoresTheFileUnderTheNameOfItsKind)
{
	const struct {
		const char *archive;
		const char *path;
	} table[] = {
		{"1", "/tmp/fwupdate.zip"},  {"", "/tmp/fwupdate.bin"},
		{"0", "/tmp/fwupdate.bin"},  {"11", "/tmp/fwupdate.bin"},
		{"1 ", "/tmp/fwupdate.bin"}, {"true", "/tmp/fwupdate.bin"},
		{" 1", "/tmp/fwupdate.bin"}, {"01", "/tmp/fwupdate.bin"},
	};
	for (const auto &row : table) {
		EXPECT_EQ(download(row.archive), 0);
		EXPECT_EQ(read_file(row.path), "image") << row.archive;
		files.remove(row.path);
		EXPECT_FALSE(exists("/tmp/fwupdate.bin"));
	}
}

TEST_F(Download, PartitionAsLargeAsFreeSpacePasses)
{
	set_free_space("1024");
	EXPECT_EQ(download(), 0);
	EXPECT_TRUE(syslog.texts().empty());
}

TEST_F(Download, PartitionOneByteLargerThanFreeSpaceIsRefused)
{
	set_free_space("1024");
	files.set_mtd({{"firmware", 0x100001}});
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(), Texts{"Error, not enough memory to load firmware!"});
	EXPECT_EQ(update_context.state, UpdateState::NONE);
	EXPECT_TRUE(server.requests().empty());
}

TEST_F(Download, PartitionOfUnknownSizeAlwaysPasses)
{
	std::strcpy(update_context.boot_partition, "unheard-of");
	set_free_space("0");
	EXPECT_EQ(download(), 0);
	set_free_space("-");
	EXPECT_EQ(download(), 0);
}

TEST_F(Download, FreeSpaceThatIsNoNumberCountsAsNone)
{
	files.install_tool("/usr/bin/awk", "echo none");
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(), Texts{"Error, not enough memory to load firmware!"});
}

TEST_F(Download, UbiCounts24MebibytesWhateverTheListingSays)
{
	std::strcpy(update_context.boot_partition, "ubi");
	files.set_mtd({{"ubi", 0x1000}});
	set_free_space("24576");
	EXPECT_EQ(download(), 0);
	set_free_space("24575");
	EXPECT_EQ(download(), GIVEN_UP);
}

TEST_F(Download, SizesAreComparedUnsigned)
{
	// More than 2 GiB of either stop at the 32-bit limit, and still fit each other.
	files.set_mtd({{"firmware", 0xf0000000}});
	set_free_space("4194304");
	EXPECT_EQ(download(), 0);
	// A negative number is a large one.
	set_free_space("-1");
	EXPECT_EQ(download(), 0);
}

TEST_F(Download, ElevenCharactersOfTheFreeSpaceCount)
{
	files.install_tool("/usr/bin/awk", "echo 00001048576");
	EXPECT_EQ(download(), 0);
	files.install_tool("/usr/bin/awk", "echo 000001048576");
	EXPECT_EQ(download(), GIVEN_UP) << "the last digit is not read";
}

TEST_F(Download, UnmeasurableFreeSpaceIsAFailure)
{
	files.install_tool("/bin/df", "exit 0");
	files.install_tool("/usr/bin/awk", "cat");
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(), Texts{"Error on reading tmpfs"});
	EXPECT_EQ(update_context.state, UpdateState::NONE);
}

TEST_F(Download, ShellThatCannotBeStartedIsAFailure)
{
	int result = 0;
	with_processes_refused([&] { result = download(); });
	EXPECT_EQ(result, GIVEN_UP);
	EXPECT_EQ(syslog.texts(), Texts{"Error on reading tmpfs"});
}

TEST_F(Download, MissingPartitionIsLookedUpAndKept)
{
	update_context.boot_partition[0] = '\0';
	files.set_boot_environment({"bootpart=firmware"});
	EXPECT_EQ(download(), 0);
	EXPECT_STREQ(update_context.boot_partition, "firmware");
}

TEST_F(Download, PartitionThatWasLookedUpIsKeptAlsoWhenItIsTooLarge)
{
	update_context.boot_partition[0] = '\0';
	files.set_boot_environment({"bootpart=firmware"});
	set_free_space("1");
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_STREQ(update_context.boot_partition, "firmware");
}

TEST_F(Download, RouterThatListsNoPartitionToBootFromIsLetThrough)
{
	update_context.boot_partition[0] = '\0';
	files.remove("/usr/sbin/fw_printenv");
	files.set_mtd({{"u-boot", 0x1000}, {"rootfs", 0x1000}});
	set_free_space("0");
	EXPECT_EQ(download(), 0);
	EXPECT_STREQ(update_context.boot_partition, "");
	EXPECT_TRUE(syslog.texts().empty());
}

TEST_F(Download, ChosenPartitionIsNotLookedUp)
{
	files.install_recording_tool("/usr/sbin/fw_printenv");
	EXPECT_EQ(download(), 0);
	EXPECT_TRUE(files.tool_calls("/usr/sbin/fw_printenv").empty());
	EXPECT_STREQ(update_context.boot_partition, "firmware");
}

TEST_F(Download, PartitionThatCannotBeFoundIsAFailure)
{
	update_context.boot_partition[0] = '\0';
	files.remove("/proc/mtd");
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(), Texts{"Error, couldn't get boot partition"});
	EXPECT_TRUE(server.requests().empty());
}

TEST_F(Download, KernelIsTunedBeforeEveryStart)
{
	for (int round = 0; round < 2; round++) {
		files.write("/proc/sys/vm/drop_caches", "0\n");
		files.write("/proc/sys/vm/min_free_kbytes", "0\n");
		files.write("/proc/sys/vm/panic_on_oom", "0\n");
		EXPECT_EQ(download(), 0);
		EXPECT_EQ(read_file("/proc/sys/vm/drop_caches"), "3\n");
		EXPECT_EQ(read_file("/proc/sys/vm/min_free_kbytes"), "1024\n");
		EXPECT_EQ(read_file("/proc/sys/vm/panic_on_oom"), "1\n");
	}
}

TEST_F(Download, CachesAreDroppedOnlyAfterASync)
{
	files.write("/proc/sys/vm/drop_caches", "0\n");
	files.install_recording_tool("/bin/sync",
				     "cat /proc/sys/vm/panic_on_oom >/tmp/first; exit 1");
	files.write("/proc/sys/vm/panic_on_oom", "0\n");
	EXPECT_EQ(download(), 0);
	EXPECT_EQ(files.tool_calls("/bin/sync").size(), 1u);
	EXPECT_EQ(read_file("/proc/sys/vm/drop_caches"), "0\n");
	EXPECT_EQ(read_file("/tmp/first"), "0\n");
	EXPECT_EQ(read_file("/proc/sys/vm/panic_on_oom"), "1\n");
}

TEST_F(Download, KernelIsLeftAloneWhenTheCheckFails)
{
	files.write("/proc/sys/vm/min_free_kbytes", "7\n");
	set_free_space("1");
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(read_file("/proc/sys/vm/min_free_kbytes"), "7\n");
}

TEST_F(Download, StateIsFirmwareConnectFromTheStartOn)
{
	server.on("/firmware.bin", silence());
	const int pipe = start_download(server.url("/firmware.bin").c_str(), "", "", 30);
	ASSERT_GE(pipe, 0);
	EXPECT_EQ(update_context.state, UpdateState::FIRMWARE_CONNECT);
	close(pipe);
}

TEST_F(Download, PipeThatCannotBeMadeIsAFailure)
{
	no_more_pipes = true;
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(),
		  (Texts{"Error, couldn't open pipe!", "Error, couldn't get CURL pipe"}));
	EXPECT_EQ(update_context.state, UpdateState::FIRMWARE_CONNECT);
}

TEST_F(Download, WorkerThatCannotBeForkedIsAFailure)
{
	const auto before = open_descriptors(getpid());
	no_more_processes = true;
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(),
		  (Texts{"Error, couldn't fork!", "Error, couldn't get CURL pipe"}));
	EXPECT_EQ(open_descriptors(getpid()), before);
}

TEST_F(Download, OnlyTheReadEndStaysOpen)
{
	// The server in this program opens sockets of its own meanwhile.
	const auto open_pipes = [] {
		const auto all = open_descriptors(getpid());
		return std::count_if(all.begin(), all.end(), [](const auto &descriptor) {
			return descriptor.second.starts_with("pipe:");
		});
	};
	const auto before = open_pipes();
	const int pipe = start_download(server.url("/firmware.bin").c_str(), "", "", 30);
	EXPECT_TRUE(open_descriptors(getpid())[pipe].starts_with("pipe:"));
	EXPECT_EQ(open_pipes(), before + 1);
	close(pipe);
}
