// SPDX-License-Identifier: ISC
// start_download: what must hold before a worker is started. The worker itself is
// worker_test.cpp's.
#include "firmware/download.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"

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

TEST_F(Download, PartitionHasToFitIntoTheFreeSpace)
{
	constexpr int whole = 0; // the download
	const struct {
		const char *kilobytes;
		const char *partition;
		std::uint32_t size;
		int result;
	} table[] = {
		{"1024", "firmware", 0x100000, whole},
		{"1024", "firmware", 0x100001, GIVEN_UP},
		{"0", "unheard-of", 0x100000, whole},
		{"-", "unheard-of", 0x100000, whole},
		// 24 MiB, whatever is listed.
		{"24576", "ubi", 0x1000, whole},
		{"24575", "ubi", 0x1000, GIVEN_UP},
		// Both stop at the 32-bit limit; a negative number is a large one.
		{"4194304", "firmware", 0xf0000000, whole},
		{"-1", "firmware", 0xf0000000, whole},
	};
	for (const auto &row : table) {
		SCOPED_TRACE(std::string(row.kilobytes) + " for " + row.partition);
		syslog.clear();
		update_context.state = UpdateState::NONE;
		set_free_space(row.kilobytes);
		files.set_mtd(
			{{row.partition == std::string("ubi") ? "ubi" : "firmware", row.size}});
		std::strcpy(update_context.boot_partition, row.partition);
		files.write("/proc/sys/vm/min_free_kbytes", "7\n");
		EXPECT_EQ(download(), row.result);
		const bool refused = row.result == GIVEN_UP;
		EXPECT_EQ(syslog.texts(),
			  refused ? Texts{"Error, not enough memory to load firmware!"} : Texts{});
		EXPECT_EQ(update_context.state,
			  refused ? UpdateState::NONE : UpdateState::FIRMWARE_CONNECT);
		EXPECT_EQ(read_file("/proc/sys/vm/min_free_kbytes"), refused ? "7\n" : "1024\n");
	}
}

TEST_F(Download, NeedsTheFreeSpaceAndAPartitionTable)
{
	set_free_space("4194304");
	update_context.boot_partition[0] = '\0';
	files.remove("/proc/mtd");
	EXPECT_EQ(download(), GIVEN_UP);
	files.install_tool("/bin/df", "exit 0");
	files.install_tool("/usr/bin/awk", "cat");
	EXPECT_EQ(download(), GIVEN_UP);
	EXPECT_EQ(syslog.texts(),
		  (Texts{"Error, couldn't get boot partition", "Error on reading tmpfs"}));
}

TEST_F(Download, ElevenCharactersOfTheFreeSpaceCount)
{
	files.install_tool("/usr/bin/awk", "echo 00001048576");
	EXPECT_EQ(download(), 0);
	files.install_tool("/usr/bin/awk", "echo 000001048576");
	EXPECT_EQ(download(), GIVEN_UP) << "the last digit is not read";
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
