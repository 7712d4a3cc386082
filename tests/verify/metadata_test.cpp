// SPDX-License-Identifier: ISC
// The extraction of the metadata by fwtool, its failures, and what becomes of the extracted file.
#include "firmware_fixture.h"

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

TEST_F(FirmwareMetadata, ThatIsMissingIsACodeOfItsOwn)
{
	EXPECT_EQ(check("firmware"), no_metadata);
	EXPECT_FALSE(exists(side_file));
}

TEST_F(FirmwareMetadata, IsOfNoUseWithoutJsonfilter)
{
	const std::string file = file_with_metadata();
	files.remove(jsonfilter_path);
	EXPECT_EQ(check(file), no_use);
	EXPECT_EQ(logged(), (Texts{no_customid_text, no_model_name_text, no_model_text}));
	EXPECT_TRUE(exists(side_file));
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
