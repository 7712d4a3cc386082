// SPDX-License-Identifier: ISC
#include <cstring>
#include <gmock/gmock.h>

#include "discovery/discovery_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class ManifestValue : public DiscoveryFixture
{
protected:
	void TearDown() override
	{
		mxmlDelete(document);
		DiscoveryFixture::TearDown();
	}
	void load(const std::string &xml)
	{
		mxmlDelete(document);
		document = mxmlLoadString(nullptr, xml.c_str(), MXML_OPAQUE_CALLBACK);
		ASSERT_NE(document, nullptr);
	}
	int get(const char *name, bool needed = true)
	{
		std::memset(field, 'x', sizeof(field));
		return manifest_get_value(document, name, field, 8, needed);
	}
	std::string bytes() const
	{
		return {field, sizeof(field)};
	}

	mxml_node_t *document = nullptr;
	char field[12] = {};
};

const std::string declaration = "<?xml version=\"1.0\"?>\n";
const std::string untouched(12, 'x');

std::string in_document(const std::string &elements)
{
	return declaration + "<update>" + elements + "</update>";
}

struct ValueCase {
	const char *what;
	std::string elements;
	std::string kept; // the 8 bytes of the limit
};

struct EmptyCase {
	const char *what;
	std::string element;
};

} // namespace

TEST_F(ManifestValue, IsTheElementsTextUpToTheLimit)
{
	using namespace std::string_literals;
	const std::vector<ValueCase> cases = {
		{"a short text", "<url>abc</url>", "abc\0\0\0\0\0"s},
		{"one less than the limit", "<url>1234567</url>", "1234567\0"s},
		{"the limit", "<url>12345678</url>", "12345678"},
		{"longer than the limit", "<url>123456789abcdef</url>", "12345678"},
		{"white space", "<url> a\n\tb </url>", " a\n\tb \0\0"s},
		{"only white space", "<url> </url>", " \0\0\0\0\0\0\0"s},
		{"entities", "<url>&lt;&amp;&gt;&#65;</url>", "<&>A\0\0\0\0"s},
		{"attributes", "<url a=\"1\">abc</url>", "abc\0\0\0\0\0"s},
		{"text up to a child", "<url>ab<b>c</b>d</url>", "ab\0\0\0\0\0\0"s},
		{"bytes above 127", "<url>\303\251</url>", "\303\251\0\0\0\0\0\0"s},
	};
	for (const ValueCase &each : cases) {
		SCOPED_TRACE(each.what);
		load(in_document(each.elements));
		EXPECT_EQ(get("url"), 0);
		EXPECT_EQ(bytes(), each.kept + "xxxx");
	}
	EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ManifestValue, ComesFromTheFirstElementOfItsNameWhereverItStands)
{
	using namespace std::string_literals;
	const std::string first = "first\0\0\0"s + "xxxx";
	const std::string documents[] = {
		in_document("<url>first</url><url>second</url>"),
		in_document("<a><b><url>first</url></b></a><url>second</url>"),
		in_document("<a>text</a><a/><url>first</url>"),
		declaration + "<url>first</url>", // the declaration is the outermost node
		"<update><url>first</url></update>",
		in_document("<url>first<url>second</url></url>"),
	};
	for (const std::string &xml : documents) {
		SCOPED_TRACE(xml);
		load(xml);
		EXPECT_EQ(get("url"), 0);
		EXPECT_EQ(bytes(), first);
	}
}

TEST_F(ManifestValue, IsTakenOutOfTheDocument)
{
	load(in_document("<url>first</url><b>other</b><url>second</url>"));
	EXPECT_EQ(get("url"), 0);
	EXPECT_EQ(get("url"), 0);
	EXPECT_STREQ(field, "second");
	EXPECT_EQ(get("url"), -1);
	EXPECT_EQ(get("b"), 0);
	EXPECT_STREQ(field, "other");
}

TEST_F(ManifestValue, TakesItsChildrenAlong)
{
	load(in_document("<url>text<b>inner</b></url>"));
	EXPECT_EQ(get("url"), 0);
	EXPECT_EQ(get("b"), -1);
}

TEST_F(ManifestValue, OutermostElementWithoutDeclarationIsNotFound)
{
	load("<url>text</url>");
	EXPECT_EQ(get("url"), -1);
	EXPECT_EQ(bytes(), untouched);
}

TEST_F(ManifestValue, ThatIsMissingIsLoggedByItsName)
{
	load(in_document("<URL>text</URL><urls>text</urls><b url=\"text\">url</b>"));
	EXPECT_EQ(get("url"), -1);
	EXPECT_EQ(bytes(), untouched);
	EXPECT_EQ(get("buildtime"), -1);
	EXPECT_THAT(logged(), ElementsAre("Error parsing XML recived from update server, "
					  "can't find 'url' section",
					  "Error parsing XML recived from update server, "
					  "can't find 'buildtime' section"));
}

TEST_F(ManifestValue, OfNoDocumentIsMissing)
{
	EXPECT_EQ(get("url"), -1);
	EXPECT_EQ(bytes(), untouched);
	EXPECT_THAT(logged(), ElementsAre("Error parsing XML recived from update server, "
					  "can't find 'url' section"));
}

TEST_F(ManifestValue, WithoutTextIsLoggedAndTakenOut)
{
	const std::vector<EmptyCase> cases = {
		{"no content", "<url/>"},
		{"empty", "<url></url>"},
		{"a child first", "<url><b>inner</b>text</url>"},
		{"a comment first", "<url><!-- note -->text</url>"},
		{"CDATA", "<url><![CDATA[text]]></url>"},
	};
	for (const EmptyCase &each : cases) {
		SCOPED_TRACE(each.what);
		syslog.clear();
		load(in_document(each.element + "<url>next</url>"));
		EXPECT_EQ(get("url"), -1);
		EXPECT_EQ(bytes(), untouched);
		EXPECT_THAT(logged(), ElementsAre("Error parsing XML recived from update server, "
						  "can't get 'url' value"));
		EXPECT_EQ(get("url"), 0);
		EXPECT_STREQ(field, "next");
		EXPECT_EQ(get("b"), -1);
	}
}

TEST_F(ManifestValue, OptionalOneIsMissedInSilence)
{
	load(in_document("<url/>"));
	EXPECT_EQ(get("url", false), -1);
	EXPECT_EQ(bytes(), untouched);
	EXPECT_EQ(get("url", false), -1);
	EXPECT_EQ(bytes(), untouched);
	EXPECT_EQ(manifest_get_value(nullptr, "url", field, 8, false), -1);
	EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ManifestValue, OptionalOneWithoutTextIsTakenOut)
{
	load(in_document("<url/><url>next</url>"));
	EXPECT_EQ(get("url", false), -1);
	EXPECT_EQ(get("url", false), 0);
	EXPECT_STREQ(field, "next");
}

TEST_F(ManifestValue, LookingForItIsAStateOfItsOwn)
{
	load(in_document("<url>text</url><b/>"));
	for (const char *name : {"url", "b", "missing"}) {
		SCOPED_TRACE(name);
		update_context.state = UpdateState::XML_CONNECT;
		get(name);
		EXPECT_EQ(update_context.state, UpdateState::XML_PARSE);
	}
}
