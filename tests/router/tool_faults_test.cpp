// SPDX-License-Identifier: ISC
// Each tool of the router missing, failing, silent, printing rubbish or 10 MB, and killed, row by
// row of docs/reliability.md. What a test leaves behind is compared by its fixture.
#include <gmock/gmock.h>

#include "router/update_fixture.h"
#include "support/fault_row.h"
#include "support/process.h"

using namespace router_test;

namespace
{

// What a broken tool does. BusyBox itself stays: these use no tool that may be the broken one.
struct Breakage {
	const char *name;
	const char *words;
	const char *script; // none: the tool is not there
};

const Breakage breakages[] = {
	{"missing", "is missing", nullptr},
	{"failing", "fails", "exit 1"},
	{"silent", "prints nothing", "exit 0"},
	{"rubbish", "prints rubbish", "printf '\\377\\376\\001 \"%%s`$(x)\\\\'"},
	{"ten_megabytes", "prints 10 MB without a line feed",
	 "/bin/busybox head -c 10485760 /dev/zero | /bin/busybox tr '\\000' x"},
	{"killed", "is killed", "kill -KILL $$"},
};

// What an update comes to; the lines are logged in this order and begin like this.
struct ToolFault {
	std::string tool;
	std::string breakage;
	int code;
	std::string text;
	std::vector<std::string> logged;
	std::string name = tool + "_" + breakage;
};

void PrintTo(const ToolFault &row, std::ostream *stream)
{
	*stream << row.name;
}

const Breakage &breakage_of(const std::string &name)
{
	for (const Breakage &breakage : breakages) {
		if (breakage.name == name) {
			return breakage;
		}
	}
	throw std::logic_error("nothing breaks like " + name);
}

// One outcome of several breakages of one tool.
struct Rule {
	std::string tool;
	std::vector<std::string> broken;
	int code = 0;
	std::string text = no_error;
	std::vector<std::string> logged = {};
};

const std::vector<std::string> without_value = {"missing", "failing", "silent", "killed"};
const std::vector<std::string> in_any_way = {"missing", "failing",	 "silent",
					     "rubbish", "ten_megabytes", "killed"};

const std::string no_serial = "Error on reading cpe_sn";
const std::string no_version = "Error on reading cpe_version";
const std::string no_builddate = "Error on reading cpe_builddate";
const std::string no_device = "Error on reading cpe_wan_device";
const std::string no_interface = "Error on reading cpe_wan_if";
const std::string no_mac = "Error on reading cpe_wan_mac";
const std::string no_address = "Error on reading cpe_wan_ip";
const std::string no_server_url = "Error on reading cpe_update_xml_url";
const std::string no_model = "Error on reading cpe_model";
const std::string no_product = "Error on reading cpe_product_name";
const std::string no_query = "Error on geting update info via CURL";
const std::string no_partition = "Error on reading fw_part";
const std::string wrong_partition = "Partition in 'bootpart' is wrong, try find current partition";
const std::string no_space = "Error on reading tmpfs";
const std::string no_room = "Error, not enough memory to load firmware!";
const std::string no_customid = "Error on reading customid";
const std::string no_name = "Error on reading fw_model_name";
const std::string no_metadata = "Error on reading model via fwtool";
const std::string bad_magic = "Bad Magic Number [-5]";
const std::string bad_model = "Bad Model [-9]";

const std::vector<Rule> rules = {
	{"qor_factory", without_value, 0, no_error, {no_serial}},
	{"qor_factory", {"rubbish"}, 1, query_failed, {no_query}},
	{"qor_factory", {"ten_megabytes"}},
	{"ubus",
	 in_any_way,
	 3,
	 bad_model,
	 {no_version, no_builddate, no_device, no_model, no_product, bad_model}},
	{"jsonfilter",
	 without_value,
	 3,
	 bad_model,
	 {no_version, no_builddate, no_device, no_model, no_product, bad_model}},
	{"jsonfilter", {"rubbish"}, 1, query_failed, {no_mac, no_query}},
	{"jsonfilter", {"ten_megabytes"}, 3, bad_model, {no_mac, bad_model}},
	{"ip", in_any_way, 0, no_error, {no_interface}},
	{"ifconfig", in_any_way, 0, no_error, {no_mac, no_address}},
	{"uci", without_value, 1, query_failed, {no_server_url, no_query}},
	{"uci", {"rubbish", "ten_megabytes"}, 1, query_failed, {no_query}},
	{"awk", without_value, 2, no_space + "\n", {no_interface, no_mac, no_space}},
	{"awk", {"rubbish"}, 1, query_failed, {no_address, no_query}},
	{"awk", {"ten_megabytes"}, 2, no_room + "\n", {wrong_partition, no_room}},
	{"grep", without_value, 2, no_space + "\n", {no_mac, no_space}},
	{"grep", {"rubbish", "ten_megabytes"}, 2, no_room + "\n", {no_mac, no_partition, no_room}},
	{"tr",
	 without_value,
	 3,
	 bad_model,
	 {no_version, no_builddate, no_device, no_interface, no_model, no_partition, no_product,
	  bad_model}},
	{"tr", {"rubbish"}, 1, query_failed, {no_mac, no_address, no_query}},
	{"tr", {"ten_megabytes"}, 3, bad_model, {wrong_partition, bad_model}},
	{"df", in_any_way, 2, no_space + "\n", {no_space}},
	{"sync", in_any_way},
	{"fw_printenv", {"missing"}},
	{"fw_printenv",
	 {"failing", "silent", "rubbish", "ten_megabytes", "killed"},
	 0,
	 no_error,
	 {no_partition}},
	{"fwtool", {"missing", "failing"}, 3, bad_magic, {bad_magic}},
	{"fwtool",
	 {"silent", "rubbish", "ten_megabytes", "killed"},
	 3,
	 bad_magic,
	 {no_customid, no_name, no_metadata, bad_magic}},
	{"fw_setenv", {"failing"}, 0, no_error, {"Can't set boot partition via fw_setenv"}},
	{"fw_setenv", {"missing", "silent", "rubbish", "ten_megabytes", "killed"}},
	{"sleep", in_any_way},
	{"sysupgrade", in_any_way},
	{"sh",
	 {"missing"},
	 1,
	 query_failed,
	 {no_serial, no_version, no_builddate, no_device, no_interface, no_server_url, no_model,
	  no_query}},
};

std::vector<ToolFault> tool_faults()
{
	std::vector<ToolFault> rows;
	for (const Rule &rule : rules) {
		for (const std::string &broken : rule.broken) {
			rows.push_back({rule.tool, broken, rule.code, rule.text, rule.logged});
		}
	}
	return rows;
}

class ToolFaults : public UpdateTest, public testing::WithParamInterface<ToolFault>
{
protected:
	static bool is_handed_over(const ToolFault &row)
	{
		return row.code == 0 && row.tool != "sysupgrade";
	}

