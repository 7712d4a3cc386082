// SPDX-License-Identifier: ISC
// What becomes of the parsed document: a query that fails leaves it behind, the next one takes it
// away.
#include <malloc.h>

#include "discovery/query_fixture.h"

#if defined(__SANITIZE_ADDRESS__)
// Declared here because g++ comes without the header.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace
{

class ManifestDocument : public QueryFixture
{
};

std::size_t heap_in_use()
{
#if defined(__SANITIZE_ADDRESS__)
	return __sanitizer_get_current_allocated_bytes();
#else
	return mallinfo2().uordblks;
#endif
}

std::size_t weight_of(const std::string &xml)
{
	const std::size_t before = heap_in_use();
	mxml_node_t *document = mxmlLoadString(nullptr, xml.c_str(), MXML_OPAQUE_CALLBACK);
	const std::size_t weight = heap_in_use() - before;
	mxmlDelete(document);
	return weight;
}

// Has no url; holds as many nodes as fit, so that a document weighs much more than its text.
std::string failing_xml()
{
	std::string xml = "<?xml version=\"1.0\"?><update><buildtime>1</buildtime>";
	while (xml.size() < 1000) {
		xml += "<a/>";
	}
	return xml + "</update>";
}

} // namespace

TEST_F(ManifestDocument, IsGoneAfterASuccess)
{
	EXPECT_EQ(query(Manifest{}), 1);
	EXPECT_EQ(manifest_buffer.document, nullptr);
}

TEST_F(ManifestDocument, StaysAfterAnAnswerThatLacksAValue)
{
	for (const std::string elements :
	     {"", "<buildtime>1</buildtime>",
	      "<buildtime>1</buildtime><url>u</url><archive>1</archive>"}) {
		SCOPED_TRACE(elements);
		update_manifest = {};
		EXPECT_EQ(query(answer("<?xml version=\"1.0\"?><update>" + elements + "</update>")),
			  -1);
		EXPECT_NE(manifest_buffer.document, nullptr);
	}
}

TEST_F(ManifestDocument, OfAnEarlierAnswerIsNotTakenForThatOfAFailedTransfer)
{
	ASSERT_EQ(query(answer(failing_xml())), -1);
	ASSERT_NE(manifest_buffer.document, nullptr);
	EXPECT_EQ(query(reset_at_once()), -1);
	EXPECT_EQ(manifest_buffer.document, nullptr);
}

TEST_F(ManifestDocument, ThatFailedQueriesLeaveDoesNotPileUp)
{
	constexpr int queries = 12;
	server.on("/update.xml", answer(failing_xml()));
	// libcurl and the C library keep what they took the first times.
	for (int i = 0; i < 3; i++) {
		query_update_server();
	}
	ASSERT_NE(manifest_buffer.document, nullptr);
	const std::size_t weight = weight_of(failing_xml());
	const std::size_t before = heap_in_use();
	for (int i = 0; i < queries; i++) {
		EXPECT_EQ(query_update_server(), -1);
	}
	// The test's own records of requests and log lines grow, but by far less than this.
	EXPECT_LT(heap_in_use(), before + queries / 2 * weight);
}
