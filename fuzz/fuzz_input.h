// SPDX-License-Identifier: ISC
// Takes a fuzzer's input apart from its front. What is not there any more is empty or zero, so that
// every input means something.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace fuzz
{

class Input
{
public:
	Input(const std::uint8_t *data, std::size_t size)
	    : rest_(reinterpret_cast<const char *>(data), size)
	{
	}

	bool empty() const
	{
		return rest_.empty();
	}

	std::uint8_t take_byte()
	{
		const std::string_view byte = take(1);
		return byte.empty() ? 0 : static_cast<std::uint8_t>(byte[0]);
	}

	// A length of one or two bytes, high byte first, and that many bytes, or what is left.
	std::string_view take_short_piece()
	{
		return take(take_byte());
	}
	std::string_view take_piece()
	{
		const std::size_t high = take_byte();
		return take(high << 8 | take_byte());
	}

	std::string_view take(std::size_t count)
	{
		const std::string_view taken = rest_.substr(0, count);
		rest_.remove_prefix(taken.size());
		return taken;
	}

	std::string_view take_rest()
	{
		return take(rest_.size());
	}

private:
	std::string_view rest_;
};

// A copy in memory of exactly that size, so that the sanitizer sees a read beyond its end.
inline std::unique_ptr<char[]> exact_copy(std::string_view bytes)
{
	auto copy = std::make_unique<char[]>(bytes.size());
	std::copy(bytes.begin(), bytes.end(), copy.get());
	return copy;
}

} // namespace fuzz
