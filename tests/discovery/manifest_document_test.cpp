// SPDX-License-Identifier: ISC
// What becomes of the parsed document: a query that fails leaves it behind, the next one takes it
// away.
#include <dlfcn.h>

#include "discovery/query_fixture.h"

static int documents; // that the library made and nobody has deleted

// These stand before the library's functions of the same names, and call them.
extern "C" mxml_node_t *mxmlLoadString(mxml_node_t *top, const char *text, mxml_load_cb_t callback)
{
	auto load = reinterpret_cast<decltype(&mxmlLoadString)>(dlsym(RTLD_NEXT, "mxmlLoadString"));
	mxml_node_t *document = load(top, text, callback);
	documents += document != nullptr ? 1 : 0;
	return document;
}

extern "C" void mxmlDelete(mxml_node_t *node)
{
	documents -= node != nullptr && mxmlGetParent(node) == nullptr ? 1 : 0;
	reinterpret_cast<decltype(&mxmlDelete)>(dlsym(RTLD_NEXT, "mxmlDelete"))(node);
}

namespace
{

class ManifestDocument : public QueryFixture
{
};

// Has no url.
constexpr const char *failing_xml =
	"<?xml version=\"1.0\"?><update><buildtime>1</buildtime></update>";

} // namespace

TEST_F(ManifestDocument, IsGoneAfterASuccessAndOfFailuresOneStays)
{
	const int before = documents;
	for (int i = 0; i < 2; i++) {
		EXPECT_EQ(query(Manifest{}), 1);
		EXPECT_EQ(documents, before);
	}
	for (int i = 0; i < 3; i++) {
		EXPECT_EQ(query(answer(failing_xml)), -1);
		EXPECT_EQ(documents, before + 1);
	}
}

TEST_F(ManifestDocument, OfAnEarlierAnswerIsNotTakenForThatOfAFailedTransfer)
{
	ASSERT_EQ(query(answer(failing_xml)), -1);
	ASSERT_NE(manifest_buffer.document, nullptr);
	EXPECT_EQ(query(reset_at_once()), -1);
	EXPECT_EQ(manifest_buffer.document, nullptr);
}
