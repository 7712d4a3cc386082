// SPDX-License-Identifier: ISC
// Paths that name no file, or none that can be looked into, and what a check leaves open.
#include "firmware_fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/refusals.h"

using namespace fwupdate;
using namespace router_test;

// There when coverage is measured; _exit alone would lose a child's counts.
extern "C" void __gcov_dump() __attribute__((weak)); // NOLINT(*-identifier-naming)

namespace
{

// What fstat(2) may become.
#ifdef SYS_newfstatat
const std::vector<int> fstat_calls = {SYS_fstat, SYS_newfstatat};
#else
const std::vector<int> fstat_calls = {SYS_fstat64, SYS_statx};
#endif

// Runs the step in a child process and returns its result, 0 to 255; -1 when the child hung, until
// an alarm ended it, or crashed.
int in_child(const std::function<int()> &step)
{
	constexpr unsigned seconds = 10;
	const pid_t child = fork();
	if (child == 0) {
		alarm(seconds);
		const int result = step();
		if (__gcov_dump != nullptr) {
			__gcov_dump();
		}
		_exit(result);
	}
	int status = -1;
	waitpid(child, &status, 0);
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ImageFile : public FirmwareFixture
{
protected:
	static std::string good_image()
	{
		return build_uimage("data", {.entry_point = other_address});
	}
};

} // namespace

TEST_F(ImageFile, ThatDoesNotExistIsNotOpened)
{
	ASSERT_EQ(symlink("/tmp/nowhere", "/tmp/dangling"), 0);
	ASSERT_EQ(symlink("/tmp/circle", "/tmp/circle"), 0);
	write_bytes(firmware_path, good_image());
	for (const std::string &path :
	     {std::string("/tmp/nowhere"), std::string("/tmp/dangling"), std::string("/tmp/circle"),
	      std::string(), std::string("/tmp/nowhere/firmware.bin"),
	      std::string("/tmp/firmware.bin/"), std::string("/tmp/firmware.bin "),
	      "/tmp/" + std::string(300, 'x'), std::string(5000, '/') + "x"}) {
		SCOPED_TRACE(path);
		EXPECT_EQ(verify_image(path.c_str()), IMAGE_NOT_OPENED);
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(ImageFile, ThatIsEmptyIsNotMapped)
{
	EXPECT_EQ(verify(""), IMAGE_NOT_MAPPED);
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(ImageFile, ThatIsAFolderOrADeviceIsNotMapped)
{
	for (const char *path : {"/tmp", "/", "/dev/null", "/realproc/self/status"}) {
		SCOPED_TRACE(path);
		EXPECT_EQ(verify_image(path), IMAGE_NOT_MAPPED);
	}
}

TEST_F(ImageFile, ThatIsAPipeIsNotMappedAndNotWaitedFor)
{
	ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
	EXPECT_EQ(in_child([] { return -verify_image("/tmp/fifo"); }), -IMAGE_NOT_MAPPED);
	// With both ends open and something in it, too.
	const int end = open("/tmp/fifo", O_RDWR | O_CLOEXEC);
	ASSERT_EQ(write(end, "data", 4), 4);
	EXPECT_EQ(in_child([] { return -verify_image("/tmp/fifo"); }), -IMAGE_NOT_MAPPED);
	close(end);
}

TEST_F(ImageFile, OfGigabytesIsMeasured)
{
	const bool narrow = sizeof(void *) == 4;
	// The header's CRC is wrong, so that none of the data is read.
	std::string image = good_image();
	image[header_crc_offset] ^= 1;
	write_bytes(firmware_path, image);
	std::filesystem::resize_file(firmware_path, std::uintmax_t{1} << 31);
	// A kernel may give a program of 32 bits less than half of its addresses in one piece.
	EXPECT_THAT(verify_image(firmware_path),
		    testing::AnyOf(IMAGE_BAD_HEADER, narrow ? IMAGE_NOT_MAPPED : IMAGE_BAD_HEADER));
	// What 32 bits keep of this size is not taken for the file.
	std::filesystem::resize_file(firmware_path, (std::uintmax_t{1} << 32) + image.size());
	EXPECT_EQ(verify_image(firmware_path), narrow ? IMAGE_NOT_MAPPED : IMAGE_BAD_HEADER);
}

TEST_F(ImageFile, WhoseStatusIsRefusedIsNotStatted)
{
	write_bytes(firmware_path, good_image());
	int result = 1;
	with_refused(fstat_calls, EIO, [&result] { result = verify_image(firmware_path); });
	EXPECT_EQ(result, IMAGE_NOT_STATTED);
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(ImageFile, ThatBecomesDescriptorZeroIsNotTrustedAndStaysOpen)
{
	write_bytes(firmware_path, good_image());
	EXPECT_EQ(in_child([] {
			  close(STDIN_FILENO);
			  return -verify_image(firmware_path);
		  }),
		  -IMAGE_NOT_OPENED);
	EXPECT_EQ(in_child([] {
			  close(STDIN_FILENO);
			  verify_image(firmware_path);
			  struct stat opened = {};
			  struct stat named = {};
			  return fstat(STDIN_FILENO, &opened) == 0 &&
				 stat(firmware_path, &named) == 0 && opened.st_ino == named.st_ino;
		  }),
		  1);
	EXPECT_EQ(in_child([] {
			  close(STDIN_FILENO);
			  verify_image(firmware_path);
			  return -verify_image(firmware_path);
		  }),
		  IMAGE_GOOD);
}

TEST_F(ImageFile, IsLeftOpenByNoKindOfCheck)
{
	const std::string damaged_header = "\x27\x05\x19\x56" + std::string(100, 'x');
	const std::string damaged_data = good_image() + "x";
	const std::string metadata = with_metadata(noise(300), metadata_json({"MODEL-X"}));
	const std::string other =
		build_uimage("x", {.entry_point = other_address, .name = "OTHER"});
	ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
	verify(good_image());
	const auto before = open_descriptors(getpid());
	for (int round = 0; round < 5; round++) {
		EXPECT_EQ(verify(good_image()), IMAGE_GOOD);
		EXPECT_EQ(verify(metadata), IMAGE_GOOD);
		EXPECT_EQ(verify(damaged_header), IMAGE_BAD_HEADER);
		EXPECT_EQ(verify(damaged_data), IMAGE_BAD_CHECKSUM);
		EXPECT_EQ(verify(other), IMAGE_BAD_MODEL);
		EXPECT_EQ(verify("text"), IMAGE_BAD_MAGIC);
		EXPECT_EQ(verify(""), IMAGE_NOT_MAPPED);
		EXPECT_EQ(verify_image("/tmp/fifo"), IMAGE_NOT_MAPPED);
		EXPECT_EQ(verify_image("/tmp"), IMAGE_NOT_MAPPED);
		EXPECT_EQ(verify_image("/tmp/nowhere"), IMAGE_NOT_OPENED);
	}
	EXPECT_EQ(open_descriptors(getpid()), before);
	const std::string mappings = read_file("/realproc/self/maps");
	EXPECT_FALSE(mappings.empty());
	EXPECT_EQ(mappings.find(firmware_path), std::string::npos) << "a mapping is left";
}

TEST_F(ImageFile, IsNotHandedToTheToolsThatAreRun)
{
	files.install_tool(fwtool_path, "ls -l /realproc/$$/fd >/tmp/handed-over; exit 1");
	EXPECT_EQ(verify("text"), IMAGE_BAD_MAGIC);
	const std::string open_files = read_file("/tmp/handed-over");
	EXPECT_FALSE(open_files.empty());
	EXPECT_EQ(open_files.find(firmware_path), std::string::npos) << open_files;
}

TEST_F(ImageFile, LeavesTheStateAtFirmwareCheckWhateverItIs)
{
	for (const std::string &image :
	     {good_image(), good_image() + "x", std::string("text"), std::string()}) {
		SCOPED_TRACE(image.size());
		update_context.state = UpdateState::XML_DONE;
		verify(image);
		EXPECT_EQ(update_context.state, UpdateState::FIRMWARE_CHECK);
	}
	update_context.state = UpdateState::WAIT_DELAY;
	verify_image("/tmp/nowhere");
	EXPECT_EQ(update_context.state, UpdateState::FIRMWARE_CHECK);
}
