// SPDX-License-Identifier: ISC
// The method `check` of the whole daemon, and its event.
#include <gmock/gmock.h>

#include "support/fixture.h"

using namespace router_test;
using testing::Contains;
using testing::IsEmpty;

namespace
{

class Check : public RouterTest
{
protected:
	std::size_t manifest_requests() const
	{
		return server.requests("/update.xml").size();
	}
	std::string state_message()
	{
		return text_of(daemon().state().fields, "message");
	}
	void ask_nobody()
	{
		files.set_manifest_url("http://127.0.0.1:" + std::to_string(unused_port()) + "/");
	}
};

} // namespace

TEST_F(Check, TellsTheCallerAndEverybodyElseOfANewBuild)
{
	offer({.version = "2.0", .buildtime = "1900000000", .release_notes = "Better."});
	start_daemon();
	EventListener listener("fwupdate.avaliable");
	const Reply reply = daemon().check();
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.messages, 1);
	EXPECT_EQ(reply.fields, (Fields{
					string_field("version", "2.0"),
					string_field("buildtime", "190000000"),
					string_field("releasenotes", "Better."),
					string_field("force", ""),
					string_field("need_update", "1"),
					string_field("error_code", "0"),
					string_field("error_message", "No Error"),
				}));
	const std::vector<BusEvent> events = listener.drain();
	ASSERT_EQ(events.size(), 1u);
	EXPECT_EQ(events[0].id, "fwupdate.avaliable");
	EXPECT_EQ(events[0].fields, reply.fields);
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_EQ(manifest_requests(), 1u);
	expect_nothing_leaked();
}

TEST_F(Check, TellsEverybodyOfAServerThatCannotBeReached)
{
	ask_nobody();
	start_daemon();
	EventListener listener("*");
	const Reply reply = daemon().check();
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.fields, failed_check);
	const std::optional<BusEvent> event = listener.next();
	ASSERT_TRUE(event);
	EXPECT_EQ(event->id, "fwupdate.avaliable");
	EXPECT_EQ(event->fields, failed_check);
	EXPECT_EQ(daemon().state_name(), "XML_CONNECT");
	EXPECT_THAT(state_message(),
		    testing::StartsWith("Error on geting update info via CURL [Failed to connect"));
	EXPECT_TRUE(syslog.contains("Error on geting update info via CURL [Failed to connect"));
}

TEST_F(Check, AsksTheServerEachTimeWhateverItsArguments)
{
	offer({.version = "2.0"});
	start_daemon();
	EXPECT_EQ(text_of(daemon().check().fields, "version"), "2.0");
	offer({.version = "2.1"});
	const Fields arguments = {string_field("force", "1"), int32_field("timeout", 1)};
	EXPECT_EQ(text_of(call("fwupdate", "check", arguments).fields, "version"), "2.1");
	EXPECT_EQ(manifest_requests(), 2u);
}

TEST_F(Check, SuccessAfterAFailureShowsNothingOfIt)
{
	start_daemon();
	server.on("/update.xml", answer(404, "<html>gone</html>"));
	EXPECT_EQ(daemon().check().fields, failed_check);
	EXPECT_NE(state_message(), "");
	offer();
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "0");
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_EQ(state_message(), "");
}

TEST_F(Check, AnswersTheNextUpdateWithoutAskingAgain)
{
	offer({.version = "1.0", .buildtime = router_builddate()});
	start_daemon();
	EXPECT_EQ(text_of(daemon().check().fields, "need_update"), "0");
	const Fields fields = daemon().update().fields;
	EXPECT_EQ(text_of(fields, "version"), "1.0");
	EXPECT_EQ(text_of(fields, "error_code"), "0");
	EXPECT_EQ(manifest_requests(), 1u);
}

TEST_F(Check, OfferIsWhatTheNextUpdateDownloads)
{
	offer(answer(404, "gone"));
	start_daemon();
	EXPECT_EQ(text_of(daemon().check().fields, "need_update"), "1");
	daemon().update();
	EXPECT_TRUE(daemon().wait_for_workers(0));
	EXPECT_EQ(manifest_requests(), 1u);
	EXPECT_EQ(server.requests("/firmware.bin").size(), 1u);
}

TEST_F(Check, ThatFailedLetsTheNextUpdateAskAgain)
{
	server.on("/update.xml", answer("no XML"));
	start_daemon();
	daemon().check();
	EXPECT_EQ(text_of(daemon().update().fields, "error_code"), "1");
	EXPECT_EQ(manifest_requests(), 2u);
}

