// SPDX-License-Identifier: ISC
// Model and custom ID, as the metadata of a file name them.
#include "firmware_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

class FirmwareModel : public FirmwareFixture
{
protected:
	static int check_json(std::string_view json)
	{
		write_bytes(firmware_path, with_metadata("firmware", json));
		return check_signature_model(firmware_path);
	}

	static int check_model(const std::string &model, std::string_view customid)
	{
		return check_json(metadata_json({model}, customid));
	}

	// Metadata whose custom ID is this JSON value.
	static std::string with_customid(const std::string &value)
	{
		return R"({ "supported_devices": ["ABC"], "version": { "customid": )" + value +
		       " } }";
	}
};

} // namespace

TEST_F(FirmwareModel, GivesModelAndCustomId)
{
	EXPECT_EQ(check_model("ABC", "77"), extracted);
	EXPECT_EQ(remembered_model(), "ABC[77]");
	EXPECT_EQ(logged(), Texts{});
	EXPECT_FALSE(exists(side_file));
	EXPECT_EQ(update_context.state, UpdateState::NONE) << "the state is not its business";
}

TEST_F(FirmwareModel, GivesTheModelAloneWithoutACustomId)
{
	for (const char *json :
	     {R"({ "supported_devices": ["ABC"] })",
	      R"({ "supported_devices": ["ABC"], "version": {} })",
	      R"({ "supported_devices": ["ABC"], "version": { "customid": "" } })",
	      R"({ "supported_devices": ["ABC"], "version": { "customid": " \r\n" } })",
	      R"({ "supported_devices": ["ABC"], "customid": "77" })"}) {
		SCOPED_TRACE(json);
		EXPECT_EQ(check_json(json), extracted);
		EXPECT_EQ(remembered_model(), "ABC");
		EXPECT_EQ(logged(), Texts{no_customid_text});
		EXPECT_FALSE(exists(side_file));
	}
}

TEST_F(FirmwareModel, CutsTheCustomIdToSevenCharacters)
{
	const struct {
		const char *value;
		const char *model;
	} cases[] = {
		{R"("1234567")", "ABC[1234567]"},
		{R"("12345678")", "ABC[1234567]"},
		{R"("123456789012")", "ABC[1234567]"},
		{R"("1")", "ABC[1]"},
		{R"(" 1 2\r\n3 ")", "ABC[123]"},
		{R"("[7]")", "ABC[[7]]"},
		{"77", "ABC[77]"},
		{R"("a,b")", "ABC[a,b]"},
		{R"("1 2 3 4 5 6 7 8")", "ABC[1234567]"},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.value);
		EXPECT_EQ(check_json(with_customid(row.value)), extracted);
		EXPECT_EQ(remembered_model(), row.model);
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(FirmwareModel, StoresAListOfDevicesJoinedByCommas)
{
	const struct {
		const char *devices;
		const char *model;
	} cases[] = {
		{R"(["ABC"])", "ABC[77]"},	     {R"(["A"])", "A[77]"},
		{R"(["ABC","XYZ"])", "ABC,XYZ[77]"}, {R"(["ABC", "XYZ", "D"])", "ABC,XYZ,D[77]"},
		{R"(["A B[C] D"])", "ABCD[77]"},     {R"("ABC")", "ABC[77]"},
		{R"(["A\r\nB"])", R"(A\r\nB[77])"},  {R"(["qor,model-x"])", "qor,model-x[77]"},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.devices);
		const std::string head =
			R"({ "version": { "customid": "77" }, "supported_devices": )";
		EXPECT_EQ(check_json(head + row.devices + " }"), extracted);
		EXPECT_EQ(remembered_model(), row.model);
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(FirmwareModel, FitsModelAndCustomIdInto31Characters)
{
	const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
	const struct {
		std::size_t model;
		const char *customid;
		int result;
	} cases[] = {
		{22, "1234567", extracted}, {22, "123456789", extracted},
		{23, "1234567", no_use},    {23, "123456", extracted},
		{24, "123456", no_use},	    {28, "1", extracted},
		{29, "1", no_use},	    {30, "1", no_use},
		{31, "1", no_use},	    {31, "1234567", no_use},
		{36, "1", no_use},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(std::to_string(row.model) + " and " + row.customid);
		const std::string model = letters.substr(0, row.model);
		const std::string kept = model.substr(0, 31);
		const std::string id = std::string(row.customid).substr(0, 7);
		std::string brackets = "[";
		brackets.append(id).append("]");
		Texts texts;
		if (row.result != extracted) {
			texts.push_back("Model name and Custom ID oversized! (" + kept);
			texts.back().append(brackets).append(")");
		}
		EXPECT_EQ(check_model(model, row.customid), row.result);
		EXPECT_EQ(remembered_model(), row.result == extracted ? kept + brackets : kept);
		EXPECT_EQ(logged(), texts);
		EXPECT_EQ(exists(side_file), row.result != extracted);
		std::filesystem::remove(side_file);
	}
}

TEST_F(FirmwareModel, CutsAModelWithoutCustomIdTo31Characters)
{
	for (const std::size_t length : {30U, 31U, 32U, 100U}) {
		SCOPED_TRACE(length);
		EXPECT_EQ(check_model(std::string(length, 'x'), ""), extracted);
		EXPECT_EQ(remembered_model(), std::string(std::min(length, std::size_t{31}), 'x'));
		EXPECT_EQ(fw_model_name[MODEL_NAME_SIZE - 1], '\0');
	}
}

TEST_F(FirmwareModel, WithoutAModelIsOfNoUseAndLeavesTheMetadataFile)
{
	for (const char *json :
	     {"{}", R"({ "supported_devices": [] })", R"({ "supported_devices": [""] })",
	      R"({ "supported_device": ["ABC"] })", R"([ "supported_devices" ])", "no JSON", "{",
	      ""}) {
		SCOPED_TRACE(json);
		set_remembered_model("EARLIER");
		EXPECT_EQ(check_json(json), no_use);
		EXPECT_EQ(remembered_model(), "");
		EXPECT_EQ(logged(), (Texts{no_customid_text, no_model_name_text, no_model_text}));
		EXPECT_EQ(read_file(side_file), json);
		std::filesystem::remove(side_file);
	}
}
