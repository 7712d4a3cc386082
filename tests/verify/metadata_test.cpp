// SPDX-License-Identifier: ISC
// The extraction of the metadata by fwtool, its failures, and what becomes of the extracted file.
#include "firmware_fixture.h"

#include "support/refusals.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr const char *jsonfilter_path = "/usr/bin/jsonfilter";

constexpr int not_run = -1;
constexpr int no_metadata = -3;

class FirmwareMetadata : public FirmwareFixture
{
protected:
	static int check(std::string_view file)
	{
		write_bytes(firmware_path, file);
		return check_signature_model(firmware_path);
	}

	static std::string file_with_metadata()
	{
		return with_metadata("firmware", metadata_json({"ABC"}, "77"));
	}
};

} // namespace

TEST_F(FirmwareMetadata, MissingLeavesNothingBehindAndSaysNothing)
{
	const std::string image = build_uimage("data", {});
	for (const std::string &file : {std::string(), std::string("x"), noise(1000), image,
					with_signature("firmware", "signed")}) {
		SCOPED_TRACE(file.size());
		set_remembered_model("EARLIER");
		EXPECT_EQ(check(file), no_metadata);
		EXPECT_FALSE(exists(side_file));
		EXPECT_EQ(remembered_model(), "EARLIER");
	}
	EXPECT_EQ(check_signature_model("/tmp/nowhere"), no_metadata);
	EXPECT_FALSE(exists("/tmp/nowhere.signature"));
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(FirmwareMetadata, IsMissingWhenFwtoolFailsWhateverItWrote)
{
	for (const char *status : {"1", "2", "127", "128", "255"}) {
		SCOPED_TRACE(status);
		files.install_tool(fwtool_path,
				   R"(echo '{"supported_devices":["ABC"]}' >"$2"; exit )" +
					   std::string(status));
		EXPECT_EQ(check("firmware"), no_metadata);
		EXPECT_FALSE(exists(side_file));
	}
	EXPECT_EQ(remembered_model(), "");
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(FirmwareMetadata, IsMissingWithoutFwtool)
{
	const std::string file = file_with_metadata();
	files.remove(fwtool_path);
	write_bytes(side_file, "of an earlier check");
	EXPECT_EQ(check(file), no_metadata);
	EXPECT_FALSE(exists(side_file));
	files.write(fwtool_path, "#!/bin/sh\nexit 0\n", 0644);
	EXPECT_EQ(check(file), no_metadata);
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(FirmwareMetadata, CountsAsExtractedWhenASignalKillsFwtool)
{
	files.install_tool(fwtool_path,
			   R"(echo '{"supported_devices":["ABC"]}' >"$2"; kill -KILL $$)");
	EXPECT_EQ(check("firmware"), extracted);
	EXPECT_EQ(remembered_model(), "ABC");
	EXPECT_FALSE(exists(side_file));
}

TEST_F(FirmwareMetadata, CannotBeReadWhenFwtoolCannotBeRun)
{
	const std::string file = file_with_metadata();
	set_remembered_model("EARLIER");
	const IgnoredChildren ignored;
	EXPECT_EQ(check(file), not_run);
	EXPECT_EQ(logged(), Texts{"Error checking firmware via fwtools: \"/usr/bin/fwtool -i "
				  "/tmp/firmware.bin.signature /tmp/firmware.bin\""});
	EXPECT_EQ(remembered_model(), "EARLIER");
	EXPECT_TRUE(exists(side_file)) << "not touched";
}

TEST_F(FirmwareMetadata, NeedsAPathWhoseCommandsFit)
{
	const std::string file = file_with_metadata();
	const std::string fits = path_of_length(longest_path);
	write_bytes(fits, file);
	EXPECT_EQ(check_signature_model(fits.c_str()), extracted);
	EXPECT_EQ(remembered_model(), "ABC[77]");
	EXPECT_FALSE(exists(fits + ".signature"));
	EXPECT_EQ(logged(), Texts{});

	const std::string longer = path_of_length(longest_path + 1);
	write_bytes(longer, file);
	write_bytes(longer + ".signature", "of an earlier check");
	EXPECT_EQ(check_signature_model(longer.c_str()), not_run);
	EXPECT_EQ(read_file(longer + ".signature"), "of an earlier check");
	EXPECT_EQ(logged().size(), 1U);
	EXPECT_EQ(check_signature_model(std::string(5000, 'x').c_str()), not_run);
	EXPECT_EQ(logged().size(), 1U);
}

TEST_F(FirmwareMetadata, AsksFwtoolAndThenJsonfilterForCustomIdAndModel)
{
	record_fwtool();
	const std::string real = std::string(jsonfilter_path) + ".real";
	files.write(real, read_file(jsonfilter_path), 0755);
	files.install_recording_tool(jsonfilter_path, "exec " + real + " \"$@\"");
	const std::string file = file_with_metadata();
	EXPECT_EQ(check(file), extracted);
	EXPECT_EQ(extractions(), std::vector<Texts>{extraction(firmware_path)});
	const auto calls = files.tool_calls(jsonfilter_path);
	ASSERT_EQ(calls.size(), 2U);
	EXPECT_EQ(Texts(calls[0].begin() + 1, calls[0].end()),
		  (Texts{"-i", side_file, "-e", "@.version.customid"}));
	EXPECT_EQ(Texts(calls[1].begin() + 1, calls[1].end()),
		  (Texts{"-i", side_file, "-e", "@[\"supported_devices\"]"}));
}

TEST_F(FirmwareMetadata, IsOfNoUseWithoutJsonfilter)
{
	const std::string file = file_with_metadata();
	files.remove(jsonfilter_path);
	EXPECT_EQ(check(file), no_use);
	EXPECT_EQ(logged(), (Texts{no_customid_text, no_model_name_text, no_model_text}));
	EXPECT_TRUE(exists(side_file));
}

TEST_F(FirmwareMetadata, IsOfNoUseWhenJsonfilterCannotBeStarted)
{
	const std::string file = file_with_metadata();
	set_remembered_model("EARLIER");
	int result = extracted;
	with_pipes_refused([&] { result = check(file); }, 1); // fwtool goes before
	EXPECT_EQ(result, no_use);
	EXPECT_EQ(logged(), (Texts{no_customid_text, no_model_name_text, no_model_text}));
	EXPECT_EQ(remembered_model(), "");
	EXPECT_TRUE(exists(side_file));
}

TEST_F(FirmwareMetadata, LeavesNothingOpen)
{
	const auto before = open_descriptors(getpid());
	for (int round = 0; round < 5; round++) {
		EXPECT_EQ(check(file_with_metadata()), extracted);
		EXPECT_EQ(check(with_metadata("firmware", "{}")), no_use);
		EXPECT_EQ(check("firmware"), no_metadata);
	}
	EXPECT_EQ(open_descriptors(getpid()), before);
}

TEST(FwtoolCommand, NamesTheMetadataFileAndTheFirmware)
{
	char command[VERIFY_COMMAND_SIZE];
	EXPECT_TRUE(format_fwtool_command(command, "/tmp/x"));
	EXPECT_STREQ(command, "/usr/bin/fwtool -i /tmp/x.signature /tmp/x");
}

TEST(FwtoolCommand, IsRefusedWhenItDoesNotFit)
{
	char command[VERIFY_COMMAND_SIZE];
	EXPECT_TRUE(format_fwtool_command(command, path_of_length(longest_path).c_str()));
	EXPECT_EQ(std::strlen(command), 254U);
	for (const std::size_t length : {longest_path + 1, longest_path + 2, std::size_t{4000}}) {
		SCOPED_TRACE(length);
		std::memset(command, 'x', sizeof(command));
		EXPECT_FALSE(format_fwtool_command(command, path_of_length(length).c_str()));
		EXPECT_EQ(strnlen(command, sizeof(command)), 255U);
	}
}

class MetadataFile : public RouterFixture
{
};

TEST_F(MetadataFile, IsRemovedWhenItsNameFits128Bytes)
{
	for (const std::size_t length : {6U, 117U, 118U, 200U}) {
		SCOPED_TRACE(length);
		const std::string path = path_of_length(length);
		write_bytes(path, "firmware");
		write_bytes(path + ".signature", "metadata");
		remove_metadata_file(path.c_str());
		EXPECT_EQ(exists(path + ".signature"), length > 117U);
		EXPECT_TRUE(exists(path));
	}
}

TEST_F(MetadataFile, IsNotTakenForAnotherFileWhenItsNameIsTooLong)
{
	const std::string path = path_of_length(118);
	const std::string cut_name = (path + ".signature").substr(0, 127);
	write_bytes(cut_name, "another file");
	remove_metadata_file(path.c_str());
	EXPECT_TRUE(exists(cut_name));
}

TEST_F(MetadataFile, MayBeMissing)
{
	const auto before = list_folder("/tmp");
	remove_metadata_file("/tmp/nowhere");
	EXPECT_EQ(list_folder("/tmp"), before);
}