TEST_F(Check, HoldsUpOtherRequestsUntilItIsDone)
{
	server.on("/update.xml", answer(to_xml({.url = "http://a/"})).hold());
	start_daemon();
	PendingCall check("fwupdate", "check");
	ASSERT_TRUE(server.wait_for_requests("/update.xml", 1));
	PendingCall state("fwupdate", "state");
	EXPECT_FALSE(check.finished());
	server.release_all();
	EXPECT_EQ(text_of(check.wait().fields, "error_code"), "0");
	EXPECT_EQ(text_of(state.wait().fields, "state"), "XML_DONE");
}

TEST_F(Check, GoesOnBesideADownload)
{
	offer(answer("no image").in_pieces(2).hold());
	start_daemon();
	PendingCall update = daemon().start_update();
	ASSERT_TRUE(server.wait_for_requests("/firmware.bin", 1));
	EXPECT_EQ(daemon().state_name(), "FIRMWARE_CONNECT");

	EXPECT_EQ(text_of(daemon().check().fields, "need_update"), "1");
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	server.on("/update.xml", answer("no XML"));
	EXPECT_EQ(daemon().check().fields, failed_check);
	EXPECT_EQ(daemon().state_name(), "XML_PARSE");
	EXPECT_FALSE(update.finished());
	EXPECT_EQ(daemon().workers().size(), 1u);

	server.release_all();
	EXPECT_EQ(text_of(update.wait().fields, "error_code"), "3"); // it arrived
	EXPECT_TRUE(daemon().wait_for_workers(0));
}

TEST_F(Check, IsToldToOthersWhenItsCallerHasGone)
{
	server.on("/update.xml", answer(to_xml({.url = "http://a/"})).hold());
	start_daemon();
	EventListener listener("fwupdate.avaliable");
	PendingCall caller("fwupdate", "check");
	ASSERT_TRUE(server.wait_for_requests("/update.xml", 1));
	caller.abandon();
	server.release_all();
	const std::optional<BusEvent> event = listener.next();
	ASSERT_TRUE(event);
	EXPECT_EQ(text_of(event->fields, "need_update"), "1");
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
}

TEST_F(Check, LogsTheFactsThatCannotBeRead)
{
	files.set_board("{}");
	files.set_wan("{}");
	offer();
	start_daemon();
	EXPECT_EQ(text_of(daemon().check().fields, "need_update"), "1");
	EXPECT_EQ(syslog.texts(), (std::vector<std::string>{
					  "Error on reading cpe_version",
					  "Error on reading cpe_builddate",
					  "Error on reading cpe_wan_device",
					  "Error on reading cpe_model",
				  }));
	EXPECT_EQ(syslog.lines()[0].ident, "fwupdate");
	EXPECT_EQ(syslog.lines()[0].pid, daemon().pid());
	EXPECT_EQ(syslog.lines()[0].priority, 14);
	EXPECT_EQ(state_message(), "Error on reading cpe_model\n");
}

TEST_F(Check, WithoutDebugLogsNothing)
{
	server.on("/update.xml", answer("no XML"));
	start_daemon({});
	EXPECT_EQ(daemon().check().fields, failed_check);
	EXPECT_EQ(state_message(), "");
	EXPECT_EQ(daemon().state_name(), "XML_PARSE");
	EXPECT_THAT(syslog.texts(), IsEmpty());
}

// The end of the tool's shell interrupts the daemon, which is still reading: the tool's output is
// held open by what it left in the background.
TEST_F(Check, WaitsForASerialNumberAcrossAnInterruption)
{
	const Gate gate;
	files.install_tool("/usr/sbin/qor_factory",
			   "(read -r serial <" + gate.path() + "; echo \"$serial\") &\nexit 0");
	offer();
	start_daemon();
	PendingCall check("fwupdate", "check");
	auto shell_has_ended = [&] {
		const std::vector<ProcessEntry> children = children_of(daemon().pid());
		return children.size() == 1 && children[0].state == 'Z';
	};
	ASSERT_TRUE(eventually(shell_has_ended));
	gate.open("CD67890");
	EXPECT_EQ(text_of(check.wait().fields, "need_update"), "1");
	EXPECT_EQ(server.requests("/update.xml").at(0).parameter("sn"), "CD67890");
	EXPECT_FALSE(syslog.contains("cpe_sn"));
}
