// SPDX-License-Identifier: ISC
// What is kept of the server's answers, and parsed.
#include <gmock/gmock.h>

#include "discovery/request_fixture.h"

using testing::IsEmpty;

namespace
{

class ManifestAnswer : public RequestFixture
{
};

} // namespace

TEST_F(ManifestAnswer, IsKeptAndParsed)
{
	EXPECT_EQ(fetch(answer(xml)), 0);
	EXPECT_EQ(update_context.state, UpdateState::XML_CONNECT);
	EXPECT_EQ(kept(), xml);
	ASSERT_NE(manifest_buffer.document, nullptr);
	EXPECT_NE(mxmlFindElement(manifest_buffer.document, manifest_buffer.document, "version",
				  nullptr, nullptr, MXML_DESCEND),
		  nullptr);
	EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ManifestAnswer, ThatIsNoXmlIsNoFailure)
{
	for (const char *text : {"no XML", "<a></b>", "<a/><b/>", "&", "\377\377"}) {
		SCOPED_TRACE(text);
		EXPECT_EQ(fetch(answer(text)), 0);
		EXPECT_EQ(manifest_buffer.document, nullptr);
		EXPECT_EQ(kept(), text);
	}
	EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ManifestAnswer, WithBadXmlPutsNothingOnStandardError)
{
	testing::internal::CaptureStderr();
	for (const char *text :
	     {"no XML", "<update>", "<a></b>", "<a/><b/>", "<a>&unknown;</a>", "<a>&", "<!-- ",
	      "<![CDATA[", "<a b=>", "<a>\001</a>", "\377\377"}) {
		fetch(answer(text));
	}
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ManifestAnswer, Of1024BytesIsKeptWhole)
{
	const std::string longest = xml + std::string(1024 - xml.size(), '\n');
	for (const HttpAnswer &each : {answer(longest), answer(longest).in_chunks(),
				       answer(longest).without_length(), answer(404, longest)}) {
		EXPECT_EQ(fetch(each), 0);
		EXPECT_EQ(kept(), longest);
		EXPECT_EQ(manifest_buffer.data[1024], '\0');
		EXPECT_NE(manifest_buffer.document, nullptr);
	}
}

TEST_F(ManifestAnswer, InPiecesIsItsLastPiece)
{
	const std::string both = "<a>" + xml;
	const std::string two_chunks = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
				       "5\r\nfirst\r\n4\r\nlast\r\n0\r\n\r\n";
	EXPECT_EQ(fetch(answer(both).cut_at({3})), 0);
	EXPECT_EQ(kept(), xml);
	EXPECT_NE(manifest_buffer.document, nullptr);

	EXPECT_EQ(fetch(answer(xml).cut_at({xml.size() - 4})), 0);
	EXPECT_EQ(kept(), xml.substr(xml.size() - 4));
	EXPECT_EQ(manifest_buffer.document, nullptr);

	EXPECT_EQ(fetch(answer("onetwothree").in_chunks().cut_at({3, 6})), 0);
	EXPECT_EQ(kept(), "three");
	EXPECT_EQ(std::string(manifest_buffer.data), "three");

	EXPECT_EQ(fetch(raw_answer(two_chunks)), 0); // in one delivery of the network
	EXPECT_EQ(kept(), "last");
}

TEST_F(ManifestAnswer, InPiecesMayBeLongerThan1024Bytes)
{
	const std::string rubbish(1024, 'r');
	EXPECT_EQ(fetch(answer(rubbish + rubbish + xml).cut_at({1024, 2048})), 0);
	EXPECT_EQ(kept(), xml);
	EXPECT_NE(manifest_buffer.document, nullptr);
}

TEST_F(ManifestAnswer, WithoutABodyLeavesTheOneBeforeInPlace)
{
	EXPECT_EQ(fetch(answer("")), 0);
	EXPECT_EQ(kept(), "");
	EXPECT_EQ(manifest_buffer.document, nullptr);
	EXPECT_EQ(fetch(answer(xml)), 0);
	for (const HttpAnswer &each :
	     {answer(""), answer(204, ""), answer(404, ""), answer("").in_chunks()}) {
		EXPECT_EQ(fetch(each), 0);
		EXPECT_EQ(kept(), xml);
		EXPECT_NE(manifest_buffer.document, nullptr);
	}
}

TEST_F(ManifestAnswer, ThatWasRefusedLeavesNothingForAnEmptyOne)
{
	EXPECT_EQ(fetch(answer(xml)), 0);
	EXPECT_EQ(fetch(answer(std::string(1025, ' '))), -1);
	EXPECT_EQ(kept(), "");
	EXPECT_EQ(fetch(answer("")), 0);
	EXPECT_EQ(manifest_buffer.document, nullptr);
}

TEST_F(ManifestAnswer, IsFetchedFromWhereItMovedTo)
{
	server.on("/there.xml", answer(xml));
	for (int status : {301, 302, 303, 307, 308}) {
		SCOPED_TRACE(status);
		HttpAnswer moved = redirect("/there.xml?where=there", status);
		moved.pieces = {"<html>moved</html>"};
		EXPECT_EQ(fetch(moved), 0);
		EXPECT_EQ(kept(), xml);
		EXPECT_EQ(server.requests().back().target, "/there.xml?where=there");
	}
	server.on("/far.xml", redirect(server.url("/there.xml")));
	EXPECT_EQ(fetch(redirect(server.url("/far.xml"))), 0);
	EXPECT_EQ(kept(), xml);
}

TEST_F(ManifestAnswer, ThatMovedToNowhereIsAnAnswer)
{
	EXPECT_EQ(fetch(answer(302, xml)), 0);
	EXPECT_EQ(kept(), xml);
}
