// SPDX-License-Identifier: ISC
// What the update job makes of the file that has arrived: refused images, the retries they cost,
// and archives, which are downloaded and never unpacked.
#include "router/update_fixture.h"

using namespace router_test;

namespace
{

constexpr const char *metadata_path = "/tmp/fwupdate.bin.signature";

struct BadImage {
	const char *name;
	std::string content;
	const char *text;
};

class UpdateVerify : public UpdateTest
{
protected:
	std::string image_for(const std::string &model) const
	{
		return make_uimage(noise(5000), {.name = model});
	}

	std::vector<BadImage> bad_images() const
	{
		const std::string good = image_for(router_model());
		std::string broken_data = good;
		flip_bit(broken_data, good.size() - 1);
		std::string broken_header = good;
		flip_bit(broken_header, 13);
		std::string unsealed = good;
		flip_bit(unsealed, 0);
		const std::string other = image_for("OTHER");
		const std::string foreign =
			with_metadata("no uImage at all", metadata_json({"OTHER"}, "77"));
		return {{"data", broken_data, "Bad Image checksum [-7]"},
			{"cut short", good.substr(0, 4000), "Bad Image checksum [-7]"},
			{"too long", good + "x", "Bad Image checksum [-7]"},
			{"header", broken_header, "Bad Header checksum [-6]"},
			{"magic", unsealed, "Bad Magic Number [-5]"},
			{"error page", "<html>sorry</html>", "Bad Magic Number [-5]"},
			{"one byte", "x", "Bad Magic Number [-5]"},
			{"another model", other, "Bad Model [-9]"},
			{"another model's metadata", foreign, "Bad Model [-9]"}};
	}
};

TEST_F(UpdateVerify, InstallsAnImageWithARightDataChecksum)
{
	offer(answer(image_for(router_model())));
	start_daemon();
	expect_outcome(daemon().update(), {});
	expect_installed();
	EXPECT_FALSE(exists(metadata_path));
}

TEST_F(UpdateVerify, InstallsAnImageWithMetadata)
{
	offer(answer(with_metadata(noise(3000), metadata_json({router_model()}, "77"))));
	start_daemon();
	expect_outcome(daemon().update(), {});
	expect_installed();
	EXPECT_FALSE(exists(metadata_path));
}

TEST_F(UpdateVerify, AnswersABadImageWithItsLogLine)
{
	start_daemon();
	for (const BadImage &bad : bad_images()) {
		SCOPED_TRACE(bad.name);
		syslog.clear();
		offer(answer(bad.content));
		expect_outcome(daemon().update(), {.code = 3, .text = bad.text});
		ASSERT_EQ(syslog.lines().size(), 1u);
		EXPECT_EQ(syslog.lines().front().text, bad.text);
		EXPECT_EQ(syslog.lines().front().pid, daemon().pid());
		EXPECT_EQ(daemon().state().fields, (Fields{string_field("state", "NONE"),
							   string_field("message", bad.text)}));
		expect_not_installed();
		EXPECT_EQ(files.tool_calls(setenv_tool), Calls{});
	}
	expect_nothing_leaked();
}

TEST_F(UpdateVerify, AnswersABadImageWithTheFixedTextWithoutDebug)
{
	offer(answer(bad_images().front().content));
	start_daemon({});
	expect_outcome(daemon().update(), {.code = 3, .text = image_refused});
	expect_not_installed();
	EXPECT_TRUE(syslog.lines().empty());
}

// Vouched for by metadata that is not there.
TEST_F(UpdateVerify, RefusesAnImageWhoseMetadataIsMissing)
{
	UimageOptions options = {.name = router_model()};
	options.entry_point = options.load_address;
	offer(answer(make_uimage(noise(500), options)));
	start_daemon();
	expect_outcome(daemon().update(), {.code = 3, .text = "Bad Image checksum [-7]"});
	EXPECT_EQ(syslog.texts(),
		  (std::vector<std::string>{
			  "Error on reading signature, possibly firmware is damaged",
			  "Bad Image checksum [-7]"}));
	expect_not_installed();
	// What a failed extraction wrote stays.
	EXPECT_TRUE(exists(metadata_path));
	may_leave_image = true;
}

TEST_F(UpdateVerify, DownloadsABadImageAgain)
{
	offer();
	server.on(firmware, {answer("no firmware"), answer("no firmware either"),
			     answer(image_for(router_model()))});
	start_daemon();
	expect_outcome(daemon().update({int32_field("attempts", 3)}), {});
	EXPECT_EQ(downloads(), 3u);
	EXPECT_EQ(queries(), 1u);
	EXPECT_EQ(syslog.texts(),
		  (std::vector<std::string>{"Bad Magic Number [-5]", "Bad Magic Number [-5]"}));
	expect_installed();
}

TEST_F(UpdateVerify, ArchiveStaysInTmpAndIsNotInstalled)
{
	const std::string archive = "archive";
	offer(answer(archive), {.archive = "1", .file_name = "image.bin"});
	start_daemon();
	expect_outcome(daemon().update(), {.code = 3, .text = "Can't open image [-2]"});
	EXPECT_EQ(syslog.texts(), (std::vector<std::string>{"Can't open image [-2]"}));
	EXPECT_EQ(read_file(archive_path), archive);
	expect_not_installed();
	may_leave_image = true;
}

TEST_F(UpdateVerify, ArchiveThatCouldNotBeDownloadedIsDeleted)
{
	offer(answer("half").announce(8), {.archive = "1", .file_name = "image.bin"});
	start_daemon();
	expect_outcome(daemon().update(), {.code = 2, .text = download_failed});
	EXPECT_FALSE(exists(archive_path));
	expect_not_installed();
}

// Whatever image an earlier program left there is what gets checked.
TEST_F(UpdateVerify, ArchiveLeavesAnImageOfBeforeToBeChecked)
{
	files.write(image_path, image_for(router_model()));
	offer(answer("archive"), {.archive = "1", .file_name = "image.bin"});
	start_daemon();
	expect_outcome(daemon().update(), {});
	expect_installed();
	EXPECT_EQ(read_file(archive_path), "archive");
}

TEST_F(UpdateVerify, ArchiveFlagIsExactlyOne)
{
	start_daemon();
	for (const char *flag : {"0", "2", "true", "11", " 1", "1 ", "01"}) {
		SCOPED_TRACE(std::string("archive '") + flag + "'");
		offer(answer(image_for(router_model())),
		      {.archive = flag, .file_name = "image.bin"});
		expect_outcome(daemon().update(), {});
		EXPECT_FALSE(exists(archive_path));
	}
	EXPECT_TRUE(files.wait_for_tool_calls(installer, 7));
	may_leave_image = true;
}

} // namespace
