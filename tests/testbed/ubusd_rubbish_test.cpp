// SPDX-License-Identifier: ISC
// What a client must not say, and what no client may do to the others.
#include <vector>

#include "bus_fixture.h"

using namespace bus_wire;
using bus_test::RawClient;

namespace
{

constexpr std::size_t max_attr_len = 1u << 20;

std::string lookup_with(const std::string &attributes)
{
	return message(LOOKUP, 1, 0, attributes);
}

std::string random_bytes(unsigned int seed, std::size_t length)
{
	std::string bytes;

	while (bytes.size() < length) {
		seed = seed * 1664525u + 1013904223u;
		bytes += static_cast<char>(seed >> 24);
	}
	return bytes;
}

struct Rubbish {
	const char *name;
	std::string bytes;
};

std::ostream &operator<<(std::ostream &out, const Rubbish &rubbish)
{
	return out << rubbish.name;
}

std::vector<Rubbish> malformed_messages()
{
	const std::string no_body = big_endian(4, 4);

	return {
		{"VersionOne", head(PING, 1, 0, 1) + no_body},
		{"Version255", head(PING, 1, 0, 255) + no_body},
		{"LengthZero", head(PING, 1, 0) + big_endian(0, 4)},
		{"LengthOne", head(PING, 1, 0) + big_endian(1, 4)},
		{"LengthThree", head(PING, 1, 0) + big_endian(3, 4)},
		{"OneByteTooLarge", head(PING, 1, 0) + big_endian(max_attr_len + 1, 4)},
		{"LargestLength", head(PING, 1, 0) + big_endian(0xffffff, 4)},
		{"OuterId", head(PING, 1, 0) + big_endian(0x01000004, 4)},
		{"OuterExtended", head(PING, 1, 0) + big_endian(0x80000004, 4)},
		{"AllOnes", std::string(64, '\xff')},
		{"AllZeros", std::string(64, '\0')},
		{"Text", "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"},
		{"Random", random_bytes(1, 4096)},
		{"OneTrailingByte", head(LOOKUP, 1, 0) + big_endian(5, 4) + "x"},
		{"ThreeTrailingBytes", lookup_with(number(A_OBJID, 1) + "abc")},
		{"AttributeLengthZero", lookup_with(big_endian(0x02000000, 4))},
		{"AttributeLengthThree", lookup_with(big_endian(0x02000003, 4))},
		{"AttributeBeyondTheEnd", lookup_with(big_endian(0x02000009, 4) + "abc" + '\0')},
		{"AttributeFarBeyondTheEnd", lookup_with(big_endian(0x02ffffff, 4) + "abc" + '\0')},
		{"PaddingBeyondTheEnd",
		 head(LOOKUP, 1, 0) + big_endian(10, 4) + big_endian(0x02000006, 4) + 'a' + '\0'},
		{"SecondAttributeBeyondTheEnd",
		 lookup_with(text(A_OBJPATH, "x") + big_endian(0x03000040, 4))},
		{"ExtendedAttribute", lookup_with(field(F_STRING, "path", "x"))},
		{"PathWithoutItsZero", lookup_with(attribute(A_OBJPATH, "abcd"))},
		{"EmptyString", lookup_with(attribute(A_OBJPATH, ""))},
		{"ZeroInsideAPath", lookup_with(attribute(A_OBJPATH, {"ab\0cd", 6}))},
		{"ShortNumber", message(REMOVE_OBJECT, 1, 0, attribute(A_OBJID, "ab"))},
		{"LongNumber", message(REMOVE_OBJECT, 1, 0, attribute(A_OBJID, "abcdefgh"))},
		{"EmptyNumber", message(REMOVE_OBJECT, 1, 0, attribute(A_OBJID, ""))},
		{"LongFlag", message(INVOKE, 1, 0, attribute(A_NO_REPLY, "ab"))},
		{"StatusOfOneByte", message(STATUS, 1, 0, attribute(A_STATUS, "a"))},
		{"MethodWithoutItsZero",
		 message(INVOKE, 1, 0,
			 number(A_OBJID, 1) + attribute(A_METHOD, "send") + attribute(A_DATA, ""))},
		{"GoodThenBad", message(PING, 1, 0) + head(PING, 1, 0, 9) + no_body},
	};
}

using UbusDDamage = bus_test::BusyBus;

class UbusDRubbish : public bus_test::BusyBus, public testing::WithParamInterface<Rubbish>
{
};

TEST_P(UbusDRubbish, EndsItsSenderAndNobodyElse)
{
	RawClient rude(socket());

	rude.send(GetParam().bytes);
	EXPECT_TRUE(rude.is_closed());
	call_through();
}

INSTANTIATE_TEST_SUITE_P(Messages, UbusDRubbish, testing::ValuesIn(malformed_messages()),
			 [](const auto &rubbish) { return std::string(rubbish.param.name); });

TEST_F(UbusDDamage, MessagesThatAreCutOffAreForgotten)
{
	const std::string whole = message(LOOKUP, 1, 0, text(A_OBJPATH, "one"));

	for (std::size_t length = 0; length < whole.size(); length++) {
		RawClient rude(socket());
		rude.send(whole.substr(0, length));
	}
	call_through();
}

TEST_F(UbusDDamage, RandomBodiesDoNoHarm)
{
	for (unsigned int seed = 0; seed < 300; seed++) {
		RawClient rude(socket());
		rude.send(message(static_cast<int>(seed % 12), 1, object,
				  random_bytes(seed, seed % 61)));
	}
	call_through();
}

TEST_F(UbusDDamage, DamagedEventArgumentsAreRefused)
{
	const std::string good = string_field("id", "x") + field(F_TABLE, "data", "");
	int refused = 0;

	for (std::size_t length = 0; length < good.size(); length++) {
		const int status = caller.ask(
			invoke(static_cast<int>(length), 1, "send", good.substr(0, length)));
		refused += status == 2;
	}
	EXPECT_EQ(refused, static_cast<int>(good.size()));
	call_through();
}

} // namespace