	static bool is_stuck(const ToolFault &row)
	{
		return row.code == 2;
	}

	static void record_row(const ToolFault &row)
	{
		std::string caller = "`update`: code " + std::to_string(row.code);
		for (const std::string &line : row.logged) {
			caller += (&line == row.logged.data() ? ", log: \"" : ", \"") + line + "\"";
		}
		std::string left = "nothing";
		if (row.code == 0) {
			left = is_handed_over(row) ? "the installed image"
						   : "the image, not installed";
		} else if (is_stuck(row)) {
			left = "a daemon that answers further updates with code 6 until it is "
			       "restarted";
		}
		record({.fault = "`" + row.tool + "` " + breakage_of(row.breakage).words + ".",
			.caller = caller,
			.left = left});
	}

	// Tools print where the daemon would print, and that has to be read.
	Reply update_and_read_along()
	{
		PendingCall pending = daemon().start_update();
		EXPECT_TRUE(eventually([&] {
			daemon().process().output();
			return pending.finished();
		}));
		return pending.wait();
	}

	void expect_logged(const std::vector<std::string> &starts)
	{
		const std::vector<std::string> lines = syslog.texts();
		ASSERT_EQ(lines.size(), starts.size()) << testing::PrintToString(lines);
		for (std::size_t line = 0; line < lines.size(); line++) {
			EXPECT_THAT(lines[line], testing::StartsWith(starts[line]));
		}
	}
};

void break_tool(RouterFiles &files, const std::string &tool, const Breakage &breakage)
{
	const std::string path = find_program(tool);
	files.remove(path);
	if (breakage.script != nullptr) {
		files.install_tool(path, breakage.script);
	}
}

TEST_P(ToolFaults, DoNoMoreHarmThanThis)
{
	const ToolFault &row = GetParam();
	record_row(row);
	offer(answer(row.tool == "fwtool"
			     ? with_metadata(noise(4096), metadata_json({router_model()}))
			     : good_image()));
	start_daemon();
	break_tool(files, row.tool, breakage_of(row.breakage));
	const Reply reply = update_and_read_along();
	EXPECT_EQ(code_of(reply), row.code);
	EXPECT_EQ(text_of(reply.fields, "error_message"), row.text);
	expect_logged(row.logged);
	if (is_handed_over(row)) {
		EXPECT_TRUE(eventually([&] {
			daemon().process().output();
			return !files.tool_calls(installer).empty();
		}));
	}
	if (is_stuck(row)) {
		EXPECT_EQ(code_of(update_and_read_along()), 6);
	}
	// A bad image goes when the answer has gone.
	EXPECT_TRUE(row.code == 0 ? exists(image_path) : wait_until_gone(image_path));
	may_leave_image = row.code == 0;
}

INSTANTIATE_TEST_SUITE_P(Matrix, ToolFaults, testing::ValuesIn(tool_faults()), case_name);

class PidofFaults : public RouterTest, public testing::WithParamInterface<Breakage>
{
};

void PrintTo(const Breakage &row, std::ostream *stream)
{
	*stream << row.words;
}

TEST_P(PidofFaults, KeepTheDaemonFromStarting)
{
	record({.fault = std::string("`pidof` ") + GetParam().words + ".",
		.caller = "no daemon: it ends at once with status 0"});
	break_tool(files, "pidof", GetParam());
	Process process({.words = {daemon_path, "--debug"}});
	const ExitStatus end = process.wait();
	EXPECT_TRUE(end.ended);
	EXPECT_EQ(end.code, 0);
	EXPECT_EQ(process.errors().find("Failed"), std::string::npos);
	EXPECT_FALSE(find_object("fwupdate").has_value());
	EXPECT_TRUE(syslog.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Matrix, PidofFaults, testing::ValuesIn(breakages), case_name);

} // namespace
